#include "exposure/autoExposureC.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <utility>

#include "exposure/greyFile.h"
#include "exposure/patternMask.h"
#include "foundation/Stopwatch.h"
#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace autoExposureFoot {
namespace {

constexpr int Sampling = 4;
constexpr int Margin = 10;
constexpr double LeastClusterShare = 0.02;
constexpr int TooBright = 160;                                  // grey level
constexpr float GoodLevel = 70.0F;                              // P0 of a region full of pattern
constexpr float WithoutPattern = 5.0F, TooBrightForIt = 15.0F;  // weights of these pixels in P0, beside 1 for each
// "The best exposed image is:", in the encoding GBK.
constexpr const char* BestImageText = "\xc6\xd8\xb9\xe2\xd7\xee\xba\xc3\xb5\xc4\xcd\xbc\xc6\xac\xca\xc7:";

bool is_usable(const Vector2i& size) {
    return size.minCoeff() >= 1 && size.maxCoeff() <= LargestSide;
}

Vector4i usable_region(const Vector2i& size, const Vector4i& roi) {
    const int xLast = size.x() - Margin, yLast = size.y() - Margin;
    if (roi(1) < roi(0) || roi(3) < roi(2)) return {Margin, xLast, Margin, yLast};
    return {std::max(roi(0), Margin), roi(1) > xLast ? Margin : roi(1), std::max(roi(2), Margin),
            std::min(roi(3), yLast)};
}

/// Pixels of the region and the sum of grey levels of those in clusters.
struct RegionCounts {
    std::int64_t area = 0;
    std::int64_t clustered = 0;
    std::int64_t greySum = 0;
    std::int64_t tooBright = 0;  ///< outside the clusters

    std::int64_t unclustered() const { return area - clustered; }
};

RegionCounts count_region(const ByteImage& grey, const ByteImage& clustered, const Vector4i& region) {
    RegionCounts counts;
    counts.area = static_cast<std::int64_t>(region(1) - region(0)) * (region(3) - region(2));
    for (int y = region(2); y < region(3); ++y) {
        const std::uint8_t* level = grey.row(y);
        const std::uint8_t* isClustered = clustered.row(y);
        for (int x = region(0); x < region(1); ++x) {
            if (isClustered[x] != 0) {
                ++counts.clustered;
                counts.greySum += level[x];
            } else if (level[x] > TooBright) {
                ++counts.tooBright;
            }
        }
    }
    return counts;
}

ExposureStatistics statistics_of(const RegionCounts& counts) {
    const auto area = static_cast<float>(counts.area), clustered = static_cast<float>(counts.clustered),
               unclustered = static_cast<float>(counts.unclustered()), tooBright = static_cast<float>(counts.tooBright);
    ExposureStatistics result;
    result.P0 = GoodLevel * (area + WithoutPattern * unclustered + TooBrightForIt * tooBright) / area;
    result.P1 = counts.greySum > 0 ? static_cast<float>(counts.greySum) / clustered : 0.0F;
    result.P2 = clustered / area;
    result.P3 = counts.unclustered() != 0 ? tooBright / unclustered : 0.0F;
    return result;
}

ExposureStatistics dark_statistics() {
    return statistics_of({1, 0, 0, 0});
}

ByteImage spread(ByteImage mask) {
    for (std::uint8_t& pixel : mask.pixels) pixel = pixel != 0 ? 255 : 0;
    return mask;
}

ByteImage masked(ByteImage image, const ByteImage& mask) {
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        if (mask.pixels[i] == 0) image.pixels[i] = 0;
    }
    return image;
}

}  // namespace

struct autoExposureC::State {
    Vector2i size{0, 0};
    Vector4i region{0, 0, 0, 0};
    Vector4i sampledRegion{0, 0, 0, 0};
    PatternLimits limits;
    GaussianKernel kernel = gaussian_kernel();
    std::string debugPath;
    bool isDebug = false;

    ExposureStatistics reference;
    ExposureStatistics current = dark_statistics();
    bool isMeasured = false;
    std::vector<ExposureRecord> records;
    std::size_t processed = 0;
    std::size_t failures = 0;

    ByteImage sampled;
    ByteImage mask;
    ByteImage clustered;

    void set_image_size(const Vector2i& imageSize, const Vector4i& roi) {
        if (!is_usable(imageSize)) {
            print_line("autoExposureC fail because the image size cannot be used");
            return;
        }
        size = imageSize;
        region = usable_region(size, roi);
        sampledRegion = region / Sampling;
    }

    RetVal measure(const unsigned char* image) {
        current = dark_statistics();
        isMeasured = false;
        if (!is_usable(size)) {
            print_line("exposure_parameter_calculation fail because there is no image size");
            return RET_INI_ERROR;
        }
        if (image == nullptr) {
            print_line("exposure_parameter_calculation fail because image == NULL");
            return RET_INPUT_ERROR;
        }
        const int threads = default_thread_number();
        Stopwatch timer;
        sample_smoothed(image, size.x(), size.y(), kernel, Sampling, threads, sampled);
        mask_pattern(sampled, limits, threads, mask);
        report("Mask calculation", timer);
        keep_clusters(mask, LeastClusterShare * static_cast<double>(mask.pixels.size()), clustered);
        report("Clustering", timer);
        current = statistics_of(count_region(sampled, clustered, sampledRegion));
        report("Parameters Calculation", timer);
        isMeasured = true;
        if (isDebug) save_images(image);
        return RET_SUCCESS;
    }

    void report(const char* stage, Stopwatch& timer) const {
        if (isDebug) print_line(format_text("%s: %f ms", stage, timer.milliseconds()));
        timer.restart();
    }

    void save_images(const unsigned char* image) const {
        ByteImage smoothed;
        smooth(image, size.x(), size.y(), kernel, default_thread_number(), smoothed);
        save("smoothImg%d.jpg", smoothed);
        save("maskImg%d.jpg", spread(mask));
        save("clusterImg%d.jpg", masked(sampled, clustered));
    }

    void save(const char* name, const ByteImage& image) const {
        const std::string path =
            (std::filesystem::path(debugPath) / format_text(name, static_cast<int>(processed))).string();
        if (!image.pixels.empty() && !write_jpeg(path, image)) print_line("cannot write " + path);
    }

    void record_current() {
        const float quality = isMeasured ? quality_factor(current, reference) : -std::numeric_limits<float>::infinity();
        if (processed >= records.size()) records.resize(processed + 1);
        records[processed++] = {current, quality};
    }

    void start_series(std::size_t length) {
        records.assign(length, ExposureRecord{dark_statistics(), -std::numeric_limits<float>::infinity()});
        processed = 0;
        failures = 0;
    }

    RetVal end_series() {
        if (failures == records.size()) ++failures;
        return is_consistent() ? RET_SUCCESS : RET_INPUT_ERROR;
    }

    bool is_consistent() const { return failures <= records.size(); }

    template <class Pixel>
    RetVal measure_series(const std::vector<Pixel*>& images) {
        start_series(images.size());
        for (const Pixel* image : images) {
            if (measure(reinterpret_cast<const unsigned char*>(image)) != RET_SUCCESS) ++failures;
            record_current();
        }
        return end_series();
    }

    void measure_files(const std::vector<std::string>& paths) {
        start_series(paths.size());
        ByteImage image;
        for (const std::string& path : paths) {
            const bool isRead = read_grey_file(path, image);
            if (isRead && !is_usable(size)) set_image_size({image.width, image.height}, {1, 0, 1, 0});
            const bool isUsable = isRead && size == Vector2i(image.width, image.height);
            if (!isUsable) print_line("cannot use the image " + path);
            isMeasured = false;
            if (!isUsable || measure(image.pixels.data()) != RET_SUCCESS) ++failures;
            record_current();
        }
        end_series();
    }
};

autoExposureC::autoExposureC() : _state(std::make_unique<State>()) {}

autoExposureC::autoExposureC(const autoExposureC& other) : _state(std::make_unique<State>(*other._state)) {}

autoExposureC& autoExposureC::operator=(const autoExposureC& other) {
    if (this != &other) *_state = *other._state;
    return *this;
}

autoExposureC::~autoExposureC() = default;

autoExposureC::autoExposureC(const unsigned char* refImage, Vector2i size, const Vector4i& roi, std::string debugPath)
    : autoExposureC() {
    guarded("autoExposureC", [&] {
        _state->debugPath = std::move(debugPath);
        _state->set_image_size(size, roi);
        if (refImage != nullptr && _state->measure(refImage) == RET_SUCCESS) _state->reference = _state->current;
    });
}

autoExposureC::autoExposureC(const std::vector<std::string>& imagePaths) : autoExposureC() {
    guarded("autoExposureC", [&] { _state->measure_files(imagePaths); });
}

RetVal autoExposureC::exposure_parameter_calculation(const unsigned char* image) {
    return guarded<RetVal>("exposure_parameter_calculation", RET_RUN_FAIL, [&] { return _state->measure(image); });
}

RetVal autoExposureC::exposure_parameter_calculation(std::vector<unsigned char*> images) {
    return guarded<RetVal>("exposure_parameter_calculation", RET_RUN_FAIL,
                           [&] { return _state->measure_series(images); });
}

RetVal autoExposureC::exposure_parameter_calculation(std::vector<char*> images) {
    return guarded<RetVal>("exposure_parameter_calculation", RET_RUN_FAIL,
                           [&] { return _state->measure_series(images); });
}

void autoExposureC::image_qfactor_calculation() {
    guarded("image_qfactor_calculation", [&] { _state->record_current(); });
}

int autoExposureC::best_exposure_index() const {
    const int best = best_of_five(_state->records);
    if (_state->isDebug) guarded("best_exposure_index", [&] { print_line(BestImageText + std::to_string(best)); });
    return _state->is_consistent() ? best : -1;
}

void autoExposureC::debug_mode(bool isDebug) {
    _state->isDebug = isDebug;
}

bool autoExposureC::is_ready() const {
    return is_usable(_state->size);
}

bool autoExposureC::has_series() const {
    return !_state->records.empty() || !_state->is_consistent();
}

ExposureStatistics autoExposureC::get_statistics() const {
    return _state->current;
}

ExposureStatistics autoExposureC::get_reference() const {
    return _state->reference;
}

std::vector<ExposureRecord> autoExposureC::get_records() const {
    return _state->records;
}

ExposureView autoExposureC::get_view() const {
    if (_state->sampled.pixels.empty()) return {};
    const State& state = *_state;
    return {state.sampled.width,      state.sampled.height,          state.sampled.pixels.data(),
            state.mask.pixels.data(), state.clustered.pixels.data(), state.sampledRegion};
}

Vector4i autoExposureC::get_region() const {
    return _state->region;
}

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
