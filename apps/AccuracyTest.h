// Artefacts measured by a virtual rig and the library's reconstruction.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "apps/ScanSettings.h"
#include "apps/artefacts.h"
#include "recording/Outcome.h"
#include "simulation/StereoRig.h"

namespace VexelAlgorithm::Apps {

/// Deviations from the fitted surface, mm, over the pixels of the evaluated region; NaN where there is no point, and
/// infinite for points that are left out.
struct DeviationMap {
    int width = 0;
    int height = 0;
    std::vector<float> deviations;
};

/// Lengths in mm. Not a number where the points determined no surface.
struct ArtefactMeasurement {
    Artefact artefact;
    std::size_t slots = 0;    ///< pixels of the result that see the evaluated region
    std::size_t points = 0;   ///< of these, where there is a point
    std::size_t leftOut = 0;  ///< of these, not evaluated
    double formError = 0.0;   ///< range of the deviations from the fitted surface; the larger one of both balls
    double rms = 0.0;         ///< of the deviations
    double sizeError =
        0.0;  ///< diameter minus the true one, or distance of the centres minus the true one; 0 for planes
    DeviationMap map;

    bool is_evaluated() const { return formError == formError; }
};

struct AccuracySettings {
    Simulation::StereoRig rig;
    ScanSettings scan;       ///< `rig.depthRange` and windows; the calibration is the rig's
    double leftOut = 0.003;  ///< share of the points of a surface
};

/// Takes a pair of every artefact, reconstructs it and fits. The same for the same settings.
class AccuracyTest {
public:
    /// Refused with one sentence when the rig or the settings cannot be used.
    static Outcome<AccuracyTest> prepare(const AccuracySettings& settings, int threads);
    AccuracyTest(AccuracyTest&&) noexcept;
    AccuracyTest& operator=(AccuracyTest&&) noexcept;
    ~AccuracyTest();

    /// `number` chooses the noise.
    Outcome<ArtefactMeasurement> measure(const Artefact& artefact, std::uint64_t number) const;

private:
    struct State;
    explicit AccuracyTest(std::unique_ptr<State> state);
    std::unique_ptr<State> _state;
};

}  // namespace VexelAlgorithm::Apps
