#include "SpeckleRebCPU/SpeckleRebCpu.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>
#include <utility>

#include "SpeckleRebCPU/growMatches.h"
#include "SpeckleRebCPU/median.h"
#include "SpeckleRebCPU/parallaxFacets.h"
#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/parallelRows.h"
#include "SpeckleRebCPU/pixelMatch.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/surfaceEdges.h"
#include "SpeckleRebCPU/verifyMatch.h"
#include "foundation/Stopwatch.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {

/// Of the dumps; a stage without a name is not dumped.
struct SpeckleRebCpu::StageNames {
    std::string_view origin, remap, pyramid, mask;
    std::string_view pixMatch, removeNoise, fill, invalid, depthRange;
    std::string_view preSubPixel, smoothRange, normals, iterated;
    bool isEndShown = false;  ///< noise removal and result
};

namespace {

// ---- pixel stage, sampled pixels ----
constexpr float SEED_SCORE = 0.6F;
constexpr float WEAK_SEED_SCORE = 0.45F;
constexpr float SMALLEST_GROWN_SCORE = 0.6F;
constexpr float REGION_STEP = 1.0F;
constexpr std::size_t SEED_SHARE = 8000;  // a region of matches has at least one slot in so many
constexpr float RANGE_MARGIN = 1.5F;

// ---- sub-pixel stage, full-size pixels ----
constexpr int FIRST_STEPS = 1;
constexpr int STEPS = 2;
constexpr float LARGEST_FIRST_STEP = 1.0F;
constexpr float LARGEST_STEP = 0.5F;
constexpr float FACET_SIGMA = 0.5F;  // windows
constexpr int LARGEST_SHARP_WINDOW = 13;
constexpr float FACET_TOLERANCE = 0.5F;
constexpr float FACET_SLOPE_TOLERANCE = 0.1F;
// The fit of the whole surface, for slots of 2 x 2 pixels and windows of 13; others are scaled from there.
constexpr float FIT_OUTLIERS[] = {20.0F, 8.0F, 8.0F, 8.0F};  // grey values, of one fit after the other
constexpr float FIT_NOISE = 2.4F;                            // grey values: of the sensor, and what no model explains
constexpr float FIT_BEND = 0.065F;                           // pixels, from slot to slot to slot
constexpr float FIT_CREASE = 0.015F;                         // pixels, likewise
constexpr float FIT_GAIN_STEP = 0.042F;                      // from slot to slot
constexpr int FIT_ITERATIONS = 20;
constexpr float LARGEST_KINK = 0.75F;  // pixels a pixel
constexpr int FIT_CLIPPED_GREY = 240;
constexpr float FIT_LEAST_UNCLIPPED_SHARE = 0.3F;  // the prior bridges more than a window can
// What a score may lie below the median of the frame. How well images can agree differs from device to device; within a
// frame a lower one tells that the window does not lie on one surface.
constexpr float SCORE_LOSS = 0.16F;
constexpr float LARGEST_SCORE_LIMIT = 0.86F;
// What only a surface that does not bend may have.
constexpr float SMALLEST_SCORE = 0.5F;
constexpr int BEND_REACH = 8;  // pixels
constexpr float LARGEST_BEND = 0.5F;
constexpr float LEAST_UNCLIPPED_SHARE = 0.8F;
constexpr int EDGE_WINDOW = 7;
constexpr int EDGE_ROUNDS = 3;
constexpr float SMALLEST_EDGE_SCORE = 0.75F;

// ---- noise removal ----
constexpr std::size_t FIRST_ISLAND_SHARE = 4000;
constexpr std::size_t ISLAND_SHARE = 1500;
constexpr int CONSISTENCY_RADIUS = 3;
constexpr int RETURN_RADIUS = 16;
constexpr int RETURN_TOLERANCE = 2;
// What a score may lack, in terms of what the frame's median lacks: at all, where neighbours disagree, and at gaps.
constexpr float LEAST_MEDIAN_LOSS = 0.006F;
// In noisy frames scores scatter more, but less so than their median falls.
constexpr float NOISY_MEDIAN_LOSS = 0.02F, NOISY_GROWTH = 0.7F;
constexpr float LARGEST_LOSS = 16.0F;
constexpr float DOUBTFUL_LOSS = 2.6F;
constexpr float EDGE_LOSS = 0.75F;
constexpr float LARGEST_DISAGREEMENT = 0.3F;  // pixels a slot
constexpr float EDGE_DISAGREEMENT = 0.05F;
constexpr float LARGEST_RIM_SLOPE = 0.63F;  // pixels a pixel
constexpr int RIM_WIDTH = 3;                // slots
constexpr int CELL_SIZE = 16;
constexpr int EDGE_TRIM = 4;             // pixels
constexpr float LEAST_EDGE_STEP = 3.0F;  // grey values
// Flat surrounds of gaps, slots and pixels.
constexpr RimLimits RIM{RIM_WIDTH, 12, 5.0F, 0.25F, 0.1F};
// Of the facets whose slopes are the normals, pixels: what curvature must explain, and what wide ones may leave.
constexpr float WIDE_FACET_NOISE = 0.03F;
constexpr float NARROW_FACET_NOISE = 0.057F;
constexpr float NORMAL_NOISE = 0.035F;

constexpr std::size_t SLOT_GRAIN = 8192;

/// The parallax search range in sampled pixels, no wider than the image is.
std::pair<int, int> sampled_range(const Vector2i& range, int sample, int width) {
    const int begin = static_cast<int>(std::floor(static_cast<double>(range(0)) / sample));
    const int end = static_cast<int>(std::ceil(static_cast<double>(range(1)) / sample));
    return {std::max(begin, -width), std::min(end, width)};
}

float tolerable_loss(float medianLoss) {
    const float loss = std::max(medianLoss, LEAST_MEDIAN_LOSS);
    return loss <= NOISY_MEDIAN_LOSS ? loss : NOISY_MEDIAN_LOSS * std::pow(loss / NOISY_MEDIAN_LOSS, NOISY_GROWTH);
}

}  // namespace

std::unique_ptr<SpeckleRebCpu> SpeckleRebCpu::create(const RebParam& param) {
    std::unique_ptr<SpeckleRebCpu> rebuild(new SpeckleRebCpu(param));
    if (!rebuild->ini()) return nullptr;
    return rebuild;
}

bool SpeckleRebCpu::ini() {
    print_param();
    if (!ini_common()) return false;
    print_calibration();
    for (DepthRange* store : {&_pixDepthRange, &_objDepthRange})
        store->ini(_widthSample, _heightSample, _param.sampleRatio, _geometry);
    print_line("SpeckleRebCpu ini done");
    return true;
}

void SpeckleRebCpu::should_we_debug(bool isOn, bool images, int frame, bool points) {
    _debug.enable(isOn);
    _debug.select(images, points, frame);
}

bool SpeckleRebCpu::can_take(const unsigned char* left, const unsigned char* right, const PointImage& result) const {
    if (left != nullptr && right != nullptr && result.get_image_height() == _heightSample &&
        result.get_image_width() == _widthSample && result.is_legal())
        return true;
    print_line(
        "!pImageL || !pImageR || resultData.get_image_height() != _heightSample || resultData.get_image_width() != "
        "_widthSample ");
    print_line(format_text("resultData.get_image_height() = %d", result.get_image_height()));
    print_line(format_text("resultData.get_image_width() = %d", result.get_image_width()));
    print_line(format_text("_heightSample = %d", _heightSample));
    print_line(format_text("_widthSample = %d", _widthSample));
    return false;
}

RetVal SpeckleRebCpu::run(const unsigned char* left, const unsigned char* right, PointImage& result, int& timeMs) {
    static constexpr StageNames NAMES{"bmp_origin_image",
                                      "bmp_remap_image",
                                      "bmp_pyramid_image",
                                      "bmp_valid_mask",
                                      "asc_pix_match_zncc",
                                      "asc_remove_noise_points",
                                      "asc_fill_neigh_invalid_points",
                                      "asc_save_invaild_points",
                                      "parallax_range_convert_to_depth_range",
                                      "asc_pre_subpixel_match_points",
                                      "_objDepthRange.depth_gaussian_smooth",
                                      "asc_points_normal",
                                      "subpix_iter_points_normal",
                                      true};
    const Stopwatch watch;
    if (!can_take(left, right, result)) return RET_INPUT_ERROR;
    result.enable_vNormal();
    result.enable_vWeight();
    result.setZero();
    _debug.set_frame(_frame++);
    if (!prepare_images(left, right, NAMES) || !match_to_depth_range(NAMES)) return RET_RUN_FAIL;
    refine(left, right, NAMES);
    remove_noise(NAMES);
    write_result(NAMES, result);
    timeMs = static_cast<int>(watch.milliseconds());
    return RET_SUCCESS;
}

RetVal SpeckleRebCpu::run_pixMatch(const unsigned char* left, const unsigned char* right, int& timeMs) {
    static constexpr StageNames NAMES{"pixMatch_bmp_origin_image",
                                      "pixMatch_bmp_remap_image",
                                      "pixMatch_bmp_pyramid_image",
                                      "pixMatch_bmp_valid_mask",
                                      "pixMatch_pix_match_zncc",
                                      "pixMatch_remove_noise_points",
                                      "pixMatch_fill_neigh_invalid_points",
                                      "pixMatch_match_result_to_save_invaild",
                                      "pixMatch_parallax_range_convert_to_depth_range",
                                      {},
                                      {},
                                      {},
                                      {}};
    const Stopwatch watch;
    _debug.set_frame(_frame++);
    if (!prepare_images(left, right, NAMES))
        return left == nullptr || right == nullptr ? RET_INPUT_ERROR : RET_RUN_FAIL;
    if (!match_to_depth_range(NAMES)) return RET_RUN_FAIL;
    timeMs = static_cast<int>(watch.milliseconds());
    return RET_SUCCESS;
}

RetVal SpeckleRebCpu::run_subPix(const unsigned char* left, const unsigned char* right, PointImage& result,
                                 int& timeMs) {
    static constexpr StageNames NAMES{"subPix_origin_image",
                                      "subPix_remap_image",
                                      "subPix_pyramid_image",
                                      "subPix_valid_mask",
                                      {},
                                      {},
                                      {},
                                      {},
                                      {},
                                      "subPix_pre_subpixel_match_points",
                                      {},
                                      "subPix_points_normal",
                                      "subPix_iter_points_normal"};
    const Stopwatch watch;
    if (!can_take(left, right, result)) return RET_INPUT_ERROR;
    if (!_pixDepthRange.has_range()) {
        print_line("run_speckle_rebuild_subPix_cpu fail because the pixel stage has not run");
        return RET_STATE_ERROR;
    }
    result.enable_vNormal();
    result.enable_vWeight();
    result.setZero();
    _debug.set_frame(_frame++);
    if (!prepare_images(left, right, NAMES)) return RET_RUN_FAIL;
    refine(left, right, NAMES);
    remove_noise(NAMES);
    write_result(NAMES, result);
    timeMs = static_cast<int>(watch.milliseconds());
    return RET_SUCCESS;
}

bool SpeckleRebCpu::prepare_images(const unsigned char* left, const unsigned char* right, const StageNames& names) {
    if (!remap(left, right)) return false;
    if (_debug.is_on()) {
        copy_raw(left, right);
        _debug.images(names.origin, _raw.left, _raw.right);
        _debug.images(names.remap, _remap.left, _remap.right);
    }
    build_pyramid();
    _debug.images(names.pyramid, _pyramid.left, _pyramid.right);
    if (!compute_valid_mask()) return false;
    _debug.masks(names.mask, _mask.left, _mask.right);
    return true;
}

bool SpeckleRebCpu::match_to_depth_range(const StageNames& names) {
    if (!match_pixels_by_zncc()) return false;
    _debug.parallaxes(names.pixMatch, _match);
    remove_noise_points();
    _debug.parallaxes(names.removeNoise, _match);
    fill_neigh_invalid_points();
    _debug.parallaxes(names.fill, _match);
    save_invalid_points();
    _debug.parallaxes(names.invalid, _match);

    const auto sample = static_cast<float>(_param.sampleRatio);
    Raster<float> parallax = _match;
    for (std::size_t i = 0; i < parallax.size(); ++i) parallax[i] *= sample;
    _pixDepthRange.parallax_range_convert_to_depth_range(parallax, RANGE_MARGIN * sample);
    if (_debug.is_on()) {
        DepthRange shown = _pixDepthRange;
        shown.facets_from_range();
        shown.update_points(_threads);
        _debug.points(names.depthRange, shown);
    }
    return true;
}

bool SpeckleRebCpu::match_pixels_by_zncc() {
    const auto [begin, end] = sampled_range(_param.findRange, _param.sampleRatio, _widthSample);
    const PixelMatchTask task{_pyramid.left,          _pyramid.right, _mask.left, _mask.right,  _param.pixMatchWin.x(),
                              _param.pixMatchWin.y(), begin,          end,        _sampledRange};
    if (!match_pixels(task, _threads, _match, _matchScore)) {
        print_line("pre_compute_src_image_patch_eve_std failed");
        return false;
    }
    for (int y = 0; y < _match.height(); ++y) {
        float* match = _match.row(y);
        for (int x = 0; x < _match.width(); ++x)
            match[x] = match[x] == NO_MATCH ? NO_PARALLAX : match[x] - static_cast<float>(x);
    }
    return true;
}

std::size_t SpeckleRebCpu::island_limit(std::size_t share) const {
    return std::max<std::size_t>(12, _match.size() / share);
}

void SpeckleRebCpu::remove_noise_points() {
    _weakMatch = _match;
    for (std::size_t i = 0; i < _match.size(); ++i) {
        if (_matchScore[i] < SEED_SCORE) _match[i] = NO_PARALLAX;
        if (_matchScore[i] < WEAK_SEED_SCORE) _weakMatch[i] = NO_PARALLAX;
    }
    remove_small_regions(island_limit(SEED_SHARE), REGION_STEP, _threads, _match);
}

/// Good matches grow first, as they know slants that upright windows do not; weaker ones then found new regions in what
/// is left.
void SpeckleRebCpu::fill_neigh_invalid_points() {
    const auto sample = static_cast<float>(_param.sampleRatio);
    const GrowTask task{_pyramid.left,
                        _pyramid.right,
                        _mask.left,
                        _param.pixMatchWin.x(),
                        _param.pixMatchWin.y(),
                        static_cast<float>(_param.findRange(0)) / sample,
                        static_cast<float>(_param.findRange(1)) / sample,
                        SMALLEST_GROWN_SCORE};
    grow_matches(task, _threads, _match, _matchScore);
    for (std::size_t i = 0; i < _match.size(); ++i)
        if (has_parallax(_match[i])) _weakMatch[i] = NO_PARALLAX;
    remove_small_regions(island_limit(SEED_SHARE), REGION_STEP, _threads, _weakMatch);
    bool isFounded = false;
    for (std::size_t i = 0; i < _match.size(); ++i) {
        if (!has_parallax(_weakMatch[i])) continue;
        _match[i] = _weakMatch[i];
        isFounded = true;
    }
    if (isFounded) grow_matches(task, _threads, _match, _matchScore);
}

void SpeckleRebCpu::save_invalid_points() {
    _invalid.assign(_match.width(), _match.height());
    for (std::size_t i = 0; i < _match.size(); ++i) _invalid[i] = has_parallax(_match[i]) ? 0 : 1;
}

void SpeckleRebCpu::refine(const unsigned char* left, const unsigned char* right, const StageNames& names) {
    remap_fine(left, right);
    pre_subpixel_match();
    dump_points(names.preSubPixel);

    _objDepthRange.depth_gaussian_smooth(4, 2.4F, 0.7F, 0.2F, _threads);
    dump_points(names.smoothRange);
    dump_oriented_points(names.normals);

    iterate_subpixel_match();
    _objDepthRange.update_points(_threads);  // slots without a depth go
    dump_oriented_points(names.iterated);
}

/// Between the stages only dumps need points and normals.
void SpeckleRebCpu::dump_points(std::string_view name) {
    if (!_debug.is_on()) return;
    _objDepthRange.update_points(_threads);
    _debug.points(name, _objDepthRange);
}

void SpeckleRebCpu::dump_oriented_points(std::string_view name) {
    if (!_debug.is_on()) return;
    _objDepthRange.update_points(_threads);
    _objDepthRange.update_normals(_threads);
    _debug.points(name, _objDepthRange);
}

void SpeckleRebCpu::pre_subpixel_match() {
    _objDepthRange = _pixDepthRange;
    _objDepthRange.facets_from_range();
    _unclippedShares = unclipped_shares(_remap.left, sub_pixel_window(), _threads);
    _subPixelCover = spare_clipped_pixels(_unclippedShares, LEAST_UNCLIPPED_SHARE, _cover.left, _threads);
    for (int step = 0; step < FIRST_STEPS; ++step) {
        _objDepthRange.depth_gaussian_smooth(6, 3.0F, 0.7F, 0.8F, _threads);
        take_sub_pixel_step(LARGEST_FIRST_STEP);
    }
}

EdgeTask SpeckleRebCpu::edge_task() const {
    return {_remap.left, _remap.right, _cover.left, _cover.right, _param.sampleRatio};
}

/// A few steps of windows come near enough to the surface; the fit of all slots together then follows it closer than
/// any window does. A last look through the windows tells how well they correlate.
void SpeckleRebCpu::iterate_subpixel_match() {
    settle_edges(edge_task(),
                 {EDGE_WINDOW, EDGE_ROUNDS, SMALLEST_EDGE_SCORE, static_cast<float>(_param.findRange(0)),
                  static_cast<float>(_param.findRange(1))},
                 _threads, _objDepthRange.field());
    _objDepthRange.move_intervals(RANGE_MARGIN * static_cast<float>(_param.sampleRatio));
    // Facets reach as far as the window does.
    const int window = sub_pixel_window();
    for (int step = 0; step < STEPS; ++step) {
        if (step > 0)
            _objDepthRange.depth_gaussian_smooth(window / 2, FACET_SIGMA * static_cast<float>(window), FACET_TOLERANCE,
                                                 FACET_SLOPE_TOLERANCE, _threads);
        take_sub_pixel_step(LARGEST_STEP);
    }
    fit_surface();
    measure_scores();
    drop_uncorrelated();
    if (window > LARGEST_SHARP_WINDOW) {
        const auto excess = static_cast<float>(window * window - LARGEST_SHARP_WINDOW * LARGEST_SHARP_WINDOW);
        _objDepthRange.depth_gaussian_smooth(window / 2, std::sqrt(excess / 12.0F), FACET_TOLERANCE,
                                             FACET_SLOPE_TOLERANCE, _threads);
    }
}

void SpeckleRebCpu::take_sub_pixel_step(float largestStep) {
    measure_scores();
    move_parallaxes(largestStep);
}

/// The step that the windows would take next, too.
void SpeckleRebCpu::measure_scores() {
    find_sub_pixel_steps(sub_pixel_task(_subPixelCover), _objDepthRange.field(), _threads, _step, _score);
    std::swap(_objDepthRange.field().score, _score);
}

void SpeckleRebCpu::move_parallaxes(float largestStep) {
    parallel_ranges(_threads, _step.size(), SLOT_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            if (has_parallax(_step[i]) && has_parallax(_objDepthRange.field().parallax[i]))
                _objDepthRange.move_parallax(i, std::clamp(_step[i], -largestStep, largestStep));
    });
}

SubPixelTask SpeckleRebCpu::sub_pixel_task(const Mask& cover) const {
    return {_remap.left,
            _remap.right,
            _fine,
            cover,
            _param.sampleRatio,
            _param.subPixMatchWin.x(),
            _param.subPixMatchWin.y(),
            region_step()};
}

/// A larger window asks for a smoother surface; bends of it weigh as the smoothing of a plate that reaches as far.
void SpeckleRebCpu::fit_surface() {
    const auto slot = 0.5F * static_cast<float>(_param.sampleRatio);
    const auto window = static_cast<float>(sub_pixel_window()) / static_cast<float>(LARGEST_SHARP_WINDOW);
    const float jump = region_step();
    const SurfacePrior prior{FIT_NOISE,
                             FIT_BEND * slot / (window * window),
                             FIT_CREASE * slot * slot,
                             jump,
                             LARGEST_KINK * static_cast<float>(_param.sampleRatio),
                             FIT_GAIN_STEP,
                             FIT_ITERATIONS};
    const Mask spared = spare_clipped_pixels(_unclippedShares, FIT_LEAST_UNCLIPPED_SHARE, _cover.left, _threads);
    const Mask cover = without_clipped(_remap.left, spared, FIT_CLIPPED_GREY, _threads);
    SubPixelTask task = sub_pixel_task(cover);
    task.clippedGrey = FIT_CLIPPED_GREY;
    ParallaxField& field = _objDepthRange.field();
    _surfaceFit.begin(_remap.left, _threads);
    for (const float outlier : FIT_OUTLIERS) {
        _surfaceFit.find_steps(task, prior, outlier, field, _threads, _step);
        move_parallaxes(LARGEST_STEP);
        take_slopes(jump, _param.sampleRatio, _threads, field);
    }
}

/// Where a window lies on two surfaces at once, it correlates worse than others of the frame do, and the field bends
/// from one to the other. Print on the surface spoils the correlation too, but the field stays even.
void SpeckleRebCpu::drop_uncorrelated() {
    ParallaxField& field = _objDepthRange.field();
    const Raster<float> parallax = field.parallax;
    _medianScore = median_score();
    const float limit = std::clamp(_medianScore - SCORE_LOSS, SMALLEST_SCORE, LARGEST_SCORE_LIMIT);
    const int reach = std::max(1, BEND_REACH / _param.sampleRatio);
    const auto is_even = [&](int x, int y, int dx, int dy) {
        if (!parallax.contains(x - dx, y - dy) || !parallax.contains(x + dx, y + dy)) return true;
        const float ends = parallax.at(x - dx, y - dy) + parallax.at(x + dx, y + dy);
        return std::abs(ends - 2.0F * parallax.at(x, y)) <= LARGEST_BEND;
    };
    const auto is_good = [&](int x, int y) {
        const float score = field.score.at(x, y);
        return std::abs(_step.at(x, y)) <= LARGEST_STEP &&
               (score >= limit || (score >= SMALLEST_SCORE && is_even(x, y, reach, 0) && is_even(x, y, 0, reach)));
    };
    for_each_row(parallax.height(), _threads, [&](int y) {
        for (int x = 0; x < parallax.width(); ++x)
            if (!is_good(x, y)) field.parallax.at(x, y) = NO_PARALLAX;
    });
}

float SpeckleRebCpu::median_score() const {
    const ParallaxField& field = _objDepthRange.field();
    std::vector<float> scores;
    scores.reserve(field.score.size());
    for (std::size_t i = 0; i < field.score.size(); ++i)
        if (has_parallax(field.parallax[i]) && has_parallax(_step[i])) scores.push_back(field.score[i]);
    if (scores.empty()) return 1.0F;
    return take_median(scores);
}

void SpeckleRebCpu::remove_noise(const StageNames& names) {
    ParallaxField& field = _objDepthRange.field();
    const int sample = _param.sampleRatio;
    const float regionStep = region_step();
    const auto dump = [&](std::string_view name) {
        if (names.isEndShown) dump_points(name);
    };
    remove_small_regions(island_limit(FIRST_ISLAND_SHARE), regionStep, _threads, field.parallax);
    dump("remove_nosie");

    remove_inconsistent(CONSISTENCY_RADIUS, 0.5F, 0.1F, sample, _threads, field);
    remove_inconsistent(1, 0.5F, 0.1F, sample, _threads, field);
    dump("after remove_nosie_with_parallax_consistency");

    const auto [begin, end] = sampled_range(_param.findRange, sample, _widthSample);
    const VerifyTask task{
        _pyramid.left, _pyramid.right,     sample,    _param.pixMatchWin.x(), _param.pixMatchWin.y(), begin,
        end,           _windowCover.right, regionStep};
    right_to_left_to_vertify_match(task, RETURN_RADIUS, RETURN_TOLERANCE, _threads, field);
    trim_edges(edge_task(), (EDGE_TRIM + sample - 1) / sample, LEAST_EDGE_STEP, _threads, field);
    remove_steep_rims(LARGEST_RIM_SLOPE, RIM_WIDTH, sample, _threads, field);
    const float loss = tolerable_loss(1.0F - _medianScore);
    remove_doubtful({1.0F - LARGEST_LOSS * loss, 1.0F - DOUBTFUL_LOSS * loss, LARGEST_DISAGREEMENT,
                     1.0F - EDGE_LOSS * loss, EDGE_DISAGREEMENT},
                    sample, _threads, field);
    dump("after right_to_left_to_vertify_match");

    remove_cell_outliers(CELL_SIZE, 8.0F, 2.0F, CELL_SIZE * CELL_SIZE / 16, _threads, field);
    remove_rim_outliers(RIM, CELL_SIZE, _threads, field);
    dump("after remove_nosie_with_cell");

    remove_small_regions(island_limit(ISLAND_SHARE), regionStep, _threads, field.parallax);
    dump("after remove_isolated_island");

    dump("measure point");
    smooth_normals(NORMAL_NOISE);
    dump("after smooth normal");
}

/// Wide facets span two windows, narrow ones the next neighbours; the parallaxes stay.
void SpeckleRebCpu::smooth_normals(float noise) {
    constexpr int MOST_NEIGHBOURS = 3;
    const int sample = _param.sampleRatio, window = sub_pixel_window(), finest = std::max(1, 2 / sample);
    const int widest = MOST_NEIGHBOURS * sample, spacing = std::max(finest, (window + widest / 2) / widest);
    const int radius = std::clamp(window / (spacing * sample), 1, MOST_NEIGHBOURS);
    const float even = std::numeric_limits<float>::infinity();
    smooth_slopes({radius, spacing, even, FACET_TOLERANCE, FACET_SLOPE_TOLERANCE, WIDE_FACET_NOISE},
                  {1, finest, even, FACET_TOLERANCE, FACET_SLOPE_TOLERANCE, NARROW_FACET_NOISE}, noise, sample,
                  _threads, _objDepthRange.field());
    _objDepthRange.update_points(_threads);
    _objDepthRange.update_normals(_threads);
}

float SpeckleRebCpu::region_step() const {
    return 0.5F + 0.8F * static_cast<float>(_param.sampleRatio);
}

int SpeckleRebCpu::sub_pixel_window() const {
    return std::min(_param.subPixMatchWin.x(), _param.subPixMatchWin.y());
}

void SpeckleRebCpu::write_result(const StageNames& names, PointImage& result) {
    const std::vector<Vector3f>& points = _objDepthRange.get_point_vector();
    const std::vector<Vector3f>& normals = _objDepthRange.get_normal_vector();
    const Raster<float>& score = _objDepthRange.field().score;
    const Mask& cover = _cover.right;
    const Raster<float>& parallax = _objDepthRange.field().parallax;
    const int sample = _param.sampleRatio;
    for_each_row(_heightSample, _threads, [&](int y) {
        for (int x = 0; x < _widthSample; ++x) {
            const std::size_t slot = result.index_of(x, y);
            if (!has_parallax(parallax[slot]) || normals[slot].isZero(0.0F)) continue;
            const int column = static_cast<int>(static_cast<float>(x * sample) + parallax[slot] + 0.5F);
            if (!cover.contains(column, y * sample) || cover.at(column, y * sample) == 0) continue;
            const float cosine = -normals[slot].dot(points[slot].normalized());
            if (!(cosine > 0.0F)) continue;
            result.set_vCoord(slot, points[slot]);
            result.set_vNrv(slot, normals[slot]);
            result.set_vWeight(slot, cosine * score[slot]);
        }
    });
    result.set_camPar(_geometry.camera.scaled_down(sample));
    result.set_rt(RigidMatrix());
    if (!names.isEndShown) return;
    _debug.points("result_points", _objDepthRange);
    _debug.image("result_image", _remap.left);
}

}  // namespace VexelAlgorithm
