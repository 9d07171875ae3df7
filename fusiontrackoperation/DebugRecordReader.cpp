#include "fusiontrackoperation/DebugRecordReader.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "foundation/archive.h"
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/debugRecordNames.h"
#include "fusiontrackoperation/recordFields.h"

namespace VexelAlgorithm {
namespace {

using namespace DebugRecordNames;

constexpr std::int32_t LONGEST_NAME = 255;
constexpr std::int32_t MOST_ENTRIES = 255;
constexpr std::int64_t LARGEST_ENTRY = std::int64_t{1} << 30;  // beyond every image that a session takes
constexpr std::int64_t MOST_SLOTS = std::int64_t{1} << 31;

bool are_slots_of(const std::vector<std::int32_t>& slots, std::int64_t count) {
    const auto not_ascending = [](std::int32_t a, std::int32_t b) { return a >= b; };
    return slots.empty() || (slots.front() >= 0 && slots.back() < count &&
                             std::adjacent_find(slots.begin(), slots.end(), not_ascending) == slots.end());
}

bool read_frame(std::string_view bytes, PackedFrame& frame) {
    FieldReader fields(bytes);
    visit_frame_header(fields, frame);
    std::int32_t slotCount = 0, filled = 0;
    fields.field(slotCount);
    fields.field(filled);
    if (frame.width < 0 || frame.height < 0 || frame.slot_count() >= MOST_SLOTS) return false;
    if (slotCount != frame.slot_count() && frame.isLegal) return false;
    fields.entries(filled, frame.slots);
    fields.entries(filled, frame.points);
    if (frame.hasNormals) fields.entries(filled, frame.normals);
    if (frame.hasColors) fields.entries(filled, frame.colors);
    if (frame.hasFlags) fields.entries(filled, frame.flags);
    if (frame.hasWeights) fields.entries(filled, frame.weights);
    return fields.is_done() && are_slots_of(frame.slots, frame.slot_count()) && (frame.isLegal || filled == 0);
}

bool is_step(std::string_view name) {
    return std::find(std::begin(STEPS), std::end(STEPS), name) != std::end(STEPS);
}

/// The kind of content that a record of this name has, empty.
void begin_content(DebugRecord& record) {
    if (record.property == EDIT_PROPERTY) {
        record.content.emplace<EditRecord>().name = record.name;
    } else if (record.property != FUSION_PROPERTY) {
        record.content = std::monostate();
    } else if (record.name == START) {
        record.content.emplace<SessionStart>();
    } else if (is_step(record.name)) {
        record.content.emplace<FrameCall>().function = record.name;
    } else if (record.name == RESULT) {
        record.content.emplace<FrameResult>();
    } else if (record.name == END) {
        record.content.emplace<SessionEnd>();
    } else {
        record.content.emplace<SettingChange>().function = record.name;
    }
}

/// The entries without which a record of this name means nothing.
std::vector<std::string_view> needed_entries(const DebugRecord& record) {
    if (std::holds_alternative<SessionStart>(record.content)) {
        return {COMMON_ENTRY, TRACK_ENTRY, FUSION_ENTRY, ACCEPTED_ENTRY};
    }
    if (std::holds_alternative<FrameCall>(record.content)) return {ARGUMENTS_ENTRY, FRAME_ENTRY};
    if (std::holds_alternative<FrameResult>(record.content)) return {STATE_ENTRY};
    if (std::holds_alternative<EditRecord>(record.content)) return {DATAS_ENTRY, POSES_ENTRY};
    return {};
}

/// Those that may be left out.
std::vector<std::string_view> further_entries(const DebugRecord& record) {
    if (std::holds_alternative<SessionStart>(record.content)) return {TEXTURE_ENTRY};
    if (std::holds_alternative<SettingChange>(record.content)) return {VALUES_ENTRY};
    return {};
}

bool has(const std::vector<std::string_view>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool has_needed_entries(const DebugRecord& record) {
    const std::vector<std::string_view> needed = needed_entries(record);
    return std::all_of(needed.begin(), needed.end(), [&](std::string_view name) {
        return std::any_of(record.entries.begin(), record.entries.end(),
                           [&](const DebugRecord::Entry& entry) { return entry.name == name; });
    });
}

/// Reads all of an entry with `visit`.
template <class Visit>
bool read_all(std::string_view bytes, const Visit& visit) {
    FieldReader fields(bytes);
    visit(fields);
    return fields.is_done();
}

// Each tells whether the entry is as it must be; entries that it does not know may be anything.

bool take(SessionStart& start, std::string_view entry, std::string_view bytes) {
    return read_all(bytes, [&](FieldReader& fields) {
        if (entry == COMMON_ENTRY) return visit_common_parameter(fields, start.common);
        if (entry == TRACK_ENTRY) return visit_track_parmeter(fields, start.track);
        if (entry == FUSION_ENTRY) return visit_fusion_parameter(fields, start.fusion);
        if (entry == TEXTURE_ENTRY) return visit_texture_setup(fields, start.texture.emplace());
        if (entry == ACCEPTED_ENTRY) return fields.field(start.acceptedFrames);
    });
}

bool take(FrameCall& call, std::string_view entry, std::string_view bytes) {
    if (entry == FRAME_ENTRY) {
        call.frame = PackedFrame();
        return read_frame(bytes, call.frame);
    }
    return read_all(bytes, [&](FieldReader& fields) { visit_frame_arguments(fields, call.arguments); });
}

bool take(FrameResult& result, std::string_view, std::string_view bytes) {
    return read_all(bytes, [&](FieldReader& fields) { visit_frame_result(fields, result); });
}

bool take(SettingChange& change, std::string_view, std::string_view bytes) {
    return read_all(bytes, [&](FieldReader& fields) { fields.field(change.values); });
}

bool take(EditRecord& edit, std::string_view entry, std::string_view bytes) {
    return read_all(bytes, [&](FieldReader& fields) {
        if (entry == DATAS_ENTRY) return visit_edit_datas(fields, edit.datas);
        edit.rts.clear();
        visit_poses(fields, edit.rts);
    });
}

template <class Content>
bool take(Content&, std::string_view, std::string_view) {
    return true;
}

}  // namespace

PointImage PackedFrame::unpacked() const {
    PointImage image;
    if (hasNormals) image.enable_vNormal();
    if (hasColors) image.enable_vColor();
    if (hasFlags) image.enable_vFlag();
    if (hasWeights) image.enable_vWeight();
    image.ini(width, height, camera, sample, viewRadial);
    image.set_rt(rt);
    if (image.get_vn() == 0) return image;
    for (std::size_t i = 0; i < slots.size(); ++i) {
        const auto slot = static_cast<std::size_t>(slots[i]);
        image.set_vCoord(slot, points[i]);
        if (hasNormals) image.set_vNrv(slot, normals[i]);
        if (hasColors) image.set_vColor(slot, colors[i]);
        if (hasFlags) image.get_vFlag(slot).bits = flags[i];
        if (hasWeights) image.set_vWeight(slot, weights[i]);
    }
    return image;
}

std::optional<std::string> DebugRecordReader::read_header() {
    std::array<char, MAGIC.size()> magic{};
    _in.read(magic.data(), static_cast<std::streamsize>(magic.size()));
    if (!_in || std::string_view(magic.data(), magic.size()) != MAGIC) return "it is no debug recording";
    for (const std::int32_t known : VERSIONS) {
        std::int32_t version = 0;
        if (!Archive::read_value(_in, version)) return "it ends within its header";
        if (version != known) return format_text("its version has a %d where only %d is known", version, known);
    }
    return std::nullopt;
}

DebugRecordReader::Read DebugRecordReader::read_name(std::string& name) {
    std::int32_t length = 0;
    if (!Archive::read_value(_in, length)) return Read::Cut;
    if (length < 0 || length > LONGEST_NAME) return Read::Damaged;
    if (!Archive::read_array(_in, static_cast<std::uint64_t>(length), name)) return Read::Cut;
    // Names are shown to people, on terminals that obey control characters.
    const bool isPrintable = std::all_of(name.begin(), name.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return isPrintable ? Read::Record : Read::Damaged;
}

DebugRecordReader::Read DebugRecordReader::read_entry(DebugRecord& record) {
    DebugRecord::Entry entry;
    const Read named = read_name(entry.name);
    if (named != Read::Record) return named;
    std::int64_t size = 0;
    if (!Archive::read_value(_in, size)) return Read::Cut;
    if (size < 0 || size > LARGEST_ENTRY) return Read::Damaged;
    if (!Archive::read_array(_in, static_cast<std::uint64_t>(size), _bytes)) return Read::Cut;
    entry.bytes = static_cast<std::uint64_t>(size);
    const bool isKnown = has(needed_entries(record), entry.name) || has(further_entries(record), entry.name);
    if (isKnown && !accept(entry.name, _bytes, record)) return Read::Damaged;
    record.entries.push_back(std::move(entry));
    return Read::Record;
}

bool DebugRecordReader::accept(std::string_view entry, std::string_view bytes, DebugRecord& record) {
    return std::visit([&](auto& content) { return take(content, entry, bytes); }, record.content);
}

DebugRecordReader::Read DebugRecordReader::next(DebugRecord& record) {
    record = DebugRecord();
    if (_in.peek() == std::istream::traits_type::eof()) return Read::End;
    Read read = read_name(record.property);
    if (read == Read::Record) read = read_name(record.name);
    if (read != Read::Record) return read;
    std::int32_t count = 0;
    if (!Archive::read_value(_in, count)) return Read::Cut;
    if (count < 0 || count > MOST_ENTRIES) return Read::Damaged;
    begin_content(record);
    for (std::int32_t i = 0; i < count && read == Read::Record; ++i) read = read_entry(record);
    if (read != Read::Record) return read;
    return has_needed_entries(record) ? Read::Record : Read::Damaged;
}

}  // namespace VexelAlgorithm
