#include "track/particleGrid.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "track/ParticleTrack.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

constexpr double FifteenDegrees = 0.2617994;  // rad

std::int64_t product(const Vector3i& counts) {
    return counts.cast<std::int64_t>().prod();
}

void add_grid(const Vector3i& counts, const Vector3d& sizes, const RigidMatrix& centre,
              std::vector<RigidMatrix>& particles) {
    const Vector3i half = counts / 2;
    for (int i = -half.x(); i <= half.x(); ++i) {
        for (int j = -half.y(); j <= half.y(); ++j) {
            for (int k = -half.z(); k <= half.z(); ++k) {
                const Vector3d offset = sizes.cwiseProduct(Vector3d(i, j, k));
                particles.emplace_back(centre.get_rotation(), centre.get_translation() + offset);
            }
        }
    }
}

void add_rotated(const Vector3d& sizes, std::vector<RigidMatrix>& particles) {
    for (int a = -1; a <= 1; ++a) {
        for (int b = -1; b <= 1; ++b) {
            for (const double angle : {-FifteenDegrees, FifteenDegrees}) {
                Matrix3d rotation;
                rodrigures(Vector3d(0.0, 0.0, angle), rotation);
                particles.emplace_back(rotation, Vector3d(a * sizes.x(), b * sizes.y(), 0.0));
            }
        }
    }
}

}  // namespace

Vector3i usable_particle_counts(const Vector3i& counts) {
    const auto odd = [](int count) { return (count & ~1) + 1; };
    const Vector3i wanted = counts.cwiseMax(0).cwiseMin(ParticleTrack::MaxParticlesPerAxis).unaryExpr(odd);
    Vector3i usable = wanted;
    while (product(usable) > ParticleTrack::MaxParticles) {
        Eigen::Index longest = 0;
        usable.maxCoeff(&longest);
        usable[longest] -= 2;
    }
    if (usable != wanted || counts.maxCoeff() > ParticleTrack::MaxParticlesPerAxis) {
        print_line(format_text("particle counts %d x %d x %d are too large, %d x %d x %d are used", counts.x(),
                               counts.y(), counts.z(), usable.x(), usable.y(), usable.z()));
    }
    return usable;
}

Vector3f usable_particle_sizes(const Vector3f& sizes) {
    return sizes.unaryExpr([](float size) { return std::isfinite(size) ? size : 0.0F; });
}

void ParticleTrack::generate_partical(const Vector3i& counts, const Vector3f& sizes,
                                      std::vector<RigidMatrix>& particles, const RigidMatrix& centre,
                                      bool withRotations) {
    guarded("generate_partical", [&] {
        const Vector3i usableCounts = usable_particle_counts(counts);
        const Vector3d usableSizes = usable_particle_sizes(sizes).cast<double>();
        const RigidMatrix gridCentre = centre;  // may be an element of the list
        particles.clear();
        particles.reserve(static_cast<std::size_t>(product(usableCounts)) + 18);
        add_grid(usableCounts, usableSizes, gridCentre, particles);
        if (withRotations) add_rotated(usableSizes, particles);
    });
}

std::vector<int> ParticleTrack::select_particles(const std::vector<float>& residuals) {
    return guarded<std::vector<int>>("select_particles", {}, [&] {
        constexpr double leastLead = 1e-5;
        const std::size_t keep = residuals.size() < 4 ? 1 : 4;
        double cut = std::numeric_limits<double>::infinity();  // where no element marks it, all are kept
        if (residuals.size() > keep) {
            std::vector<float> sorted = residuals;
            for (float& residual : sorted) residual = std::isnan(residual) ? FailedResidual : residual;
            const auto atCut = sorted.begin() + static_cast<std::ptrdiff_t>(keep);
            std::nth_element(sorted.begin(), atCut, sorted.end());
            cut = static_cast<double>(*atCut);
        }
        std::vector<int> kept;
        for (std::size_t i = 0; i < residuals.size(); ++i) {
            if (cut - static_cast<double>(residuals[i]) >= leastLead) kept.push_back(static_cast<int>(i));
        }
        return kept;
    });
}

}  // namespace Track
}  // namespace VexelAlgorithm
