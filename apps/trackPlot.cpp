#include "apps/trackPlot.h"

#include <limits>

#include "apps/charts.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr double none = std::numeric_limits<double>::quiet_NaN();

template <class Value>
Curve curve_of(const char* name, const std::vector<TrackedFrame>& frames, Value&& value) {
    Curve curve{name, {}};
    for (const TrackedFrame& frame : frames) curve.values.push_back(value(frame));
    return curve;
}

Chart residual_chart(const std::vector<TrackedFrame>& frames) {
    return {"Residual, mm", {curve_of("mean point-to-plane distance", frames, [](const TrackedFrame& frame) {
                const bool isMeasured = frame.state.correspondences > 0 && frame.state.residual < 1e5f;
                return isMeasured ? static_cast<double>(frame.state.residual) : none;
            })}};
}

Chart point_chart(const std::vector<TrackedFrame>& frames) {
    const double thousand = 1000.0;
    return {"Points, thousands",
            {curve_of("of the frame", frames, [&](const auto& frame) { return frame.state.frameValid / thousand; }),
             curve_of("of the prediction", frames,
                      [&](const auto& frame) { return frame.state.predictionValid / thousand; }),
             curve_of("correspondences", frames,
                      [&](const auto& frame) { return frame.state.correspondences / thousand; })}};
}

Chart time_chart(const TrackReport& report) {
    Chart chart{"Time, ms", {}, true};
    for (const FrameStage& stage : report.frame_stages()) {
        chart.curves.push_back(curve_of(stage.name, report.frames, stage.milliseconds));
    }
    return chart;
}

Curve curve_of(const char* name, const std::vector<FrameError>& errors, double FrameError::*value) {
    Curve curve{name, {}};
    for (const FrameError& error : errors) curve.values.push_back(error.*value);
    return curve;
}

}  // namespace

cv::Mat draw_track_plot(const TrackReport& report, const std::vector<ComparedFrame>& compared) {
    std::vector<int> numbers;
    std::vector<bool> lost;
    for (const TrackedFrame& frame : report.frames) {
        numbers.push_back(frame.number);
        lost.push_back(!frame.isAccepted);
    }
    std::vector<Chart> charts{residual_chart(report.frames), point_chart(report.frames), time_chart(report)};
    if (!compared.empty()) {
        const std::vector<FrameError> errors = frame_errors(compared);
        charts.push_back({"Error, mm",
                          {curve_of("position, first pose made equal", errors, &FrameError::translation),
                           curve_of("motion of the points since the frame before", errors, &FrameError::pointMotion)}});
        charts.push_back(
            {"Error, degrees", {curve_of("rotation, first pose made equal", errors, &FrameError::rotation)}});
    }
    const std::string heading =
        format_text("%d of %d frames tracked", report.accepted(), static_cast<int>(report.frames.size()));
    return draw_charts(heading, charts, numbers, lost);
}

}  // namespace VexelAlgorithm::Apps
