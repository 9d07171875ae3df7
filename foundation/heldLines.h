// When redirected lines are handed over. Internal to the library.
#pragma once

#include "foundation/export.h"

namespace VexelAlgorithm {

/// While one lives, redirected lines of its thread wait; when the outermost one of the thread goes, they are handed to
/// the application's function. Every exported function that may take a lock has one around its body, so that the
/// function may call back into the library. Without a redirection nothing waits.
class VEXEL_API HeldLines {
public:
    HeldLines() noexcept;
    ~HeldLines();
    HeldLines(const HeldLines&) = delete;
    HeldLines& operator=(const HeldLines&) = delete;
};

/// The same around work for another thread that may hold locks meanwhile: lines are left for the next ones who hand
/// over.
class VEXEL_API WorkerLines {
public:
    WorkerLines() noexcept;
    ~WorkerLines();
    WorkerLines(const WorkerLines&) = delete;
    WorkerLines& operator=(const WorkerLines&) = delete;
};

}  // namespace VexelAlgorithm
