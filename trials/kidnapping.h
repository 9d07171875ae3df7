// A scanner that is carried away in the dark: does the session find out where it is, and never believe what is wrong?
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulation/Sequence.h"

namespace VexelTrial {

/// A virtual scan of which the session sees the first frames, and is then carried off to other places.
struct KidnapScene {
    std::string name;
    VexelAlgorithm::Simulation::Sequence sequence;
    int scanned = 0;  ///< frames, from the first on
};

/// A scene that `make_scene` knows, or "tower", which is the same from four sides, scanned along an arc in steps of 3.6
/// degrees: 100 of them are a full turn. Images are 160 pixels wide for a `scale` of 1.
KidnapScene scene_on_arc(const std::string& name, int frames, int scanned, int scale = 1, double noise = 0.1);

constexpr int KIDNAP_FRAMES = 5;

struct KidnapTally {
    int trials = 0;
    int found = 0;                  ///< accepted at the right pose within `KIDNAP_FRAMES`
    int foundByTracking = 0;        ///< of them, those that tracking had not lost
    int wrong = 0;                  ///< recovered at a pose off the truth by more than 2 mm or 1 degree
    int wrongByTracking = 0;        ///< tracked to such a pose
    int frames = 0;                 ///< that were given until something was accepted
    double worstMillimetres = 0.0;  ///< of right poses
    double worstDegrees = 0.0;
    double milliseconds = 0.0;  ///< of all steps, on the clock
};

/// Fuses the scanned frames at their true poses, then carries the scanner off `trials` times: to views near random
/// frames in [first, last), some centimetres and degrees beside the path, from where it moves on as the sequence does.
/// The same for the same seed. Where the views are those of another scene, `elsewhere`, whatever is accepted is wrong.
KidnapTally kidnap(const KidnapScene& scene, int trials, int first, int last, std::uint64_t seed,
                   const KidnapScene* elsewhere = nullptr);

}  // namespace VexelTrial
