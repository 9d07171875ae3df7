#include "apps/charts.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

/// Everything is drawn this much larger and reduced, which makes thin lines and letters smooth.
constexpr int oversampling = 3;
constexpr int width = 1400;
constexpr int headingHeight = 44;
constexpr int chartHeight = 276;
constexpr int leftMargin = 90, rightMargin = 24, topMargin = 44, bottomMargin = 42;

const cv::Scalar white(255, 255, 255), ink(50, 40, 40), faint(228, 224, 222), lostGround(200, 200, 255);
/// Distinguishable also for people who see few colours (Okabe and Ito 2008); BGR.
const cv::Scalar palette[] = {{178, 114, 0},  {0, 94, 213},   {115, 158, 0}, {167, 121, 204}, {0, 159, 230},
                              {233, 180, 86}, {66, 228, 240}, {90, 90, 90},  {30, 60, 130}};

cv::Scalar colour_of(std::size_t curve) {
    return palette[curve % (sizeof palette / sizeof palette[0])];
}

/// The smallest of 1, 2, 5, 10, 20, ... times a power of ten that is not below the value.
double round_step(double value) {
    const double power = std::pow(10.0, std::floor(std::log10(value)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= value * (1.0 - 1e-9)) return factor * power;
    }
    return 10.0 * power;
}

std::vector<Curve> stacked(std::vector<Curve> curves) {
    for (std::size_t c = 1; c < curves.size(); ++c) {
        for (std::size_t i = 0; i < curves[c].values.size(); ++i) curves[c].values[i] += curves[c - 1].values[i];
    }
    return curves;
}

double largest_of(const std::vector<Curve>& curves) {
    double largest = 0.0;
    for (const Curve& curve : curves) {
        for (const double value : curve.values) {
            if (std::isfinite(value)) largest = std::max(largest, value);
        }
    }
    return largest;
}

/// The area of one chart and its scales.
class Axes {
public:
    Axes(cv::Mat& canvas, int top, std::size_t count, double largest)
        : _canvas(canvas), _top(top + topMargin), _bottom(top + chartHeight - bottomMargin), _count(count) {
        const double ticks = 4.0;
        _tick = round_step(std::max(largest, 1e-6) / ticks);
        _highest = _tick * std::max(1.0, std::ceil(largest / _tick - 1e-9));
    }

    double x(double index) const {
        const double last = std::max<double>(static_cast<double>(_count) - 1.0, 1.0);
        return leftMargin + index / last * (width - leftMargin - rightMargin);
    }
    double y(double value) const { return _bottom - value / _highest * (_bottom - _top); }

    void draw_ground(const std::vector<bool>& lost) {
        for (std::size_t i = 0; i < lost.size(); ++i) {
            if (!lost[i]) continue;
            const double left = std::max(x(static_cast<double>(i) - 0.5), x(0.0));
            const double right = std::min(x(static_cast<double>(i) + 0.5), x(static_cast<double>(_count) - 1.0));
            cv::rectangle(_canvas, scaled(left, _top), scaled(std::max(right, left + 1.0), _bottom), lostGround,
                          cv::FILLED);
        }
    }

    void draw_frame(const std::vector<int>& numbers) {
        for (int i = 0; i * _tick <= _highest * (1.0 + 1e-9); ++i) {
            const double value = i * _tick;
            line({leftMargin, y(value)}, {width - rightMargin, y(value)}, faint, 1.0);
            const std::string text = format_text("%.6g", value);
            label(text, {leftMargin - 8.0 - text_width(text), y(value) + 4.0}, ink);
        }
        const double count = static_cast<double>(numbers.size());
        const std::size_t step = std::max<std::size_t>(1, static_cast<std::size_t>(round_step(count / 12.0)));
        for (std::size_t i = 0; i < numbers.size(); i += step) {
            const double place = x(static_cast<double>(i));
            line({place, static_cast<double>(_bottom)}, {place, _bottom + 5.0}, ink, 1.0);
            const std::string text = std::to_string(numbers[i]);
            label(text, {place - 0.5 * text_width(text), _bottom + 20.0}, ink);
        }
        line({leftMargin, static_cast<double>(_top)}, {leftMargin, static_cast<double>(_bottom)}, ink, 1.0);
        line({leftMargin, static_cast<double>(_bottom)}, {width - rightMargin, static_cast<double>(_bottom)}, ink, 1.0);
        label("frame", {width - rightMargin - text_width("frame"), _bottom + 32.0}, ink);
    }

    /// Title on the left, then a square and a name for each curve, and for the lost frames.
    void draw_legend(const Chart& chart, bool hasLost) {
        label(chart.title, {leftMargin, _top - 16.0}, ink, 1.15);
        double place = leftMargin + 1.15 * text_width(chart.title) + 40.0;
        for (std::size_t c = 0; c < chart.curves.size(); ++c) place = entry(chart.curves[c].name, colour_of(c), place);
        if (hasLost) entry("lost frame", lostGround, place);
    }

    void draw_curve(const Curve& curve, const cv::Scalar& colour) {
        for (std::size_t i = 0; i < curve.values.size(); ++i) {
            if (!std::isfinite(curve.values[i])) continue;
            const Place here{x(static_cast<double>(i)), y(curve.values[i])};
            const bool hasNext = i + 1 < curve.values.size() && std::isfinite(curve.values[i + 1]);
            const bool hasPrevious = i > 0 && std::isfinite(curve.values[i - 1]);
            if (hasNext) line(here, {x(static_cast<double>(i) + 1.0), y(curve.values[i + 1])}, colour, 1.6);
            if (!hasNext && !hasPrevious) cv::circle(_canvas, scaled(here.x, here.y), 2 * oversampling, colour, -1);
        }
    }

    /// Columns from the lower to the upper curve.
    void fill_between(const std::vector<double>& lower, const std::vector<double>& upper, const cv::Scalar& colour) {
        for (std::size_t i = 0; i < upper.size(); ++i) {
            if (!std::isfinite(upper[i]) || !std::isfinite(lower[i])) continue;
            const double left = std::max(x(static_cast<double>(i) - 0.5), x(0.0));
            const double right = std::min(x(static_cast<double>(i) + 0.5), x(static_cast<double>(_count) - 1.0));
            cv::rectangle(_canvas, scaled(left, y(upper[i])), scaled(std::max(right, left + 1.0), y(lower[i])), colour,
                          cv::FILLED);
        }
    }

private:
    struct Place {
        double x, y;
    };

    static cv::Point scaled(double x, double y) {
        return {static_cast<int>(std::lround(oversampling * x)), static_cast<int>(std::lround(oversampling * y))};
    }
    void line(Place from, Place to, const cv::Scalar& colour, double thickness) {
        cv::line(_canvas, scaled(from.x, from.y), scaled(to.x, to.y), colour,
                 static_cast<int>(std::lround(oversampling * thickness)), cv::LINE_AA);
    }
    static double text_width(const std::string& text) {
        int baseline = 0;
        return cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, 0.45, 1, &baseline).width;
    }
    void label(const std::string& text, Place place, const cv::Scalar& colour, double size = 1.0) {
        cv::putText(_canvas, text, scaled(place.x, place.y), cv::FONT_HERSHEY_SIMPLEX, oversampling * 0.45 * size,
                    colour, static_cast<int>(std::lround(oversampling * size)), cv::LINE_AA);
    }
    double entry(const std::string& name, const cv::Scalar& colour, double place) {
        const double middle = _top - 20.0;
        cv::rectangle(_canvas, scaled(place, middle - 5.0), scaled(place + 14.0, middle + 5.0), colour, cv::FILLED);
        label(name, {place + 20.0, middle + 4.0}, ink);
        return place + 44.0 + text_width(name);
    }

    cv::Mat& _canvas;
    int _top, _bottom;
    std::size_t _count;
    double _tick = 1.0, _highest = 1.0;
};

void draw_chart(cv::Mat& canvas, int top, const Chart& chart, const std::vector<int>& numbers,
                const std::vector<bool>& lost) {
    const std::vector<Curve> curves = chart.isStacked ? stacked(chart.curves) : chart.curves;
    Axes axes(canvas, top, numbers.size(), largest_of(curves));
    axes.draw_ground(lost);
    const std::vector<double> zero(numbers.size(), 0.0);
    if (!chart.isStacked) axes.draw_frame(numbers);
    for (std::size_t c = 0; c < curves.size(); ++c) {
        if (chart.isStacked) {
            axes.fill_between(c == 0 ? zero : curves[c - 1].values, curves[c].values, colour_of(c));
        } else {
            axes.draw_curve(curves[c], colour_of(c));
        }
    }
    if (chart.isStacked) axes.draw_frame(numbers);
    axes.draw_legend(chart, std::find(lost.begin(), lost.end(), true) != lost.end());
}

}  // namespace

cv::Mat draw_charts(const std::string& heading, const std::vector<Chart>& charts, const std::vector<int>& numbers,
                    const std::vector<bool>& lost) {
    const int height = headingHeight + chartHeight * static_cast<int>(charts.size());
    cv::Mat canvas(oversampling * height, oversampling * width, CV_8UC3, white);
    cv::putText(canvas, heading, {oversampling * leftMargin, oversampling * 30}, cv::FONT_HERSHEY_SIMPLEX,
                0.62 * oversampling, ink, oversampling + 1, cv::LINE_AA);
    for (std::size_t c = 0; c < charts.size(); ++c) {
        draw_chart(canvas, headingHeight + chartHeight * static_cast<int>(c), charts[c], numbers, lost);
    }
    cv::Mat picture;
    cv::resize(canvas, picture, {width, height}, 0.0, 0.0, cv::INTER_AREA);
    return picture;
}

}  // namespace VexelAlgorithm::Apps
