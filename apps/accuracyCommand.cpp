// vexel-scan accuracy: the virtual rig measures spheres, ball bars and planes, as in acceptance tests.
#include <algorithm>
#include <cmath>
#include <memory>

#include "apps/AccuracyTest.h"
#include "apps/Progress.h"
#include "apps/commands.h"
#include "apps/deviationMaps.h"
#include "apps/numberOptions.h"
#include "apps/resultFiles.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

constexpr double depthMargin = 70.0;  ///< mm before and behind the nearest and farthest artefact
constexpr double mapScale = 0.1;      ///< mm

struct AccuracyOptions {
    std::uint64_t seed = 1;
    std::vector<double> distances{340.0, 400.0, 460.0};
    int width = 1280;
    int height = 1024;
    int sample = 2;
    int matchWindow = RebParam().pixMatchWin.x();
    int subPixelWindow = RebParam().subPixMatchWin.x();
    double leftOut = 0.3;  ///< percent
    bool isNoiseless = false;
    std::string csv;
    std::string out;
};

/// What the figures of each kind are called in VDI/VDE 2634 part 2.
struct KindNames {
    ArtefactKind kind;
    const char* title;
    const char* form;
    const char* size;  ///< null where there is none
};
const KindNames kinds[] = {
    {ArtefactKind::Sphere, "Sphere, diameter 50 mm", "PF", "PS"},
    {ArtefactKind::BallBar, "Ball bar, 120 mm between spheres of 50 mm", "form", "SD"},
    {ArtefactKind::Plane, "Plane, 150 x 100 mm", "F", nullptr},
};

AccuracySettings settings_of(const AccuracyOptions& options) {
    AccuracySettings settings;
    settings.leftOut = options.leftOut / 100.0;
    settings.rig = Simulation::make_stereo_rig(options.width, options.height);
    settings.rig.sensor.seed = options.seed;
    settings.rig.sensor.hasNoise = !options.isNoiseless;
    settings.rig.finish.albedoVariation = 0.0;  // artefacts are matt and of one colour
    const auto [nearest, farthest] = std::minmax_element(options.distances.begin(), options.distances.end());
    const double near = *nearest - depthMargin, far = *farthest + depthMargin;
    settings.rig.farLimit = std::max(settings.rig.farLimit, far + depthMargin);
    settings.scan = preset_settings("desk");
    settings.scan.rig.depthRange = Vector2d(near, far).cast<float>();
    RebParam& rebuild = settings.scan.rig.rebuild;
    rebuild.sampleRatio = options.sample;
    rebuild.pixMatchWin = Vector2i::Constant(options.matchWindow);
    rebuild.subPixMatchWin = Vector2i::Constant(options.subPixelWindow);
    return settings;
}

std::vector<const ArtefactMeasurement*> of_kind(const std::vector<ArtefactMeasurement>& measurements,
                                                ArtefactKind kind) {
    std::vector<const ArtefactMeasurement*> chosen;
    for (const ArtefactMeasurement& measurement : measurements)
        if (measurement.artefact.kind == kind) chosen.push_back(&measurement);
    return chosen;
}

/// By size, whatever the sign; NaN where nothing was evaluated.
template <class Value>
double largest(const std::vector<const ArtefactMeasurement*>& measurements, const Value& value) {
    double largest = std::nan("");
    for (const ArtefactMeasurement* measurement : measurements)
        if (measurement->is_evaluated() && !(std::abs(value(*measurement)) <= std::abs(largest)))
            largest = value(*measurement);
    return largest;
}

double form_of(const ArtefactMeasurement& measurement) {
    return measurement.formError;
}
double size_of(const ArtefactMeasurement& measurement) {
    return measurement.sizeError;
}

double covered(const ArtefactMeasurement& measurement) {
    return measurement.slots > 0 ? static_cast<double>(measurement.points) / static_cast<double>(measurement.slots)
                                 : 0.0;
}

std::string size_text(const KindNames& names, double size) {
    return names.size != nullptr ? format_text("  %+8.4f", size) : std::string();
}

void print_row(const KindNames& names, std::size_t number, const ArtefactMeasurement& measurement) {
    const Vector3d &place = measurement.artefact.place, &direction = measurement.artefact.direction;
    print_line(format_text("%3zu  %5.0f %5.0f %5.0f  %5.2f %5.2f %5.2f  %8zu  %6.2f %%  %8zu  %8.4f  %8.4f", number,
                           place.x(), place.y(), place.z(), direction.x(), direction.y(), direction.z(),
                           measurement.points, 100.0 * covered(measurement), measurement.leftOut, measurement.rms,
                           measurement.formError) +
               size_text(names, measurement.sizeError));
}

void print_table(const KindNames& names, const std::vector<const ArtefactMeasurement*>& measurements) {
    print_line(std::string("\n") + names.title);
    const std::string size = names.size != nullptr ? format_text("  %5s mm", names.size) : std::string();
    print_line(format_text("     place (mm)         direction            points   covered  left out    RMS mm  %5s mm",
                           names.form) +
               size);
    for (std::size_t i = 0; i < measurements.size(); ++i) print_row(names, i + 1, *measurements[i]);
}

void print_summary(const std::vector<ArtefactMeasurement>& measurements, const AccuracyOptions& options) {
    print_line("\nLargest");
    const auto print = [](const char* name, const char* meaning, double value) {
        print_line(format_text("%-3s %-58s %8.4f mm", name, meaning, value));
    };
    const auto spheres = of_kind(measurements, ArtefactKind::Sphere);
    print("PF", "range of the radial distances from the fitted sphere", largest(spheres, form_of));
    print("PS", "diameter of the fitted sphere minus the true one", largest(spheres, size_of));
    print("SD", "distance between the centres of fitted spheres, minus truth",
          largest(of_kind(measurements, ArtefactKind::BallBar), size_of));
    print("F", "range of the distances from the fitted plane",
          largest(of_kind(measurements, ArtefactKind::Plane), form_of));
    print_line(
        format_text("Fits by least squares, radius free; the %g %% of each surface's points that lie farthest "
                    "from the fit to all are left out.",
                    options.leftOut));
}

Outcome<Done> write_csv(const AccuracyOptions& options, const std::vector<ArtefactMeasurement>& measurements) {
    std::string text =
        "artefact,position,x,y,z,direction_x,direction_y,direction_z,slots,points,left_out,rms,form,size\n";
    for (const KindNames& names : kinds) {
        std::size_t number = 0;
        for (const ArtefactMeasurement* m : of_kind(measurements, names.kind)) {
            const Vector3d &place = m->artefact.place, &direction = m->artefact.direction;
            text += format_text("%s,%zu,%g,%g,%g,%.6f,%.6f,%.6f,%zu,%zu,%zu,%.6f,%.6f,", name_of(names.kind), ++number,
                                place.x(), place.y(), place.z(), direction.x(), direction.y(), direction.z(), m->slots,
                                m->points, m->leftOut, m->rms, m->formError) +
                    (names.size != nullptr ? format_text("%.6f\n", m->sizeError) : "\n");
        }
    }
    return write_whole_file(options.csv, text);
}

Outcome<Done> write_maps(const AccuracyOptions& options, const std::vector<ArtefactMeasurement>& measurements) {
    for (const KindNames& names : kinds) {
        std::string file = std::string(name_of(names.kind)) + ".png";
        std::replace(file.begin(), file.end(), ' ', '-');
        const Outcome<Done> written =
            write_picture(fs::path(options.out) / file,
                          draw_deviation_maps(of_kind(measurements, names.kind), mapScale), "map of the deviations");
        if (!written) return written.failure();
    }
    return Done{};
}

int run_accuracy(const AccuracyOptions& options) {
    if (!options.out.empty()) {
        const Outcome<Done> prepared = prepare_output_folder(options.out);
        if (!prepared) return report_failure(prepared.failure());
    }
    const Outcome<AccuracyTest> test = AccuracyTest::prepare(settings_of(options), default_thread_number());
    if (!test) return report_failure(test.failure());
    const std::vector<Artefact> artefacts = artefacts_at(options.distances);
    std::vector<ArtefactMeasurement> measurements;
    {
        Progress progress("measuring", static_cast<int>(artefacts.size()));
        for (const Artefact& artefact : artefacts) {
            Outcome<ArtefactMeasurement> measurement = test->measure(artefact, measurements.size());
            if (!measurement) return report_failure(measurement.failure());
            measurements.push_back(std::move(*measurement));
            progress.advance();
        }
    }
    for (const KindNames& names : kinds) print_table(names, of_kind(measurements, names.kind));
    print_summary(measurements, options);
    Outcome<Done> written = options.csv.empty() ? Outcome<Done>(Done{}) : write_csv(options, measurements);
    if (written && !options.out.empty()) written = write_maps(options, measurements);
    if (!written) return report_failure(written.failure());
    const auto missing = std::count_if(measurements.begin(), measurements.end(),
                                       [](const ArtefactMeasurement& m) { return !m.is_evaluated(); });
    if (missing > 0)
        return report_failure({format_text("%d of %zu artefacts gave too few points for a fit",
                                           static_cast<int>(missing), measurements.size())});
    return EXIT_OK;
}

ArgumentCheck odd_number() {
    return ArgumentCheck(
        [](const std::string& text) {
            return !text.empty() && (text.back() - '0') % 2 == 1 ? std::string() : "'" + text + "' is not odd";
        },
        "odd");
}

}  // namespace

void add_accuracy_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command(
        "accuracy",
        "Measures spheres, ball bars and planes with the virtual stereo rig, as acceptance tests of optical\n"
        "measuring systems do (VDI/VDE 2634 part 2), and prints form error, spacing error and flatness.");
    const auto options = std::make_shared<AccuracyOptions>();
    command.add_option("--seed", options->seed, "Seed of the images' noise").show_default();
    command
        .add_option(
            "--distance", options->distances,
            "Distances from the rig in mm, at each of which there are five spheres, three bars and three planes")
        .check(number_between(330, 490))
        .expected(1, 20)
        .show_default();
    command.add_option("--match-window", options->matchWindow, "Window of the search for partners, sampled pixels")
        .check(number_between(3, 63) & odd_number())
        .show_default();
    command.add_option("--window", options->subPixelWindow, "Window of the sub-pixel matching, full-size pixels")
        .check(number_between(3, 63) & odd_number())
        .show_default();
    command.add_option("--sample", options->sample, "One point per so many columns and rows")
        .check(number_between(1, 16))
        .show_default();
    command.add_option("--width", options->width, "Pixels of a row").check(number_between(160, 4096)).show_default();
    command.add_option("--height", options->height, "Pixel rows").check(number_between(128, 4096)).show_default();
    command
        .add_option("--leave-out", options->leftOut,
                    "Percent of each surface's points, the farthest from the fit to all, that are left out")
        .check(number_between(0, 10))
        .show_default();
    command.add_flag("--no-noise", options->isNoiseless, "Images without shot and read noise");
    command.add_option("--csv", options->csv, "File for the figures of all positions");
    command.add_option("--out", options->out, "Folder for maps of the deviations");
    command.when_given([options, &chosen] { chosen = [options] { return run_accuracy(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
