#include "apps/rowMatches.h"

#include <opencv2/imgproc.hpp>
#include <optional>

#include "foundation/parallel.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr int gridColumns = 32;
constexpr int gridRows = 24;

// ---- at half the size ----
constexpr int coarseRadius = 8;
constexpr int coarseRows = largestRowError / 2;
constexpr double smallestDeviation = 3.0;  // grey values; even places have no partner
constexpr double smallestCoarseScore = 0.75;
constexpr double largestRivalShare = 0.93;
constexpr int rivalDistance = 4;
constexpr int largestReturnError = 2;

// ---- at full size ----
constexpr int fineRadius = 10;
constexpr int fineReach = 3;
constexpr double smallestFineScore = 0.75;

/// An image with what its windows are normalised by.
struct Textured {
    cv::Mat image;
    cv::Mat1f deviation;  ///< of the window around each pixel; 0 where it is not wholly covered
};

Textured textured(const cv::Mat& image, int radius) {
    const cv::Size window(2 * radius + 1, 2 * radius + 1);
    cv::Mat wide, mean, meanOfSquares, covered;
    image.convertTo(wide, CV_32F);
    cv::boxFilter(wide, mean, CV_32F, window, {-1, -1}, true, cv::BORDER_CONSTANT);
    cv::boxFilter(wide.mul(wide), meanOfSquares, CV_32F, window, {-1, -1}, true, cv::BORDER_CONSTANT);
    Textured result{image, {}};
    cv::sqrt(cv::max(meanOfSquares - mean.mul(mean), 0.0), result.deviation);
    cv::erode(image > 0, covered, cv::getStructuringElement(cv::MORPH_RECT, {3, 3}));
    cv::dilate(covered, covered, cv::getStructuringElement(cv::MORPH_RECT, {5, 5}));
    result.deviation.setTo(0.0F, covered == 0);
    return result;
}

/// The rectangle within the image.
cv::Rect clipped(const cv::Rect& rectangle, const cv::Mat& image) {
    return rectangle & cv::Rect(0, 0, image.cols, image.rows);
}

bool has_window(const cv::Point& place, int radius, const cv::Mat& image) {
    return place.x >= radius && place.y >= radius && place.x < image.cols - radius && place.y < image.rows - radius;
}

cv::Rect window_at(const cv::Point& place, int radius) {
    return {place.x - radius, place.y - radius, 2 * radius + 1, 2 * radius + 1};
}

/// The place in `to`, within `reach` pixels of columns and rows, that looks like the one in `from`.
std::optional<cv::Point> best_partner(const Textured& from, const cv::Point& place, const Textured& to,
                                      const cv::Size& reach) {
    if (!has_window(place, coarseRadius, from.image) || from.deviation(place) < smallestDeviation) return std::nullopt;
    const cv::Rect centres =
        clipped({place.x - reach.width, place.y - reach.height, 2 * reach.width + 1, 2 * reach.height + 1}, to.image) &
        cv::Rect(coarseRadius, coarseRadius, to.image.cols - 2 * coarseRadius, to.image.rows - 2 * coarseRadius);
    if (centres.empty()) return std::nullopt;
    const cv::Rect strip(centres.x - coarseRadius, centres.y - coarseRadius, centres.width + 2 * coarseRadius,
                         centres.height + 2 * coarseRadius);
    cv::Mat scores;
    cv::matchTemplate(to.image(strip), from.image(window_at(place, coarseRadius)), scores, cv::TM_CCOEFF_NORMED);
    scores.setTo(-1.0F, to.deviation(centres) < smallestDeviation);

    double best = 0.0, rival = 0.0;
    cv::Point at;
    cv::minMaxLoc(scores, nullptr, &best, nullptr, &at);
    if (best < smallestCoarseScore) return std::nullopt;
    scores(clipped(window_at(at, rivalDistance), scores)).setTo(-1.0F);
    cv::minMaxLoc(scores, nullptr, &rival);
    if (rival > largestRivalShare * best) return std::nullopt;
    return at + centres.tl();
}

double correlation(const cv::Mat& left, const cv::Point& leftPlace, const cv::Mat& right, const cv::Point& rightPlace) {
    cv::Mat scores;
    cv::matchTemplate(right(window_at(rightPlace, fineRadius)), left(window_at(leftPlace, fineRadius)), scores,
                      cv::TM_CCOEFF_NORMED);
    return scores.at<float>(0, 0);
}

double parabola_peak(double before, double peak, double after) {
    const double curvature = before - 2.0 * peak + after;
    return curvature < 0.0 ? 0.5 * (before - after) / curvature : 0.0;
}

std::optional<RowMatch> refined(const cv::Mat& left, const cv::Mat& right, const cv::Point& leftPlace,
                                const cv::Point& rightPlace) {
    const int radius = fineRadius + fineReach;
    if (!has_window(leftPlace, fineRadius, left) || !has_window(rightPlace, radius, right)) return std::nullopt;
    cv::Mat1d scores(2 * fineReach + 1, 2 * fineReach + 1);
    for (int y = 0; y < scores.rows; ++y)
        for (int x = 0; x < scores.cols; ++x)
            scores(y, x) = correlation(left, leftPlace, right, rightPlace + cv::Point(x - fineReach, y - fineReach));
    double best = 0.0;
    cv::Point at;
    cv::minMaxLoc(scores, nullptr, &best, nullptr, &at);
    const bool isInside = at.x > 0 && at.y > 0 && at.x < scores.cols - 1 && at.y < scores.rows - 1;
    if (best < smallestFineScore || !isInside) return std::nullopt;
    const cv::Point2d shift(parabola_peak(scores(at.y, at.x - 1), best, scores(at.y, at.x + 1)),
                            parabola_peak(scores(at.y - 1, at.x), best, scores(at.y + 1, at.x)));
    const cv::Point whole = rightPlace + at - cv::Point(fineReach, fineReach);
    return RowMatch{cv::Point2d(leftPlace), cv::Point2d(whole) + shift};
}

std::optional<cv::Point> partner_and_back(const Textured& left, const Textured& right, const cv::Point& place) {
    const std::optional<cv::Point> partner = best_partner(left, place, right, {right.image.cols, coarseRows});
    if (!partner) return std::nullopt;
    const std::optional<cv::Point> back = best_partner(right, *partner, left, {left.image.cols, coarseRows});
    if (!back || cv::norm(*back - place) > largestReturnError) return std::nullopt;
    return partner;
}

cv::Mat half_of(const cv::Mat& image) {
    cv::Mat half;
    cv::resize(image, half, {image.cols / 2, image.rows / 2}, 0, 0, cv::INTER_AREA);
    return half;
}

/// The most textured place of each cell of a grid.
std::vector<cv::Point> textured_places(const Textured& half) {
    std::vector<cv::Point> places;
    for (int row = 0; row < gridRows; ++row) {
        for (int column = 0; column < gridColumns; ++column) {
            const cv::Rect cell(
                cv::Point(column * half.image.cols / gridColumns, row * half.image.rows / gridRows),
                cv::Point((column + 1) * half.image.cols / gridColumns, (row + 1) * half.image.rows / gridRows));
            if (cell.empty()) continue;
            double deviation = 0.0;
            cv::Point at;
            cv::minMaxLoc(half.deviation(cell), nullptr, &deviation, nullptr, &at);
            if (deviation >= smallestDeviation) places.push_back(at + cell.tl());
        }
    }
    return places;
}

}  // namespace

RowMatches find_row_matches(const cv::Mat& left, const cv::Mat& right, int threads) {
    const Textured halfLeft = textured(half_of(left), coarseRadius);
    const Textured halfRight = textured(half_of(right), coarseRadius);
    const std::vector<cv::Point> places = textured_places(halfLeft);
    std::vector<std::optional<RowMatch>> matches(places.size());
    parallel_ranges(threads, places.size(), 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::optional<cv::Point> partner = partner_and_back(halfLeft, halfRight, places[i]);
            if (partner) matches[i] = refined(left, right, 2 * places[i], 2 * *partner);
        }
    });
    RowMatches result;
    result.tried = static_cast<int>(places.size());
    for (const std::optional<RowMatch>& match : matches)
        if (match) result.found.push_back(*match);
    return result;
}

}  // namespace VexelAlgorithm::Apps
