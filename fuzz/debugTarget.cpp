// Debug recordings of sessions.
#include <sstream>

#include "fusiontrackoperation/DebugRecordReader.h"
#include "fuzz/target.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

constexpr std::int64_t mostSlots = 1 << 16;  // frames take memory for every slot, whatever the bytes were

void take_frame(const PackedFrame& frame) {
    const std::int64_t count = frame.slot_count();
    require(frame.points.size() == frame.slots.size(), "each filled slot has a point");
    for (const std::int32_t slot : frame.slots) require(slot >= 0 && slot < count, "slots are in the image");
    if (count > mostSlots) return;
    const PointImage image = frame.unpacked();
    require(image.is_legal() && image.get_vn() == static_cast<std::size_t>(count), "a frame has all its slots");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream in{std::string(VexelFuzz::text_of(data, size))};
    DebugRecordReader reader(in);
    if (reader.read_header()) return 0;
    std::size_t records = 0;
    for (DebugRecord record; reader.next(record) == DebugRecordReader::Read::Record;) {
        require(++records <= size, "records take bytes");
        const auto* call = std::get_if<FrameCall>(&record.content);
        if (call != nullptr && call->frame.isLegal) take_frame(call->frame);
    }
    return 0;
}
