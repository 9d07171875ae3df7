#include "recording/pointImageFromDepth.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t rowGrain = 16;
constexpr float referenceDepth = 1000.0f;

/// 1/z of every pixel (1/mm), 0 where there is no value.
struct InverseDepth {
    int width = 0;
    int height = 0;
    std::vector<float> values;

    float at(int x, int y) const { return values[static_cast<std::size_t>(y) * width + x]; }
    float& at(int x, int y) { return values[static_cast<std::size_t>(y) * width + x]; }
    bool contains(int x, int y) const { return x >= 0 && y >= 0 && x < width && y < height; }
};

template <class Body>
InverseDepth for_each_pixel(const InverseDepth& source, int threads, const Body& body) {
    InverseDepth result{source.width, source.height, std::vector<float>(source.values.size(), 0.0f)};
    parallel_ranges(threads, static_cast<std::size_t>(source.height), rowGrain,
                    [&](std::size_t begin, std::size_t end) {
                        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
                            for (int x = 0; x < source.width; ++x) {
                                if (source.at(x, y) > 0.0f) result.at(x, y) = body(x, y);
                            }
                        }
                    });
    return result;
}

InverseDepth inverse_depth_in_range(const DepthImage& depth, const DepthFrameSettings& settings) {
    InverseDepth inverse{depth.width, depth.height, std::vector<float>(depth.millimetres.size(), 0.0f)};
    for (std::size_t i = 0; i < depth.millimetres.size(); ++i) {
        const std::uint16_t z = depth.millimetres[i];
        const bool isUsable = DepthImage::is_value(z) && z >= settings.nearest && z <= settings.farthest;
        if (isUsable) inverse.values[i] = 1.0f / static_cast<float>(z);
    }
    return inverse;
}

/// Whether a pixel at most `margin` away along its row or column lies on another surface.
bool is_near_edge(const InverseDepth& inverse, int x, int y, int margin, float jump) {
    const float own = inverse.at(x, y);
    const auto jumps_to = [&](int otherX, int otherY) {
        if (!inverse.contains(otherX, otherY)) return false;
        const float other = inverse.at(otherX, otherY);
        return other > 0.0f && std::abs(other - own) > jump;
    };
    for (int offset = 1; offset <= margin; ++offset) {
        if (jumps_to(x - offset, y) || jumps_to(x + offset, y)) return true;
        if (jumps_to(x, y - offset) || jumps_to(x, y + offset)) return true;
    }
    return false;
}

InverseDepth without_edges(const InverseDepth& inverse, const DepthFrameSettings& settings, int threads) {
    const float jump = settings.edgeJump * settings.inverseDepthStep;
    return for_each_pixel(inverse, threads, [&](int x, int y) {
        return is_near_edge(inverse, x, y, settings.edgeMargin, jump) ? 0.0f : inverse.at(x, y);
    });
}

/// Weights of the bilateral filter: a table over pixel offsets and a compact kernel over differences, which
/// falls to 0 at three times its scale.
class BilateralKernel {
public:
    BilateralKernel(int radius, float rangeScale) : _radius(radius), _inverseRange(1.0f / (3.0f * rangeScale)) {
        const float scale = std::max(1.0f, 0.5f * static_cast<float>(radius));
        for (int dy = -radius; dy <= radius; ++dy) {
            for (int dx = -radius; dx <= radius; ++dx) {
                const float square = static_cast<float>(dx * dx + dy * dy);
                _spatial.push_back(std::exp(-square / (2.0f * scale * scale)));
            }
        }
    }

    float smoothed(const InverseDepth& inverse, int x, int y) const {
        const float own = inverse.at(x, y);
        float weightSum = 0.0f;
        float differenceSum = 0.0f;
        std::size_t k = 0;
        for (int dy = -_radius; dy <= _radius; ++dy) {
            for (int dx = -_radius; dx <= _radius; ++dx, ++k) {
                if (!inverse.contains(x + dx, y + dy)) continue;
                const float difference = inverse.at(x + dx, y + dy) - own;
                const float weight = _spatial[k] * range_weight(difference);
                weightSum += weight;
                differenceSum += weight * difference;
            }
        }
        return own + differenceSum / weightSum;
    }

private:
    /// Pixels without value have inverse depth 0 and lie far outside the kernel.
    float range_weight(float difference) const {
        const float ratio = difference * _inverseRange;
        const float rest = 1.0f - ratio * ratio;
        return rest > 0.0f ? rest * rest : 0.0f;
    }

    int _radius;
    float _inverseRange;
    std::vector<float> _spatial;
};

InverseDepth smoothed(const InverseDepth& inverse, const DepthFrameSettings& settings, int threads) {
    const BilateralKernel kernel(settings.smoothingRadius, 2.0f * settings.inverseDepthStep);
    return for_each_pixel(inverse, threads, [&](int x, int y) { return kernel.smoothed(inverse, x, y); });
}

PointImage back_projected(const InverseDepth& inverse, const CameraInParam& camera) {
    PointImage frame;
    frame.ini(inverse.width, inverse.height, camera, 1, Vector2f::Zero());
    for (int y = 0; y < inverse.height; ++y) {
        for (int x = 0; x < inverse.width; ++x) {
            if (inverse.at(x, y) <= 0.0f) continue;
            Vector3f point;
            camera.depth_to_point(1.0f / inverse.at(x, y), Vector2f(static_cast<float>(x), static_cast<float>(y)),
                                  point);
            frame.set_point(x, y, point);
        }
    }
    return frame;
}

float middle_depth(const PointImage& frame) {
    std::vector<float> depths;
    for (std::size_t i = 0; i < frame.get_vn(); i += 7) {
        if (frame.has_point(i)) depths.push_back(frame.get_vCoord(i).z());
    }
    if (depths.empty()) return 0.0f;
    const auto middle = depths.begin() + static_cast<std::ptrdiff_t>(depths.size() / 2);
    std::nth_element(depths.begin(), middle, depths.end());
    return *middle;
}

float step_at(float depth, const DepthFrameSettings& settings) {
    return settings.inverseDepthStep * depth * depth;
}

/// How far neighbours in the window of a surface that is turned by 70 degrees lie apart, at the frame's middle depth.
float normal_distance_limit(float depth, const CameraInParam& camera, const DepthFrameSettings& settings) {
    const float pixel = depth / static_cast<float>(std::min(camera.get_fx(), camera.get_fy()));
    return 3.0f * static_cast<float>(settings.normalWindow) * pixel + 2.0f * step_at(depth, settings);
}

void set_weights(PointImage& frame) {
    frame.enable_vWeight();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const Vector3f& point = frame.get_vCoord(i);
        const float cosine = std::abs(frame.get_vNrv(i).dot(point)) / point.norm();
        const float nearness = referenceDepth / point.z();
        frame.set_vWeight(i, cosine * nearness * nearness);
    }
}

}  // namespace

PointImage depth_frame_to_point_image(const DepthImage& depth, const CameraInParam& camera,
                                      const DepthFrameSettings& settings, int threads) {
    InverseDepth inverse = inverse_depth_in_range(depth, settings);
    if (settings.edgeMargin > 0) inverse = without_edges(inverse, settings, threads);
    if (settings.smoothingRadius > 0) inverse = smoothed(inverse, settings, threads);

    PointImage frame = back_projected(inverse, camera);
    frame.enable_vFlag();
    const float typicalDepth = middle_depth(frame);
    if (settings.smallestIsland > 0) {
        const float jump = settings.edgeJump * step_at(typicalDepth, settings);
        frame.delete_island_through_depth(1, jump, settings.smallestIsland, Vector3f::Zero());
    }
    const float limit = normal_distance_limit(typicalDepth, camera, settings);
    frame.update_VNrv(settings.normalStep, settings.normalWindow, limit);
    frame.delete_point_without_normal();
    set_weights(frame);
    return frame;
}

}  // namespace VexelAlgorithm
