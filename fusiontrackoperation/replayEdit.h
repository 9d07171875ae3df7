// Edits of a debug recording, done once more.
#pragma once

#include "foundation/RetVal.h"
#include "foundation/export.h"
#include "fusiontrackoperation/debugRecords.h"

namespace VexelAlgorithm {

/// Does to the session of that handle what the recorded edit did to its own: on one thread, and after the same frames,
/// to the last bit. Returns what the function of the edit would; a record that is none of an edit gives a line and
/// `RET_INPUT_ERROR`.
VEXEL_API RetVal replay_edit(void* session, const EditRecord& edit) noexcept;

}  // namespace VexelAlgorithm
