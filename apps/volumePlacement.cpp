#include "apps/volumePlacement.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace VexelAlgorithm::Apps {
namespace {

constexpr std::size_t sampledFrames = 24;
constexpr int pixelStep = 8;
constexpr int smallestDepth = 10;
/// The scene between the sampled frames and pixels, the truncation band and the volume's own unused rim.
constexpr double relativeMargin = 1.1;
constexpr double marginVoxels = 32.0;

class Surveyor {
public:
    void add(const DepthImage& image, const CameraInParam& camera, const RigidMatrix& cameraToWorld,
             const DepthFrameSettings& settings) {
        ++_frames;
        for (int y = 0; y < image.height; y += pixelStep) {
            for (int x = 0; x < image.width; x += pixelStep) {
                const float z = image.millimetres[static_cast<std::size_t>(y) * image.width + x];
                if (!DepthImage::is_value(z) || z < settings.nearest || z > settings.farthest) continue;
                Vector3d point;
                camera.depth_to_point(static_cast<double>(z), Vector2d(x, y), point);
                const Vector3d world = cameraToWorld * point;
                _box.low = _box.low.cwiseMin(world);
                _box.high = _box.high.cwiseMax(world);
                _area += std::pow(static_cast<double>(pixelStep) * z, 2.0) / (camera.get_fx() * camera.get_fy());
                _depths.push_back(z);
            }
        }
    }

    bool empty() const { return _depths.empty(); }

    SceneSurvey result() {
        const auto place = _depths.begin() + static_cast<std::ptrdiff_t>(_depths.size() * 95 / 100);
        std::nth_element(_depths.begin(), place, _depths.end());
        return {_box, static_cast<float>(*place), _area / _frames};
    }

private:
    static constexpr double infinity = std::numeric_limits<double>::infinity();

    Box _box{Vector3d::Constant(infinity), Vector3d::Constant(-infinity)};
    std::vector<std::uint16_t> _depths;
    double _area = 0.0;
    int _frames = 0;
};

}  // namespace

Outcome<SceneSurvey> survey_scene(const Recording& recording, const std::vector<RecordedFrame>& frames,
                                  const DepthFrameSettings& settings) {
    Surveyor surveyor;
    const std::size_t samples = std::min(sampledFrames, frames.size());
    for (std::size_t i = 0; i < samples; ++i) {
        const std::size_t index = samples == 1 ? 0 : i * (frames.size() - 1) / (samples - 1);
        const Outcome<DepthImage> image = read_depth(frames[index]);
        if (!image) return image.failure();
        surveyor.add(*image, recording.camera(), *frames[index].cameraToWorld, settings);
    }
    if (surveyor.empty()) {
        return Failure{"the frames of " + recording.folder().string() +
                       " hold no usable depth; check that the images are in millimetres"};
    }
    return surveyor.result();
}

int choose_fusion_range(float farDepth, float voxel, const DepthFrameSettings& settings) {
    const float voxels = std::ceil(2.0f * depth_step(farDepth, settings) / voxel);
    return static_cast<int>(std::clamp(voxels, 5.0f, 15.0f)) | 1;
}

double least_memory_gib(const SceneSurvey& survey, float voxel, int range, std::size_t bytesPerVoxel) {
    const double voxels = survey.frameArea / (static_cast<double>(voxel) * voxel) * range;
    return voxels * static_cast<double>(bytesPerVoxel) / (1 << 30);
}

VolumePlacement place_volume(const Box& box, float voxel, int fixedDepth, int largestDepth) {
    const double wantedVoxels = relativeMargin * box.longest_side() / voxel + 2.0 * marginVoxels;
    const int fittingDepth = static_cast<int>(std::ceil(std::log2(wantedVoxels)));
    VolumePlacement placement;
    placement.treeDepth = fixedDepth > 0 ? fixedDepth : std::clamp(fittingDepth, smallestDepth, largestDepth);
    const double half = 0.5 * std::ldexp(static_cast<double>(voxel), placement.treeDepth);
    placement.shift = (box.centre() - Vector3d::Constant(half)).cast<float>();
    return placement;
}

}  // namespace VexelAlgorithm::Apps
