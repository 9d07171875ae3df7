#include "foundation/diagnostics.h"

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/diagnosticsCallBack.h"
#include "foundation/heldLines.h"

namespace VexelAlgorithm {
namespace {

// A text is what one print call prints: lines, or a piece of one.
using Texts = std::vector<std::string>;

void write_and_flush(const std::string& text) noexcept {
    static std::mutex mutex;
    try {
        const std::lock_guard<std::mutex> lock(mutex);
        std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
        std::cout.flush();
    } catch (...) {
        // A closed or throwing standard output must not end a scan.
    }
}

/// What a thread has to know about its own lines. Trivial, because threads may print until their very end.
struct ThreadLines {
    int holders = 0;  ///< `HeldLines` and `WorkerLines` that live
    bool isInsideFunction = false;
    Texts* waiting = nullptr;  ///< null for none, and without a holder

    void wait(std::string&& text) {
        if (waiting == nullptr) waiting = new Texts;
        waiting->push_back(std::move(text));
    }
    Texts release() {
        const std::unique_ptr<Texts> released(std::exchange(waiting, nullptr));
        return released ? std::move(*released) : Texts();
    }
};

ThreadLines& own_lines() {
    thread_local ThreadLines lines;
    return lines;
}

/// Hands texts to the application's function: the thread that brings some while nobody is at it goes on until none is
/// left, also for the threads that come meanwhile. No lock is held during the function.
class Redirection {
public:
    bool is_on() const { return _isOn.load(std::memory_order_relaxed); }

    void set(DiagnosticsCallBack function, void* user) {
        std::unique_lock<std::mutex> lock(_mutex);
        _function = function;
        _user = user;
        _isOn = function != nullptr;
        if (own_lines().isInsideFunction) return;
        const std::uint64_t lastBegun = _callsBegun;
        _callEnded.wait(lock, [&] { return _callsEnded >= lastBegun; });
    }

    /// Whether somebody has left texts.
    bool has_waiting() const { return _hasWaiting.load(std::memory_order_relaxed); }

    void leave(Texts&& texts) {
        const std::lock_guard<std::mutex> lock(_mutex);
        std::move(texts.begin(), texts.end(), std::back_inserter(_waiting));
        _hasWaiting = true;
    }

    void hand_over(Texts&& texts) {
        leave(std::move(texts));
        std::unique_lock<std::mutex> lock(_mutex);
        if (_isHandingOver) return;
        _isHandingOver = true;
        while (!_waiting.empty()) {
            const std::string text = std::move(_waiting.front());
            _waiting.pop_front();
            hand_over(text, lock);
        }
        _hasWaiting = false;
        _isHandingOver = false;
    }

private:
    void hand_over(const std::string& text, std::unique_lock<std::mutex>& lock) {
        const DiagnosticsCallBack function = _function;
        void* const user = _user;
        ++_callsBegun;
        lock.unlock();
        if (function != nullptr) {
            call_with_lines(function, user, text);
        } else {
            write_and_flush(text);
        }
        lock.lock();
        ++_callsEnded;
        _callEnded.notify_all();
    }

    static void call_with_lines(DiagnosticsCallBack function, void* user, const std::string& text) noexcept {
        own_lines().isInsideFunction = true;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t lineEnd = text.find('\n', begin);
            const std::size_t end = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
            try {
                const std::string line = text.substr(begin, end - begin);
                function(line.c_str(), line.size(), user);
            } catch (...) {
                // The application's failure to show a line must not end a scan.
            }
            begin = end;
        }
        own_lines().isInsideFunction = false;
    }

    std::mutex _mutex;
    std::condition_variable _callEnded;
    DiagnosticsCallBack _function = nullptr;
    void* _user = nullptr;
    std::atomic<bool> _isOn{false};
    std::deque<std::string> _waiting;
    std::atomic<bool> _hasWaiting{false};
    bool _isHandingOver = false;
    std::uint64_t _callsBegun = 0;
    std::uint64_t _callsEnded = 0;
};

Redirection& redirection() {
    // Never destroyed: objects of the application may print when the process ends.
    static Redirection* const only = new Redirection;
    return *only;
}

void print(std::string text) {
    if (!redirection().is_on() || own_lines().isInsideFunction) return write_and_flush(text);
    if (own_lines().holders > 0) return own_lines().wait(std::move(text));
    Texts texts;
    texts.push_back(std::move(text));
    redirection().hand_over(std::move(texts));
}

}  // namespace

void print_line(std::string_view line) {
    std::string text(line);
    text += '\n';
    print(std::move(text));
}

void print_text(std::string_view text) {
    print(std::string(text));
}

void set_diagnostics_call_back(DiagnosticsCallBack function, void* user) noexcept {
    try {
        redirection().set(function, user);
    } catch (...) {
        // A mutex that fails leaves the function as it was.
    }
}

HeldLines::HeldLines() noexcept {
    ++own_lines().holders;
}

HeldLines::~HeldLines() {
    ThreadLines& lines = own_lines();
    if (--lines.holders > 0 || (lines.waiting == nullptr && !redirection().has_waiting())) return;
    try {
        redirection().hand_over(lines.release());
    } catch (...) {
        // Lines that there is no memory for are lost.
    }
}

WorkerLines::WorkerLines() noexcept {
    ++own_lines().holders;
}

WorkerLines::~WorkerLines() {
    ThreadLines& lines = own_lines();
    if (--lines.holders > 0 || lines.waiting == nullptr) return;
    try {
        redirection().leave(lines.release());
    } catch (...) {
        // Lines that there is no memory for are lost.
    }
}

std::string format_text(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<std::size_t>(length));
    }
    va_end(again);
    return text;
}

}  // namespace VexelAlgorithm
