// vexel-scan replay: what a session recorded for debugging is listed, or done once more and compared.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "algorithmQorInclude.h"
#include "apps/SessionReplay.h"
#include "apps/TrackReport.h"
#include "apps/commands.h"
#include "apps/interrupt.h"
#include "apps/numberOptions.h"
#include "apps/resultFiles.h"
#include "apps/threadLimit.h"
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/DebugRecordReader.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;
using Read = DebugRecordReader::Read;

struct ReplayOptions {
    std::string file;
    bool onlyList = false;
    std::string out;
    int threads = 0;
    double tolerance = -1.0;  ///< negative: by the number of threads
};

/// mm; several threads add up in an order of their own.
constexpr double toleranceOfThreads = 0.01;

// ---- the list ---------------------------------------------------------------------------------------

std::string text_of(const std::monostate&) {
    return "unknown";
}
std::string text_of(const SessionStart& start) {
    const CommonParameter& common = start.common;
    std::string text = format_text("%d x %d pixels, sample %d, voxels of %g mm, %d threads", common.imageSize.x(),
                                   common.imageSize.y(), common.sample, static_cast<double>(start.fusion.pointDis),
                                   start.fusion.codeNumSet);
    if (start.acceptedFrames > 0) text += format_text(", after %d accepted frames", start.acceptedFrames);
    return text;
}
std::string text_of(const FrameCall& call) {
    if (!call.frame.isLegal) return "a frame whose attributes differ in length";
    return format_text("%d x %d, %d slots filled", call.frame.width, call.frame.height,
                       static_cast<int>(call.frame.slots.size()));
}
std::string text_of(const FrameResult& result) {
    const FusionScanState& state = result.state;
    return outcome_text(state.outcome) + format_text(", residual %.4f mm, %d correspondences, %d accepted, %.1f ms",
                                                     static_cast<double>(state.residual), state.correspondences,
                                                     state.acceptedFrames, state.times.whole);
}
std::string text_of(const SettingChange& change) {
    std::string text;
    for (const double value : change.values) text += format_text(text.empty() ? "%g" : ", %g", value);
    return text;
}
std::string text_of(const EditRecord& edit) {
    return format_text("%d points, %d ids, %d poses", static_cast<int>(edit.datas.points.size()),
                       static_cast<int>(edit.datas.ids.size()), static_cast<int>(edit.rts.size()));
}
std::string text_of(const SessionEnd&) {
    return {};
}

void print_record(int number, const DebugRecord& record) {
    std::string entries;
    std::uint64_t bytes = 0;
    for (const DebugRecord::Entry& entry : record.entries) {
        entries += (entries.empty() ? "" : " ") + entry.name;
        bytes += entry.bytes;
    }
    const std::string text = std::visit([](const auto& content) { return text_of(content); }, record.content);
    print_line(format_text("%6d  %-26s%12llu  ", number, record.name.c_str(), static_cast<unsigned long long>(bytes)) +
               text + (entries.empty() ? "" : "  (" + entries + ")"));
}

/// How the file ends; a cut is no failure of the tool.
std::string end_text(Read end, int records, bool hasEnd) {
    if (end == Read::Cut) return format_text("the file is cut off within record %d", records + 1);
    if (end == Read::Damaged) return format_text("record %d is damaged", records + 1);
    if (!hasEnd) return "the file ends before the session was released";
    return {};
}

// ---- the replay -------------------------------------------------------------------------------------

double tolerance_for(const ReplayOptions& options, const SessionStart& start) {
    if (options.tolerance >= 0.0) return options.tolerance;
    const int now = options.threads > 0 ? options.threads : start.fusion.codeNumSet;
    return start.fusion.codeNumSet <= 1 && now <= 1 ? 0.0 : toleranceOfThreads;
}

Outcome<Done> write_results(const SessionReplay& replay, const std::string& folder) {
    BaseTriMesh mesh;
    if (replay.poses().empty()) return Failure{"no frame was accepted, there is no mesh to write"};
    if (get_fusion_result_tbb(replay.handle(), replay.start().fusion.pointDis, mesh) != RET_SUCCESS) {
        return Failure{"the mesh could not be extracted"};
    }
    if (mesh.get_fn() == 0) return Failure{"no surface came out"};
    const Outcome<Done> prepared = prepare_output_folder(folder);
    if (!prepared) return prepared;
    const Outcome<Done> written = write_mesh_file(fs::path(folder) / "mesh.ply", mesh);
    if (!written) return written;
    const CommonParameter& common = replay.start().common;
    const ImageSize size{common.imageSize.x(), common.imageSize.y()};
    const Outcome<Done> drawn = write_preview(fs::path(folder) / "preview.png", mesh, common.campar, size,
                                              replay.poses(), replay.start().fusion.codeNumSet);
    if (!drawn) return drawn;
    print_line("Mesh          " + (fs::path(folder) / "mesh.ply").string());
    print_line("Pictures      " + (fs::path(folder) / "preview.png").string());
    return Done{};
}

void print_comparison(const SessionReplay& replay, double tolerance) {
    const ReplayDifferences& found = replay.differences();
    print_line(format_text("\nReplayed      %d frames, %d compared, %d with differences", replay.frames(),
                           found.compared, found.differing));
    print_line(format_text("Poses         part points at %g mm by at most %.9g mm", SessionReplay::LEVER,
                           found.largestParting));
    if (tolerance > 0.0) print_line(format_text("Tolerance     %g mm; with one thread 0: to the last bit", tolerance));
    if (!found.first.empty()) print_line("First         " + found.first);
    if (!replay.incomparable().empty()) print_line("Not compared  " + replay.incomparable());
    if (replay.is_result_missing()) {
        print_line(format_text("No result     of frame %d was recorded: its step did not end", replay.frames()));
    }
}

class RecordingFile {
public:
    explicit RecordingFile(const std::string& path) : _path(path), _in(path, std::ios::binary), _reader(_in) {}

    Outcome<Done> open() {
        std::error_code error;
        if (!_in || !fs::is_regular_file(_path, error)) return Failure{_path + " cannot be read"};
        _bytes = fs::file_size(_path, error);
        if (const auto reason = _reader.read_header()) return Failure{_path + ": " + *reason};
        return Done{};
    }
    std::uint64_t bytes() const { return _bytes; }

    /// Hands number and record of each to `take`, which says whether to go on; gives how the file ends.
    template <class Take>
    Read go_through(const Take& take) {
        DebugRecord record;
        Read read = Read::Record;
        for (_records = 0; (read = _reader.next(record)) == Read::Record;) {
            _hasEnd = std::holds_alternative<SessionEnd>(record.content);
            if (!take(++_records, record)) break;
        }
        return read;
    }
    std::string end_text(Read end) const { return Apps::end_text(end, _records, _hasEnd); }

private:
    std::string _path;
    std::ifstream _in;
    DebugRecordReader _reader;
    std::uint64_t _bytes = 0;
    int _records = 0;
    bool _hasEnd = false;
};

int list(RecordingFile& file) {
    const Read end = file.go_through([](int number, const DebugRecord& record) {
        print_record(number, record);
        return true;
    });
    const std::string text = file.end_text(end);
    if (end == Read::Damaged) return report_failure({text});
    if (!text.empty()) print_line(text);
    return EXIT_OK;
}

int replay(RecordingFile& file, const ReplayOptions& options) {
    std::unique_ptr<ThreadLimit> threads;
    ReplaySettings settings;
    settings.threads = options.threads;
    settings.fileBytes = file.bytes();
    std::unique_ptr<SessionReplay> session;
    Outcome<Done> applied = Done{};
    const InterruptGuard interrupt;
    const Read end = file.go_through([&](int number, const DebugRecord& record) {
        const auto* start = std::get_if<SessionStart>(&record.content);
        if (!session && start != nullptr) {
            settings.tolerance = tolerance_for(options, *start);
            const int count = options.threads > 0 ? options.threads : start->fusion.codeNumSet;
            threads = std::make_unique<ThreadLimit>(std::clamp(count, 1, 256));
            session = std::make_unique<SessionReplay>(settings);
        }
        if (!session) {
            applied = Failure{"the recording does not begin with the records of a session"};
        } else {
            applied = session->apply(number, record);
        }
        return applied && !interrupt.is_interrupted();
    });
    if (!applied) return report_failure(applied.failure());
    if (!session) return report_failure({"there is no session in it; " + file.end_text(end)});

    print_comparison(*session, settings.tolerance);
    const std::string text = interrupt.is_interrupted() ? "interrupted" : file.end_text(end);
    if (!text.empty()) print_line("End           " + text);
    if (!options.out.empty()) {
        const Outcome<Done> written = write_results(*session, options.out);
        if (!written) return report_failure(written.failure());
    }
    if (interrupt.is_interrupted()) return EXIT_INTERRUPTED;
    if (end == Read::Damaged) return report_failure({text + "; what stands before it was replayed"});
    if (session->differences().differing > 0) return report_failure({"the replay differs from what was recorded"});
    return EXIT_OK;
}

int run_replay(const ReplayOptions& options) {
    RecordingFile file(options.file);
    const Outcome<Done> opened = file.open();
    if (!opened) return report_failure(opened.failure());
    return options.onlyList ? list(file) : replay(file, options);
}

}  // namespace

void add_replay_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command(
        "replay", "Does once more what a session recorded for debugging, and compares states and poses.");
    const auto options = std::make_shared<ReplayOptions>();
    command.add_option("FILE", options->file, "Debug recording, .tb").required();
    command.add_flag("--list", options->onlyList, "Only lists the records: number, name, bytes, content (entries)");
    command.add_option("--out", options->out, "Folder for mesh.ply and preview.png of the replayed scan");
    command.add_option("--threads", options->threads, "Worker threads; 0 takes as many as recorded")
        .check(number_between(0, 256))
        .show_default();
    command
        .add_option("--tolerance", options->tolerance,
                    "How far (mm, 500 mm from the camera) poses may part; 0 compares every bit, the default with one "
                    "thread, with several it is 0.01")
        .check(number_between(0.0, 1e9));
    command.when_given([options, &chosen] { chosen = [options] { return run_replay(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
