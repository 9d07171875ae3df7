// vexel-scan expose: the best exposed image of a folder.
#include <algorithm>
#include <cctype>
#include <memory>
#include <opencv2/imgcodecs.hpp>

#include "apps/commands.h"
#include "apps/exposureDrawing.h"
#include "apps/resultFiles.h"
#include "exposure/autoExposureC.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;
using autoExposureFoot::autoExposureC;
using autoExposureFoot::ExposureRecord;

struct ExposeOptions {
    std::string folder;
    std::string match;
    std::string reference;
    std::string picture;
    std::vector<int> region;
};

bool is_image(const fs::path& path) {
    std::string ending = path.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* known : {".png", ".jpg", ".jpeg", ".bmp", ".pgm", ".tif", ".tiff"}) {
        if (ending == known) return true;
    }
    return false;
}

/// In the order of their names.
Outcome<std::vector<fs::path>> find_images(const ExposeOptions& options) {
    std::vector<fs::path> images;
    std::error_code error;
    for (fs::directory_iterator entry(options.folder, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code isNoFile;
        const bool isOwnPicture = fs::equivalent(entry->path(), options.picture, isNoFile);
        if (is_image(entry->path()) && !isOwnPicture && name.find(options.match) != std::string::npos)
            images.push_back(entry->path());
    }
    if (error) return Failure{"cannot read the folder " + options.folder + ": " + error.message()};
    if (images.empty()) return Failure{"no images in " + options.folder};
    std::sort(images.begin(), images.end());
    return images;
}

Outcome<cv::Mat> read_grey(const fs::path& path) {
    cv::Mat image;
    try {
        image = cv::imread(path.string(), cv::IMREAD_GRAYSCALE);
    } catch (const cv::Exception&) {
    }
    if (image.empty()) return Failure{"cannot read the image " + path.string()};
    return image;
}

Outcome<autoExposureC> make_calculator(const ExposeOptions& options, const Vector2i& size) {
    cv::Mat reference;
    if (!options.reference.empty()) {
        const Outcome<cv::Mat> read = read_grey(options.reference);
        if (!read) return read.failure();
        if (read->cols != size.x() || read->rows != size.y())
            return Failure{"the reference " + options.reference + " is not of the images' size"};
        reference = *read;
    }
    const Vector4i region = options.region.empty() ? Vector4i(1, 0, 1, 0) : Vector4i(options.region.data());
    autoExposureC calculator(reference.empty() ? nullptr : reference.data, size, region, "");
    if (!calculator.is_ready()) return Failure{"images of this size cannot be measured"};
    return calculator;
}

void print_row(std::size_t number, const std::string& name, const ExposureRecord& record) {
    const auto& s = record.statistics;
    print_line(format_text("%5d  %7.3f  %7.1f %%  %5.1f  %7.1f %%  ", static_cast<int>(number),
                           static_cast<double>(record.quality), 100.0 * static_cast<double>(s.P2),
                           static_cast<double>(s.P1), 100.0 * static_cast<double>(s.P3)) +
               name);
}

/// One image after the other, so that memory does not depend on their number.
Outcome<std::vector<MeasuredImage>> measure(const std::vector<fs::path>& paths, autoExposureC& calculator,
                                            const Vector2i& size) {
    std::vector<MeasuredImage> images;
    print_line("image  quality   pattern   grey  too bright  name");
    for (const fs::path& path : paths) {
        const Outcome<cv::Mat> image = read_grey(path);
        if (!image) return image.failure();
        if (image->cols != size.x() || image->rows != size.y())
            return Failure{path.string() + " is not of the same size as the first image"};
        if (calculator.exposure_parameter_calculation(image->data) != RET_SUCCESS)
            return Failure{path.string() + " cannot be measured"};
        calculator.image_qfactor_calculation();
        const cv::Mat view = draw_view(calculator.get_view());
        images.push_back({path.filename().string(), calculator.get_records().back(), view});
        print_row(images.size() - 1, images.back().name, images.back().record);
    }
    return images;
}

int run_expose(const ExposeOptions& options) {
    const Outcome<std::vector<fs::path>> paths = find_images(options);
    if (!paths) return report_failure(paths.failure());
    const Outcome<cv::Mat> first = read_grey(paths->front());
    if (!first) return report_failure(first.failure());
    const Vector2i size(first->cols, first->rows);
    if (size.minCoeff() < 4) return report_failure({"images of less than 4 pixels cannot be measured"});
    Outcome<autoExposureC> calculator = make_calculator(options, size);
    if (!calculator) return report_failure(calculator.failure());
    const Outcome<std::vector<MeasuredImage>> images = measure(*paths, *calculator, size);
    if (!images) return report_failure(images.failure());

    const int best = calculator->best_exposure_index();
    if (best < 0) return report_failure({"no image can be chosen"});
    const auto chosen = static_cast<std::size_t>(best);
    if (!(images->at(chosen).record.statistics.P2 > 0.0F))
        return report_failure({"no image shows a pattern within the region"});
    const Outcome<Done> written =
        write_picture(options.picture, draw_exposures(*images, chosen), "picture of the exposures");
    if (!written) return report_failure(written.failure());
    print_line("Best exposed  " + (*paths)[chosen].string());
    print_line("Picture       " + options.picture);
    return EXIT_OK;
}

}  // namespace

void add_expose_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("expose", "Picks the best exposed image of a projected pattern.");
    const auto options = std::make_shared<ExposeOptions>();
    command.add_option("FOLDER", options->folder, "Images of one scene and size at different exposures").required();
    command.add_option("--match", options->match, "Only files whose names hold this text, such as left");
    command.add_option("--reference", options->reference, "Image of the scene whose exposure is to be met");
    command
        .add_option("--region", options->region,
                    "xBegin xEnd yBegin yEnd in pixels; as in the library, an xEnd in the last ten\n"
                    "columns leaves nothing. All but a margin of ten pixels when not given")
        .expected(4);
    command.add_option("--out", options->picture, "Where to draw what was seen, a PNG file")
        .default_value("exposures.png");
    command.when_given([options, &chosen] { chosen = [options] { return run_expose(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
