// The frame of every exported function: the check of its handle and the guard against exceptions.
//
// A handle is a `void*` to an object that an initialising function made and a release function destroys. An
// exported function reads
//
//     RetVal reset_Point_dis(void* handle, float pointDis) {
//         return on_handle<FusionTrack, RetVal>(
//             handle, {"reset_Point_dis", null_text::can_not_run("reset_Point_dis")}, {RET_INI_ERROR, RET_RUN_FAIL},
//             [&](FusionTrack& session) { return session.reset_point_dis(pointDis); });
//     }
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "foundation/RetVal.h"
#include "foundation/diagnostics.h"
#include "foundation/heldLines.h"

namespace VexelAlgorithm {

/// What is printed for a null handle, in three pieces so that it can be a constant.
struct NullText {
    std::string_view head;
    std::string_view function = {};
    std::string_view tail = {};
    bool endsLine = true;  ///< one text is written without a line end
};

/// The texts in use. All of them, odd spelling and blanks at the end included, belong to the interface.
namespace null_text {

inline constexpr NullText FRAME_STEP{"fail because pFusionTrack == NULL"};
inline constexpr NullText SESSION{"fail because pFusionTrack = NULL"};
inline constexpr NullText CALL_BACK_SETTER{"can not run this function because pFusionTrack = NULL"};
inline constexpr NullText ALGORITHM{"fail because pAlgorithmTemp == NULL "};
inline constexpr NullText UTILITY{"fail because pTemp == NULL "};
inline constexpr NullText FUSION_DEBUG{
    "cant not run function named shoule_we_debug_fusion because pTemp == NULL ", {}, {}, false};
inline constexpr NullText DEBUG_SEQ{"can not run function should_we_debug_seq, because pRebuild == NULL"};
inline constexpr NullText SHOW_DEBUG_FILE{"can not run function show_debug_file, because hSpecReb == NULL "};

/// "can not run function NAME because pFusionTrack = NULL"
constexpr NullText can_not_run(std::string_view function) {
    return {"can not run function ", function, " because pFusionTrack = NULL"};
}

inline constexpr NullText RELEASE = can_not_run("fail fusiontrack_release");

}  // namespace null_text

/// An exported function as its failures name it.
struct ExportedFunction {
    std::string_view name;
    NullText onNull;
};

/// What an exported function returns when its handle is null and when its body throws.
template <class Result>
struct FailureValues {
    Result onNull;
    Result onException;
};

namespace handle_detail {

/// Failures are reported on a best effort: when even the line cannot be built, the value must do.
inline void report(std::string_view name, std::string_view reason) noexcept {
    try {
        print_line(std::string(name).append(" failed: ").append(reason));
    } catch (...) {
    }
}

inline void report(const NullText& text) noexcept {
    try {
        const std::string line = std::string(text.head).append(text.function).append(text.tail);
        text.endsLine ? print_line(line) : print_text(line);
    } catch (...) {
    }
}

/// To be called from a catch clause.
inline void report_current_exception(std::string_view name) noexcept {
    try {
        throw;
    } catch (const std::exception& error) {
        report(name, error.what());
    } catch (...) {
        report(name, "unknown exception");
    }
}

template <class Type>
struct Identity {
    using type = Type;
};

}  // namespace handle_detail

/// Runs the body and returns its result. Whatever it throws ends here: one line "NAME failed: REASON" is
/// printed and `onException` returned. `Result` may be a reference; what it refers to must then outlive the
/// call.
template <class Result, class Body>
Result guarded(std::string_view name, typename handle_detail::Identity<Result>::type onException,
               Body&& body) noexcept {
    const HeldLines lines;
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        handle_detail::report_current_exception(name);
    }
    return static_cast<Result&&>(onException);
}

/// The same for functions that return nothing.
template <class Body>
void guarded(std::string_view name, Body&& body) noexcept {
    const HeldLines lines;
    try {
        std::forward<Body>(body)();
    } catch (...) {
        handle_detail::report_current_exception(name);
    }
}

/// Runs `body(object)` on the object behind the handle, guarded. A null handle prints the function's text and
/// yields `failure.onNull`; nothing else is touched.
template <class Object, class Result, class Body>
Result on_handle(void* handle, const ExportedFunction& function, const FailureValues<Result>& failure,
                 Body&& body) noexcept {
    if (handle == nullptr) {
        handle_detail::report(function.onNull);
        return failure.onNull;
    }
    return guarded<Result>(function.name, failure.onException,
                           [&]() -> Result { return body(*static_cast<Object*>(handle)); });
}

/// The same for functions that return nothing.
template <class Object, class Body>
void on_handle(void* handle, const ExportedFunction& function, Body&& body) noexcept {
    if (handle == nullptr) {
        handle_detail::report(function.onNull);
        return;
    }
    guarded(function.name, [&] { body(*static_cast<Object*>(handle)); });
}

/// Destroys the object, nulls the caller's handle and returns `RET_SUCCESS`; a handle that is null already
/// prints the function's text and yields `onNull`.
template <class Object>
RetVal release_handle(void*& handle, const ExportedFunction& function, RetVal onNull) noexcept {
    return on_handle<Object, RetVal>(handle, function, {onNull, RET_RUN_FAIL}, [&](Object& object) {
        handle = nullptr;
        delete &object;
        return RET_SUCCESS;
    });
}

}  // namespace VexelAlgorithm
