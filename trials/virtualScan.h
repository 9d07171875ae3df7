// Small scans of the virtual world with the records of a session for them, and judges of what comes out.
#pragma once

#include <cmath>
#include <numeric>
#include <vector>

#include "simulation/Sequence.h"
#include "trials/Records.h"

namespace VexelTrial {

using namespace VexelAlgorithm;

/// For frames of a sequence at 400 mm, 256 mm wide: voxels of one and a quarter pixels, one thread, so that results
/// repeat to the last bit.
inline Records records_for(const Simulation::Sequence& sequence) {
    Records records;
    records.common.imageSize = {sequence.width, sequence.height};
    records.common.campar = sequence.camera;
    records.common.sample = 1;
    records.common.rawPointDis = 256.0F / static_cast<float>(sequence.width);
    records.fusion.pointDis = 1.25F * records.common.rawPointDis;
    records.fusion.treeDepth = 10;
    records.fusion.codeNumSet = 1;
    return records;
}

/// Tracks as far as the particles' grid: a gate that is wider than the grid's step, and enough coarse iterations to
/// arrive from there.
inline void reach_far(TrackParmeter& track) {
    track.icpIterNum = 26;
    track.icpInterNumFixed = 12;
    track.icpDis = {1.0F, 15.0F};
    track.icpDisAvgThread = 0.3F;
}

/// A virtual scan of ideal depths, 1.6 mm from pixel to pixel, and the records of a session for it.
struct VirtualScan {
    explicit VirtualScan(const char* name, int width = 160, double noise = 0.0) {
        Simulation::SequenceSettings settings;
        settings.width = width;
        settings.height = width * 4 / 5;
        settings.noiseSigma = noise;
        sequence = *Simulation::make_sequence(name, settings);
        records = records_for(sequence);
    }
    PointImage frame(int i) const { return Simulation::frame_of(sequence, i); }
    /// Signed distances (mm) of points of the model from the true surface.
    std::vector<double> off_surface(const std::vector<Vector3f>& points) const {
        std::vector<double> distances;
        for (const Vector3f& p : points)
            distances.push_back(sequence.scene->distance(sequence.poses.front() * Vector3d(p.cast<double>())));
        return distances;
    }

    /// Mean over points of the model of 1 - cos of the angle to the true normal.
    double turn_of_normals(const Cloud& cloud) const {
        const RigidMatrix& modelToWorld = sequence.poses.front();
        double turns = 0.0;
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            const Vector3d point = modelToWorld * Vector3d(cloud.get_vCoord(i).cast<double>());
            const Vector3d normal = modelToWorld.transform_normal(cloud.get_vNrv(i)).cast<double>();
            turns += 1.0 - normal.dot(sequence.scene->gradient(point).normalized());
        }
        return turns / static_cast<double>(cloud.get_vn());
    }

    Simulation::Sequence sequence;
    Records records;
};

inline double mean_of(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}
inline double rms_of(const std::vector<double>& values) {
    const double squares = std::inner_product(values.begin(), values.end(), values.begin(), 0.0);
    return std::sqrt(squares / static_cast<double>(values.size()));
}

/// Millimetres and degrees between two poses.
inline Vector2d pose_error(const RigidMatrix& a, const RigidMatrix& b) {
    const RigidMatrix difference = a.inverse() * b;
    return {difference.get_translation().norm(), rotation_angle(difference) * 180.0 / std::acos(-1.0)};
}

}  // namespace VexelTrial
