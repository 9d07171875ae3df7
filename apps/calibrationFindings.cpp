#include "apps/calibrationFindings.h"

#include <algorithm>
#include <cmath>

#include "apps/searchRange.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr int fewestMatches = 20;
constexpr double fewestShare = 0.05;      // of the textured places
constexpr double agreement = 3.0;         // pixels off the common row error, at least
constexpr double goodRowError = 0.5;      // pixels, median; pixel matching does not suffer
constexpr double goodRowError95 = 1.0;    // pixels, 95 %
constexpr double bearableRowError = 1.5;  // pixels, median; windows still overlap

double percentile(std::vector<double> values, double share) {
    if (values.empty()) return 0.0;
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<std::size_t>(place)];
}

double median(std::vector<double> values) {
    return percentile(std::move(values), 0.5);
}

template <class Value>
std::vector<double> values_of(const std::vector<RowMatch>& matches, Value&& value) {
    std::vector<double> values;
    for (const RowMatch& match : matches) values.push_back(value(match));
    return values;
}

/// Those whose row errors are within some pixels, or three robust standard deviations, of the median.
std::vector<RowMatch> consistent_matches(const std::vector<RowMatch>& matches) {
    const double middle = median(values_of(matches, [](const RowMatch& match) { return match.row_error(); }));
    const double spread =
        1.4826 *
        median(values_of(matches, [&](const RowMatch& match) { return std::abs(match.row_error() - middle); }));
    std::vector<RowMatch> kept;
    std::copy_if(matches.begin(), matches.end(), std::back_inserter(kept), [&](const RowMatch& match) {
        return std::abs(match.row_error() - middle) <= std::max(agreement, 3.0 * spread);
    });
    return kept;
}

/// Median of the slopes between matches that are half the list apart (H. Theil, "A rank-invariant method of linear and
/// polynomial regression analysis", 1950, in its incomplete form).
template <class Place>
double slope(std::vector<RowMatch> matches, Place&& place) {
    if (matches.size() < 2) return 0.0;
    std::sort(matches.begin(), matches.end(),
              [&](const RowMatch& a, const RowMatch& b) { return place(a) < place(b); });
    std::vector<double> slopes;
    const std::size_t half = matches.size() / 2;
    for (std::size_t i = 0; i < half; ++i) {
        const RowMatch &low = matches[i], &high = matches[i + matches.size() - half];
        const double distance = place(high) - place(low);
        if (distance > 1.0) slopes.push_back((high.row_error() - low.row_error()) / distance);
    }
    return median(std::move(slopes));
}

RowErrors row_errors(const std::vector<RowMatch>& matches) {
    const std::vector<double> errors = values_of(matches, [](const RowMatch& match) { return match.row_error(); });
    const std::vector<double> sizes =
        values_of(matches, [](const RowMatch& match) { return std::abs(match.row_error()); });
    RowErrors rows;
    rows.median = median(errors);
    rows.absoluteMedian = median(sizes);
    rows.absolute95 = percentile(sizes, 0.95);
    rows.perThousandRows = 1000.0 * slope(matches, [](const RowMatch& match) { return match.left.y; });
    rows.perThousandColumns = 1000.0 * slope(matches, [](const RowMatch& match) { return match.left.x; });
    return rows;
}

bool has_enough(const PairJudgement& judgement) {
    return judgement.consistent >= std::max(fewestMatches, static_cast<int>(fewestShare * judgement.tried));
}

bool is_good(const PairJudgement& judgement) {
    return has_enough(judgement) && judgement.behindShare < 0.5 && judgement.rows.absoluteMedian <= bearableRowError;
}

std::string row_error_text(const RowErrors& rows) {
    std::string text = format_text("partners lie %.2f pixels off their rows (median; 95 %% within %.2f)",
                                   rows.absoluteMedian, rows.absolute95);
    const double growth = std::max(std::abs(rows.perThousandRows), std::abs(rows.perThousandColumns));
    if (std::abs(rows.median) > 0.7 * rows.absoluteMedian && growth < 2.0 * std::abs(rows.median))
        return text + format_text(", all to one side (%+.2f): a camera was tilted up or down since the calibration",
                                  rows.median);
    if (std::abs(rows.perThousandColumns) > std::abs(rows.perThousandRows))
        return text +
               format_text(", by %+.2f more for 1000 columns: a camera was turned about its axis since the calibration",
                           rows.perThousandColumns);
    return text + format_text(
                      ", by %+.2f more for 1000 rows: a focal length or the distance of the cameras along their "
                      "axes does not fit",
                      rows.perThousandRows);
}

}  // namespace

PairJudgement judge_pair(const RowMatches& matches, const Rebuild::CaliParReadIn& calibration) {
    const ParallaxOfDepth parallax(calibration);
    PairJudgement judgement;
    judgement.tried = matches.tried;
    judgement.matched = static_cast<int>(matches.found.size());
    if (matches.found.empty()) return judgement;
    const std::vector<RowMatch> consistent = consistent_matches(matches.found);
    judgement.consistent = static_cast<int>(consistent.size());
    judgement.rows = row_errors(consistent);
    std::vector<double> depths;
    for (const RowMatch& match : consistent) {
        const double depth = parallax.depth_of(match.parallax());
        if (depth > 0.0 && std::isfinite(depth)) depths.push_back(depth);
    }
    judgement.behindShare = 1.0 - static_cast<double>(depths.size()) / static_cast<double>(consistent.size());
    judgement.depth = {percentile(depths, 0.01), percentile(depths, 0.99)};
    if (!depths.empty()) judgement.parallax = {parallax(judgement.depth(0)), parallax(judgement.depth(1))};
    if (judgement.parallax(0) > judgement.parallax(1)) std::swap(judgement.parallax(0), judgement.parallax(1));
    return judgement;
}

Overlap overlap_at(const Rebuild::CaliParReadIn& calibration, double depth) {
    constexpr int step = 4;
    const double parallax = ParallaxOfDepth(calibration)(depth);
    const Vector2i size = calibration.get_image_size();
    const auto shows = [&](const float* map, int x, int y) {
        const std::ptrdiff_t pixel = 2 * (static_cast<std::ptrdiff_t>(y) * size.x() + x);
        return map[pixel] >= 3.0F && map[pixel] < static_cast<float>(size.x() - 2) && map[pixel + 1] >= 3.0F &&
               map[pixel + 1] < static_cast<float>(size.y() - 2);
    };
    int all = 0, covered = 0, shared = 0;
    for (int y = 0; y < size.y(); y += step) {
        for (int x = 0; x < size.x(); x += step) {
            ++all;
            if (!shows(calibration.get_left_map(), x, y)) continue;
            ++covered;
            const double partner = std::round(x + parallax);
            if (partner < 0.0 || partner > size.x() - 1) continue;
            if (shows(calibration.get_right_map(), static_cast<int>(partner), y)) ++shared;
        }
    }
    return {static_cast<double>(covered) / all, covered > 0 ? static_cast<double>(shared) / covered : 0.0};
}

std::vector<CalibrationFinding> camera_findings(const std::vector<float>& camera, ImageSize size, const char* side) {
    std::vector<CalibrationFinding> findings;
    const double offX = std::abs(camera[2] - 0.5 * (size.width - 1)) / size.width;
    const double offY = std::abs(camera[3] - 0.5 * (size.height - 1)) / size.height;
    if (offX > 0.25 || offY > 0.25)
        findings.push_back(
            {false, format_text("the principal point of the %s camera, (%.0f, %.0f), is far from the middle of an "
                                "image of %d x %d pixels: was it calibrated at another image size?",
                                side, camera[2], camera[3], size.width, size.height)});
    if (camera[0] / camera[1] > 1.1F || camera[1] / camera[0] > 1.1F)
        findings.push_back(
            {false, format_text("the focal lengths of the %s camera, %.1f and %.1f, differ by more than a tenth: its "
                                "pixels would not be square",
                                side, camera[0], camera[1])});
    if (std::abs(camera[5]) > 1.0F)
        findings.push_back(
            {false, format_text("the distortion k1 = %.3f of the %s camera is larger than that of real lenses",
                                camera[5], side)});
    return findings;
}

bool looks_wrong(const PairJudgement& judgement) {
    return !is_good(judgement);
}

std::vector<CalibrationFinding> pair_findings(const PairJudgement& judgement,
                                              const std::optional<PairJudgement>& swapped, const Vector2f& depthRange) {
    if (judgement.tried < fewestMatches)
        return {{true,
                 format_text("the left image has only %d places with texture; take a pair with speckles on the object",
                             judgement.tried)}};
    if (swapped && is_good(*swapped) && swapped->consistent > judgement.consistent / 2)
        return {
            {true, format_text("left and right are exchanged, of the images or of the calibration files: the other way "
                               "round %d partners are found, %.2f pixels off their rows",
                               swapped->consistent, swapped->rows.absoluteMedian)}};
    if (!has_enough(judgement))
        return {{true, format_text(
                           "of %d textured places of the left image only %d have a partner within %d rows of the right "
                           "image: the calibration is not that of these cameras, or the images are of different scenes",
                           judgement.tried, judgement.consistent, largestRowError)}};
    std::vector<CalibrationFinding> findings;
    if (judgement.behindShare > 0.5)
        findings.push_back(
            {true, format_text("%.0f %% of the partners would lie behind the cameras: the position of one camera "
                               "relative to the other is wrong",
                               100.0 * judgement.behindShare)});
    if (judgement.rows.absoluteMedian > goodRowError || judgement.rows.absolute95 > goodRowError95)
        findings.push_back({judgement.rows.absoluteMedian > bearableRowError, row_error_text(judgement.rows)});
    if (depthRange.isZero() || judgement.behindShare > 0.5) return findings;
    if (judgement.depth(1) < depthRange(0) || judgement.depth(0) > depthRange(1))
        findings.push_back(
            {true, format_text("all partners lie at depths of %.0f .. %.0f mm, outside the search range of %g .. %g mm",
                               judgement.depth(0), judgement.depth(1), depthRange(0), depthRange(1))});
    return findings;
}

}  // namespace VexelAlgorithm::Apps
