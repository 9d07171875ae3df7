// A value, or the one line that says why there is none.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace VexelAlgorithm {

/// Why something failed: one sentence for the user, naming file and cause, without a line end.
struct Failure {
    std::string reason;
};

/// What reading or writing a file gives back. Exactly one of value and reason is there.
template <class T>
class Outcome {
public:
    Outcome(T value) : _value(std::move(value)) {}
    Outcome(Failure failure) : _failure(std::move(failure)) {}

    explicit operator bool() const { return _value.has_value(); }
    T& operator*() { return *_value; }
    const T& operator*() const { return *_value; }
    T* operator->() { return &*_value; }
    const T* operator->() const { return &*_value; }
    /// Only while there is no value.
    const Failure& failure() const { return _failure; }

private:
    std::optional<T> _value;
    Failure _failure;
};

/// Success has nothing further to say.
struct Done {};

}  // namespace VexelAlgorithm
