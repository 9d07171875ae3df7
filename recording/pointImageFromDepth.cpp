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

    const float& at(int x, int y) const { return values[static_cast<std::size_t>(y) * width + x]; }
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
        const float z = depth.millimetres[i];
        const bool isUsable = DepthImage::is_value(z) && z >= settings.nearest && z <= settings.farthest;
        if (isUsable) inverse.values[i] = 1.0f / z;
    }
    return inverse;
}

/// One step of the camera near this inverse depth, as a difference of inverse depths.
float inverse_step(float inverse, const DepthFrameSettings& settings) {
    return std::max(settings.inverseDepthStep, settings.smallestStep * inverse * inverse);
}

/// Whether a pixel at most `edgeMargin` away along its row or column lies on another surface: its depth
/// differs by more than noise can make it, and by more than a surface turned by 75 degrees does.
bool is_near_edge(const InverseDepth& inverse, int x, int y, float focalLength, const DepthFrameSettings& settings) {
    constexpr float steepestSlope = 3.7f;
    const float own = inverse.at(x, y);
    const float noise = settings.edgeJump * inverse_step(own, settings);
    const float slopePerPixel = steepestSlope * own / focalLength;
    const auto jumps_to = [&](int otherX, int otherY, int offset) {
        if (!inverse.contains(otherX, otherY)) return false;
        const float other = inverse.at(otherX, otherY);
        const float limit = std::max(noise, slopePerPixel * static_cast<float>(offset));
        return other > 0.0f && std::abs(other - own) > limit;
    };
    for (int offset = 1; offset <= settings.edgeMargin; ++offset) {
        if (jumps_to(x - offset, y, offset) || jumps_to(x + offset, y, offset)) return true;
        if (jumps_to(x, y - offset, offset) || jumps_to(x, y + offset, offset)) return true;
    }
    return false;
}

InverseDepth without_edges(const InverseDepth& inverse, float focalLength, const DepthFrameSettings& settings,
                           int threads) {
    return for_each_pixel(inverse, threads, [&](int x, int y) {
        return is_near_edge(inverse, x, y, focalLength, settings) ? 0.0f : inverse.at(x, y);
    });
}

/// A copy with a rim of pixels without value, so that windows need no bounds.
InverseDepth with_rim(const InverseDepth& inverse, int rim) {
    InverseDepth padded{inverse.width + 2 * rim, inverse.height + 2 * rim, {}};
    padded.values.assign(static_cast<std::size_t>(padded.width) * padded.height, 0.0f);
    for (int y = 0; y < inverse.height; ++y) {
        const float* row = &inverse.values[static_cast<std::size_t>(y) * inverse.width];
        std::copy(row, row + inverse.width, &padded.at(rim, y + rim));
    }
    return padded;
}

/// Two opposite neighbours, at +-(dx, dy) pixels, and their weight for being that far away.
struct NeighbourPair {
    int dx, dy;
    float weight;
};

std::vector<NeighbourPair> neighbour_pairs(int radius) {
    const float scale = std::max(1.0f, 0.5f * static_cast<float>(radius));
    std::vector<NeighbourPair> pairs;
    for (int dy = 0; dy <= radius; ++dy) {
        for (int dx = dy == 0 ? 1 : -radius; dx <= radius; ++dx) {
            const float squaredDistance = static_cast<float>(dx * dx + dy * dy);
            pairs.push_back({dx, dy, std::exp(-squaredDistance / (2.0f * scale * scale))});
        }
    }
    return pairs;
}

/// Adds one pair's part to the sums of a whole row; plain arrays, which compilers vectorise. The range kernel
/// (1 - r^2)^2 ends at r = 1; a neighbour without value has inverse depth 0 and lies far beyond.
void add_pair(float pairWeight, const float* own, const float* one, const float* other, const float* inverseReach,
              int count, float* weightSum, float* differenceSum) {
    for (int x = 0; x < count; ++x) {
        const float difference = 0.5f * (one[x] + other[x]) - own[x];
        const float ratio = difference * inverseReach[x];
        const float rest = std::max(0.0f, 1.0f - ratio * ratio);
        const float weight = pairWeight * rest * rest;
        weightSum[x] += weight;
        differenceSum[x] += weight * difference;
    }
}

InverseDepth smoothed(const InverseDepth& inverse, const DepthFrameSettings& settings, int threads) {
    const int radius = settings.smoothingRadius;
    const std::vector<NeighbourPair> pairs = neighbour_pairs(radius);
    const InverseDepth padded = with_rim(inverse, radius);
    InverseDepth result = inverse;
    const auto smooth_row = [&](int y) {
        const std::size_t width = static_cast<std::size_t>(inverse.width);
        float* own = &result.at(0, y);
        std::vector<float> inverseReach(width), weightSum(width, 0.5f), differenceSum(width, 0.0f);
        for (std::size_t x = 0; x < width; ++x) inverseReach[x] = 1.0f / (4.0f * inverse_step(own[x], settings));
        const float* centre = &padded.at(radius, y + radius);
        for (const NeighbourPair& pair : pairs) {
            const std::ptrdiff_t offset = static_cast<std::ptrdiff_t>(pair.dy) * padded.width + pair.dx;
            add_pair(pair.weight, own, centre - offset, centre + offset, inverseReach.data(), inverse.width,
                     weightSum.data(), differenceSum.data());
        }
        for (std::size_t x = 0; x < width; ++x) {
            if (own[x] > 0.0f) own[x] += differenceSum[x] / weightSum[x];
        }
    };
    parallel_ranges(threads, static_cast<std::size_t>(inverse.height), rowGrain,
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t y = begin; y < end; ++y) smooth_row(static_cast<int>(y));
                    });
    return result;
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

/// How far neighbours in the window of a surface that is turned by 70 degrees lie apart, at the frame's middle depth.
float normal_distance_limit(float depth, float focalLength, const DepthFrameSettings& settings) {
    const float pixel = depth / focalLength;
    return 3.0f * static_cast<float>(settings.normalWindow) * pixel + 2.0f * depth_step(depth, settings);
}

void set_weights(PointImage& frame) {
    frame.enable_vWeight();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (frame.has_point(i)) frame.set_vWeight(i, referenceDepth / frame.get_vCoord(i).z());
    }
}

}  // namespace

float depth_step(float depth, const DepthFrameSettings& settings) {
    return depth > 0.0f ? inverse_step(1.0f / depth, settings) * depth * depth : 0.0f;
}

PointImage depth_frame_to_point_image(const DepthImage& depth, const CameraInParam& camera,
                                      const DepthFrameSettings& wanted, int threads) {
    DepthFrameSettings settings = wanted;
    settings.smallestStep = static_cast<float>(depth.step);
    InverseDepth inverse = inverse_depth_in_range(depth, settings);
    const float focalLength = static_cast<float>(std::min(camera.get_fx(), camera.get_fy()));
    if (settings.edgeMargin > 0) inverse = without_edges(inverse, focalLength, settings, threads);
    if (settings.smoothingRadius > 0) inverse = smoothed(inverse, settings, threads);

    PointImage frame = back_projected(inverse, camera);
    frame.enable_vFlag();
    const float typicalDepth = middle_depth(frame);
    if (settings.smallestIsland > 0) {
        const float jump = settings.edgeJump * depth_step(typicalDepth, settings);
        frame.delete_island_through_depth(1, jump, settings.smallestIsland, Vector3f::Zero());
    }
    const float limit = normal_distance_limit(typicalDepth, focalLength, settings);
    frame.update_VNrv(settings.normalStep, settings.normalWindow, limit);
    frame.delete_point_without_normal();
    set_weights(frame);
    return frame;
}

PointImage every_sample_th(PointImage frame, int sample) {
    if (sample <= 1) return frame;
    PointImage coarse;
    coarse.ini(frame.get_image_width() / sample, frame.get_image_height() / sample,
               frame.get_camPar().scaled_down(sample), sample, Vector2f::Zero());
    coarse.enable_vNormal();
    coarse.enable_vWeight();
    coarse.enable_vFlag();
    for (int y = 0; y < coarse.get_image_height(); ++y) {
        for (int x = 0; x < coarse.get_image_width(); ++x) {
            const std::size_t from = frame.index_of(x * sample, y * sample);
            coarse.set_point(x, y, frame.get_vCoord(from));
            coarse.set_normal(x, y, frame.get_vNrv(from));
            coarse.set_vWeight(coarse.index_of(x, y), frame.get_vWeight(from));
        }
    }
    return coarse;
}

}  // namespace VexelAlgorithm
