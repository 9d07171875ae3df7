#include "fusiontrackoperation/SessionRecorder.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "foundation/archive.h"
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/debugRecordNames.h"
#include "fusiontrackoperation/recordFields.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;
using namespace DebugRecordNames;

// ---- the place of a file ----------------------------------------------------------------------------

constexpr std::string_view EXTENSION = ".tb";
/// A model that can be edited has some; how many need not be known.
constexpr int SOME_FRAMES = 1;
constexpr int MOST_ATTEMPTS = 100;  // at a number that another process has taken meanwhile

/// The number in "PREFIX-NNN.tb"; 0 for other names.
long number_of(const std::string& name, const std::string& prefix) {
    const std::size_t begin = prefix.size() + 1, rest = begin + EXTENSION.size();
    if (name.size() <= rest || name.size() > rest + 9) return 0;
    if (name.compare(0, begin, prefix + '-') != 0) return 0;
    if (name.compare(name.size() - EXTENSION.size(), EXTENSION.size(), EXTENSION) != 0) return 0;
    const std::string digits = name.substr(begin, name.size() - rest);
    const bool isNumber = std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    return isNumber ? std::stol(digits) : 0;
}

long highest_number(const fs::path& directory, const std::string& prefix) {
    long highest = 0;
    std::error_code error;
    for (fs::directory_iterator i(directory, error), end; !error && i != end; i.increment(error)) {
        highest = std::max(highest, number_of(i->path().filename().string(), prefix));
    }
    return highest;
}

/// Makes the file, if none of the name is there.
bool create(const fs::path& path) {
    std::FILE* const file = std::fopen(path.string().c_str(), "wbx");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

/// A new empty file, or the path at which there could be none.
std::pair<fs::path, bool> new_file(const fs::path& directory, const std::string& prefix) {
    const fs::path place = directory.empty() ? fs::path(".") : directory;
    const long highest = highest_number(place, prefix);
    fs::path path;
    for (int attempt = 1; attempt <= MOST_ATTEMPTS; ++attempt) {
        path = directory / format_text("%s-%06ld.tb", prefix.c_str(), highest + attempt);
        if (create(path)) return {path, true};
        std::error_code error;
        if (!fs::exists(path, error)) break;
    }
    return {path, false};
}

// ---- the bytes of a frame ---------------------------------------------------------------------------

bool has_bits(const Vector3f& vector) {
    std::array<std::uint32_t, 3> bits;
    std::memcpy(bits.data(), vector.data(), sizeof(bits));
    return (bits[0] | bits[1] | bits[2]) != 0;
}

bool has_bits(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits != 0;
}

/// The frame is legal.
bool is_filled(const PointImage& frame, std::size_t i) {
    if (has_bits(frame.get_vCoord(i))) return true;
    return (frame.is_enable_vNormal() && has_bits(frame.get_vNrv(i))) ||
           (frame.is_enable_vColor() && has_bits(frame.get_vColor(i))) ||
           (frame.is_enable_vFlag() && frame.get_vFlag(i).bits != 0) ||
           (frame.is_enable_vWeight() && has_bits(frame.get_vWeight(i)));
}

void find_filled_slots(const PointImage& frame, std::vector<std::int32_t>& slots) {
    slots.clear();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (is_filled(frame, i)) slots.push_back(static_cast<std::int32_t>(i));
    }
}

PackedFrame header_of(const PointImage& frame) {
    PackedFrame header;
    header.width = frame.get_image_width();
    header.height = frame.get_image_height();
    header.sample = frame.get_sample();
    header.viewRadial = {frame.get_viewRadialX(), frame.get_viewRadialY()};
    header.camera = frame.get_camPar();
    header.rt = frame.get_rt();
    header.isLegal = frame.is_legal();
    header.hasNormals = frame.is_enable_vNormal();
    header.hasColors = frame.is_enable_vColor();
    header.hasFlags = frame.is_enable_vFlag();
    header.hasWeights = frame.is_enable_vWeight();
    return header;
}

std::uint64_t bytes_per_slot(const PackedFrame& header) {
    std::uint64_t bytes = sizeof(std::int32_t) + sizeof(Vector3f);
    if (header.hasNormals) bytes += sizeof(Vector3f);
    if (header.hasColors) bytes += sizeof(Vector3f);
    if (header.hasFlags) bytes += sizeof(VertexFlag);
    if (header.hasWeights) bytes += sizeof(float);
    return bytes;
}

/// Writes value(slot) of each slot, in pieces of at most 64 KiB.
template <class Value>
void write_gathered(std::ostream& out, const std::vector<std::int32_t>& slots, const Value& value) {
    using T = std::decay_t<decltype(value(std::size_t{0}))>;
    constexpr std::size_t PIECE = (std::size_t{1} << 16) / sizeof(T);
    std::vector<T> piece;
    for (std::size_t done = 0; done < slots.size(); done += piece.size()) {
        piece.resize(std::min(PIECE, slots.size() - done));
        for (std::size_t i = 0; i < piece.size(); ++i) piece[i] = value(static_cast<std::size_t>(slots[done + i]));
        Archive::write_array(out, piece);
    }
}

void write_slots(std::ostream& out, const PointImage& frame, const std::vector<std::int32_t>& slots) {
    Archive::write_array(out, slots);
    write_gathered(out, slots, [&](std::size_t i) { return frame.get_vCoord(i); });
    if (frame.is_enable_vNormal()) write_gathered(out, slots, [&](std::size_t i) { return frame.get_vNrv(i); });
    if (frame.is_enable_vColor()) write_gathered(out, slots, [&](std::size_t i) { return frame.get_vColor(i); });
    if (frame.is_enable_vFlag()) write_gathered(out, slots, [&](std::size_t i) { return frame.get_vFlag(i).bits; });
    if (frame.is_enable_vWeight()) write_gathered(out, slots, [&](std::size_t i) { return frame.get_vWeight(i); });
}

/// The bytes that `visit` writes.
template <class Visit>
std::string bytes_by(const Visit& visit) {
    std::string bytes;
    FieldWriter fields(bytes);
    visit(fields);
    return bytes;
}

std::string header_bytes() {
    return bytes_by([](FieldWriter& fields) {
        fields.entries(MAGIC);
        for (const std::int32_t version : VERSIONS) fields.field(version);
    });
}

}  // namespace

SessionRecorder::SessionRecorder()
    : _fusionData{std::string(FUSION_PROPERTY), {}}, _editData{std::string(EDIT_PROPERTY), {}} {}

SessionRecorder::~SessionRecorder() {
    if (!_isOpen) return;
    record([&] {
        write_pending_edit();
        write(_fusionData.name, END, {});
        close();
    });
}

// ---- what is recorded -------------------------------------------------------------------------------

template <class Action>
void SessionRecorder::record(const Action& action) noexcept {
    try {
        const std::lock_guard<std::mutex> lock(_mutex);
        try {
            action();
        } catch (const std::exception& failure) {
            stop(failure.what());
        }
    } catch (...) {
        // Not even the line can be had: the scan goes on all the same.
    }
}

void SessionRecorder::begin(const SessionStart& start) noexcept {
    record([&] {
        _start = start;
        if (is_on()) make_ready(0);
    });
}

void SessionRecorder::frame_given(std::string_view function, const FrameArguments& arguments, const PointImage& frame,
                                  int acceptedFrames) noexcept {
    if (!is_wanted()) return;
    record([&] {
        if (!make_ready(acceptedFrames)) return;
        write_pending_edit();
        write(_fusionData.name, function,
              {entry_of(ARGUMENTS_ENTRY,
                        bytes_by([&](FieldWriter& fields) { visit_frame_arguments(fields, arguments); })),
               frame_entry(frame)});
        _isFrameOpen = _isOpen;
    });
}

void SessionRecorder::frame_done(const FrameResult& result) noexcept {
    if (!is_wanted()) return;
    record([&] {
        if (!std::exchange(_isFrameOpen, false)) return;
        write(_fusionData.name, RESULT,
              {entry_of(STATE_ENTRY, bytes_by([&](FieldWriter& fields) { visit_frame_result(fields, result); }))});
    });
}

void SessionRecorder::setting_changed(std::string_view function, std::initializer_list<double> values) noexcept {
    record([&] {
        _settings[std::string(function)] = values;
        if (!_isOpen) return;
        const std::vector<double> list(values);
        write_pending_edit();
        write(_fusionData.name, function,
              {entry_of(VALUES_ENTRY, bytes_by([&](FieldWriter& fields) { fields.field(list); }))});
    });
}

void SessionRecorder::model_replaced(std::string_view function) noexcept {
    setting_changed(function, {});
    record([&] {
        _settings.erase(std::string(function));
        _settings.erase("set_treeShift");  // is lost with the model
    });
}

void SessionRecorder::edit(EditRecord operation) noexcept {
    if (!is_on()) return;
    record([&] {
        if (!make_ready(SOME_FRAMES)) return;
        write_pending_edit();
        _editData.name = EDIT_PROPERTY;
        _editData.pending = std::move(operation);
    });
}

void SessionRecorder::write_edit() noexcept {
    if (!is_on()) return;
    record([&] {
        if (_editData.name != EDIT_PROPERTY) return;
        write_pending_edit();
        _editData.name.clear();
    });
}

void SessionRecorder::write_pending_edit() {
    if (!_editData.pending || !_isOpen) return;
    const EditRecord edit = std::move(*_editData.pending);
    _editData.pending.reset();
    write(_editData.name, edit.name,
          {entry_of(DATAS_ENTRY, bytes_by([&](FieldWriter& fields) { visit_edit_datas(fields, edit.datas); })),
           entry_of(POSES_ENTRY, bytes_by([&](FieldWriter& fields) { visit_poses(fields, edit.rts); }))});
}

// ---- the file ---------------------------------------------------------------------------------------

bool SessionRecorder::make_ready(int acceptedFrames) {
    if (!is_on()) {
        write_pending_edit();
        close();
    } else if (!_isOpen && !_hasFailed && open()) {
        write_start(acceptedFrames);
    }
    return _isOpen;
}

bool SessionRecorder::open() {
    const DataArchiveConfig& config = DataArchiveConfig::global();
    const auto [path, isThere] = new_file(config.get_store_directory(), config.get_name_prefix());
    _fileName = path.string();
    if (isThere) _out.open(path, std::ios::binary | std::ios::trunc);
    if (!isThere || !_out.is_open()) {
        stop(_fileName + " cannot be written");
        return false;
    }
    print_line("Opened testbug file: " + _fileName);
    _isOpen = true;
    _isFrameOpen = false;
    const std::string header = header_bytes();
    _out.write(header.data(), static_cast<std::streamsize>(header.size()));
    return true;
}

void SessionRecorder::close() {
    if (_out.is_open()) _out.close();
    _out.clear();
    _isOpen = false;
    _isFrameOpen = false;
}

void SessionRecorder::stop(const std::string& reason) noexcept {
    try {
        close();
        _hasFailed = true;
        _editData.pending.reset();
        print_line("debug recording stops because " + reason);
    } catch (...) {
        // The line is lost; the scan goes on.
    }
}

void SessionRecorder::write_start(int acceptedFrames) {
    _start.acceptedFrames = acceptedFrames;
    std::vector<Entry> entries{
        entry_of(COMMON_ENTRY, bytes_by([&](FieldWriter& fields) { visit_common_parameter(fields, _start.common); })),
        entry_of(TRACK_ENTRY, bytes_by([&](FieldWriter& fields) { visit_track_parmeter(fields, _start.track); })),
        entry_of(FUSION_ENTRY, bytes_by([&](FieldWriter& fields) { visit_fusion_parameter(fields, _start.fusion); })),
        entry_of(ACCEPTED_ENTRY, bytes_by([&](FieldWriter& fields) { fields.field(_start.acceptedFrames); }))};
    if (_start.texture) {
        entries.push_back(entry_of(
            TEXTURE_ENTRY, bytes_by([&](FieldWriter& fields) { visit_texture_setup(fields, *_start.texture); })));
    }
    write(_fusionData.name, START, entries);
    for (const auto& [function, values] : _settings) {
        write(_fusionData.name, function,
              {entry_of(VALUES_ENTRY, bytes_by([&, &v = values](FieldWriter& fields) { fields.field(v); }))});
    }
}

SessionRecorder::Entry SessionRecorder::entry_of(std::string_view name, std::string bytes) {
    const std::uint64_t size = bytes.size();
    return {name, size, [bytes = std::move(bytes)](std::ostream& out) { Archive::write_array(out, bytes); }};
}

SessionRecorder::Entry SessionRecorder::frame_entry(const PointImage& frame) {
    const PackedFrame header = header_of(frame);
    _slots.clear();
    if (header.isLegal) find_filled_slots(frame, _slots);
    std::string bytes = bytes_by([&](FieldWriter& fields) {
        visit_frame_header(fields, header);
        fields.field(static_cast<std::int32_t>(frame.get_vn()));
        fields.field(static_cast<std::int32_t>(_slots.size()));
    });
    const std::uint64_t size = bytes.size() + _slots.size() * bytes_per_slot(header);
    return {FRAME_ENTRY, size, [this, &frame, bytes = std::move(bytes)](std::ostream& out) {
                Archive::write_array(out, bytes);
                write_slots(out, frame, _slots);
            }};
}

void SessionRecorder::write(const std::string& property, std::string_view name, const std::vector<Entry>& entries) {
    if (!_isOpen) return;
    const std::string head = bytes_by([&](FieldWriter& fields) {
        fields.field(property);
        fields.field(name);
        fields.field(static_cast<std::int32_t>(entries.size()));
    });
    Archive::write_array(_out, head);
    for (const Entry& entry : entries) {
        const std::string entryHead = bytes_by([&](FieldWriter& fields) {
            fields.field(entry.name);
            fields.field(static_cast<std::int64_t>(entry.size));
        });
        Archive::write_array(_out, entryHead);
        entry.write(_out);
    }
    if (!_out.flush()) stop(_fileName + " cannot be written");
}

}  // namespace VexelAlgorithm
