#include "fusiontrackoperation/viewAgreement.h"

#include <algorithm>
#include <cmath>

namespace VexelAlgorithm {
namespace {

constexpr int PIXELS_LOOKED_AT = 20000;
constexpr float LEAST_NORMAL_COSINE = 0.7F;
constexpr float LEAST_DEPTH = 1e-5F;  // mm

enum class Verdict { Unknown, Agrees, Contradicts };

struct Patch {
    Vector3f point;
    Vector3f normal;
};

bool is_on(const Patch& patch, const PointImage& view, std::size_t slot, float tolerance) {
    const Vector3f& normal = view.get_vNrv(slot);
    return patch.normal.dot(normal) > LEAST_NORMAL_COSINE &&
           std::abs((patch.point - view.get_vCoord(slot)).dot(normal)) < tolerance;
}

/// The pixel onto which the patch falls and the eight around it.
Verdict judge(const Patch& patch, const PointImage& view, float tolerance) {
    if (!(patch.point.z() > LEAST_DEPTH)) return Verdict::Unknown;
    Vector2f pixel;
    view.get_camPar().point_to_image(patch.point, pixel);
    const float u = std::floor(pixel.x() + 0.5F - view.get_viewRadialX());
    const float v = std::floor(pixel.y() + 0.5F - view.get_viewRadialY());
    const int width = view.get_image_width(), height = view.get_image_height();
    const bool isInside =
        u >= 1.0F && v >= 1.0F && u < static_cast<float>(width - 1) && v < static_cast<float>(height - 1);
    if (!isInside) return Verdict::Unknown;
    bool isComplete = true;
    for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
            const std::size_t slot = view.index_of(static_cast<int>(u) + dx, static_cast<int>(v) + dy);
            if (!view.has_point(slot) || view.get_vNrv(slot).isZero(0.0F)) {
                isComplete = false;
            } else if (is_on(patch, view, slot, tolerance)) {
                return Verdict::Agrees;
            }
        }
    }
    return isComplete ? Verdict::Contradicts : Verdict::Unknown;
}

struct Tally {
    int points = 0;
    int agreeing = 0;
    int contradicting = 0;
};

Tally judge_all(const PointImage& from, const PointImage& view, const RigidMatrix& fromToView, float tolerance) {
    const int width = from.get_image_width(), height = from.get_image_height();
    const int step =
        std::max(1, static_cast<int>(std::lround(std::sqrt(static_cast<double>(width) * height / PIXELS_LOOKED_AT))));
    const Matrix3f rotation = fromToView.get_rotation().cast<float>();
    const Vector3f translation = fromToView.get_translation().cast<float>();
    Tally tally;
    for (int y = step / 2; y < height; y += step) {
        for (int x = step / 2; x < width; x += step) {
            const std::size_t slot = from.index_of(x, y);
            if (!from.has_point(slot) || from.get_vNrv(slot).isZero(0.0F)) continue;
            ++tally.points;
            const Patch patch{rotation * from.get_vCoord(slot) + translation, rotation * from.get_vNrv(slot)};
            const Verdict verdict = judge(patch, view, tolerance);
            tally.agreeing += verdict == Verdict::Agrees ? 1 : 0;
            tally.contradicting += verdict == Verdict::Contradicts ? 1 : 0;
        }
    }
    return tally;
}

double share(int part, int whole) {
    return whole > 0 ? static_cast<double>(part) / whole : 0.0;
}

}  // namespace

double ViewAgreement::explained() const {
    return share(agreeing, framePoints);
}

double ViewAgreement::contradicted() const {
    return std::max(share(contradicting, agreeing + contradicting), share(missed, seen + missed));
}

ViewAgreement compare_views(const PointImage& prediction, const PointImage& frame, const RigidMatrix& frameToPrediction,
                            float tolerance) {
    const Tally there = judge_all(frame, prediction, frameToPrediction, tolerance);
    const Tally back = judge_all(prediction, frame, frameToPrediction.inverse(), tolerance);
    return {there.points, there.agreeing, there.contradicting, back.agreeing, back.contradicting};
}

}  // namespace VexelAlgorithm
