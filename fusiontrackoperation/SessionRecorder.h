// Records what a session is given and what comes of it, for debugging.
#pragma once

#include <atomic>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/DataArchiveConfig.h"
#include "foundation/export.h"
#include "fusiontrackoperation/debugRecords.h"

namespace VexelAlgorithm {

/// Writes one ".tb" file for its session while `DataArchiveConfig` asks for it, from the creation of the session or,
/// when it is asked for later, from the next frame on; no longer asked for, it closes the file, and a next time has a
/// next file. Never disturbs the scan: nothing is thrown, and when a file cannot be written, one line says so and the
/// session records no more. Every record goes out to the system before the call returns, so that a crash leaves a
/// readable file, with the frame that made it.
///
/// Recording a frame takes memory for the numbers of its filled slots and pieces of 64 KiB. While nothing is asked for,
/// a frame costs the look at two flags.
///
/// Every function may be called from any thread; records follow the order of the calls.
class VEXEL_API SessionRecorder {
public:
    SessionRecorder();
    /// Writes a pending edit and the end of the session.
    ~SessionRecorder();
    SessionRecorder(const SessionRecorder&) = delete;
    SessionRecorder& operator=(const SessionRecorder&) = delete;

    /// Whether recording is asked for; editing functions ask before they gather what they hand to `edit`.
    static bool is_on() { return DataArchiveConfig::global().is_recording(); }
    /// Whether there is something to do about a frame: false is what it costs while nothing is asked for.
    bool is_wanted() const { return is_on() || _isOpen.load(std::memory_order_relaxed); }

    /// The session is there, made from these records.
    void begin(const SessionStart& start) noexcept;
    /// Before a frame step and after it.
    void frame_given(std::string_view function, const FrameArguments& arguments, const PointImage& frame,
                     int acceptedFrames) noexcept;
    void frame_done(const FrameResult& result) noexcept;
    /// An exported function of that name has changed a setting; its arguments, one number behind the other.
    void setting_changed(std::string_view function, std::initializer_list<double> values) noexcept;
    /// An exported function of that name has emptied or replaced the model.
    void model_replaced(std::string_view function) noexcept;

    /// Takes an edit operation into the property "AccumalateFusionEditData", where it waits for `write_edit`. One that
    /// waits there already is written first, as it is before the next frame.
    void edit(EditRecord operation) noexcept;
    /// Writes the waiting edit and clears the name of the property, so that a second call writes nothing until the next
    /// edit names the property again.
    void write_edit() noexcept;

private:
    /// What a property holds goes to the file under its name.
    struct Property {
        std::string name;
        std::optional<EditRecord> pending;
    };
    struct Entry {
        std::string_view name;
        std::uint64_t size;
        std::function<void(std::ostream&)> write;
    };

    template <class Action>
    void record(const Action& action) noexcept;
    bool make_ready(int acceptedFrames);
    bool open();
    void close();
    void stop(const std::string& reason) noexcept;
    void write_start(int acceptedFrames);
    void write_pending_edit();
    void write(const std::string& property, std::string_view name, const std::vector<Entry>& entries);
    static Entry entry_of(std::string_view name, std::string bytes);
    Entry frame_entry(const PointImage& frame);

    std::mutex _mutex;  // guards all that follows
    SessionStart _start;
    std::map<std::string, std::vector<double>, std::less<>> _settings;  // as they are now, by function
    Property _fusionData;
    Property _editData;
    std::ofstream _out;
    std::string _fileName;
    std::atomic<bool> _isOpen{false};  // also looked at without the mutex
    bool _hasFailed = false;
    bool _isFrameOpen = false;         // a frame is there whose result is not
    std::vector<std::int32_t> _slots;  // filled ones of the frame
};

}  // namespace VexelAlgorithm
