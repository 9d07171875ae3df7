// Where the library's printed lines go.
#pragma once

#include <cstddef>

#include "foundation/export.h"

namespace VexelAlgorithm {

/// Gets one printed line with the line end that closes it; the one text that is printed without a line end comes
/// without. `line` has `length` characters and a terminating zero behind them, and is gone when the function returns.
using DiagnosticsCallBack = void (*)(const char* line, std::size_t length, void* user);

/// From now on every line that the library prints goes to the function, with the user pointer, instead of standard
/// output; null, as at first, restores standard output. It is one function for the whole process. May be called at any
/// time from any thread, also from inside the function.
///
/// The function is called by one thread at a time, so that lines never mix, and the lines that a thread prints in one call
/// into the library come together and in order. They come when that call is about to return, on the thread that made it, and no lock of
/// the library is held then: the function may call whatever it likes, also on the handle that printed. A thread that
/// finds another one inside the function leaves its lines to that one and goes on; so nobody waits for anybody.
///
/// What is printed by calls from inside the function goes to standard output, lest a line make a line for ever.
/// Whatever the function throws is dropped. When this call returns, no other thread is inside the function that was set
/// before, so what that one used may go; it therefore must not be made by a thread that the function waits for.
VEXEL_API void set_diagnostics_call_back(DiagnosticsCallBack function, void* user) noexcept;

}  // namespace VexelAlgorithm
