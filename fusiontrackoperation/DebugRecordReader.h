// Reads debug recordings. docs/debug-recording.md tells their form.
#pragma once

#include <istream>
#include <optional>

#include "foundation/export.h"
#include "fusiontrackoperation/debugRecords.h"

namespace VexelAlgorithm {

/// Goes through a recording record by record. Nothing in the file is trusted: memory and time follow the bytes that
/// are there, and every outcome but `Record` ends the reading. Prints nothing.
class VEXEL_API DebugRecordReader {
public:
    enum class Read {
        Record,  ///< there is one, maybe of an unknown kind
        End,     ///< the file ends behind a record
        Cut,     ///< it ends within one
        Damaged  ///< something is not as it must be
    };

    /// The stream, binary, must outlive the reader.
    explicit DebugRecordReader(std::istream& in) : _in(in) {}

    /// The head of the file; to be called first. Why it is not the beginning of a recording, or nothing.
    std::optional<std::string> read_header();
    /// May throw std::bad_alloc.
    Read next(DebugRecord& record);

private:
    Read read_name(std::string& name);
    Read read_entry(DebugRecord& record);
    bool accept(std::string_view entry, std::string_view bytes, DebugRecord& record);

    std::istream& _in;
    std::string _bytes;
};

}  // namespace VexelAlgorithm
