#include "platform/featureRegistration.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "platform/poseConsensus.h"
#include "platform/sampledCloud.h"
#include "platform/surfaceAlignment.h"
#include "platform/surfaceFeatures.h"

namespace VexelAlgorithm {
namespace {

constexpr float LARGEST_RADIUS = 64.0F;  // spacings
constexpr float FINEST_SPACING = 1e-3F;  // mm
constexpr float COARSEST_SPACING = 1e5F;
constexpr int MOST_CANDIDATES = 16;
constexpr std::size_t LEAST_SAMPLES = 50;

// Lengths in spacings.
constexpr float MATCH_TOLERANCE = 4.0F;
constexpr float COARSE_GATE = 4.0F;
constexpr float FINE_GATE = 2.0F;
constexpr float CONTACT_GATE = 1.2F;
constexpr std::size_t COARSE_SAMPLES = 1000;
constexpr int COARSE_ITERATIONS = 8;
constexpr std::size_t FINE_SAMPLES = 3000;
constexpr int FINE_ITERATIONS = 30;
constexpr std::size_t MOST_ALIGNMENTS = 4;
constexpr double SAME_ANGLE = 0.1;  // radians
constexpr double SAME_POSITION = 4.0;
constexpr float AMBIGUOUS = 0.95F;  // share of the best pose's samples that another one has too

// Right poses of virtual and recorded scenes pass all of these. Most wrong ones fail at least one by far: residuals
// from 0.45 spacings on, agreements below 0.15, or less than 1 sample as evidence.
constexpr float LEAST_OVERLAP = 0.3F;
constexpr float LEAST_AGREEING = 0.17F;  // of the features within the overlap
constexpr int LEAST_MATCHES = 10;
// Where nearly all of a cloud meets the other, and nothing can slide, few matches will do.
constexpr float WHOLE_OVERLAP = 0.9F;
constexpr double WHOLE_EVIDENCE = 50.0;
constexpr double LARGEST_RESIDUAL = 0.4;  // spacings
constexpr double LEAST_EVIDENCE = 5.0;    // samples

struct FeatureRegistrationSettings {
    float normalRadius;
    float frameRadius;
    float descriptorRadius;
    float spacing;
    int candidates;

    bool is_usable() const {
        const auto isRadius = [](float radius) { return radius >= 1.0F && radius <= LARGEST_RADIUS; };
        return isRadius(normalRadius) && isRadius(frameRadius) && isRadius(descriptorRadius) &&
               spacing >= FINEST_SPACING && spacing <= COARSEST_SPACING && candidates >= 1 &&
               candidates <= MOST_CANDIDATES;
    }
};

/// A cloud as the registration sees it.
struct DescribedCloud {
    SampledCloud samples;
    SurfaceFeatures features;
};

struct FeatureRegistration {
    FeatureRegistrationSettings settings;
    std::optional<DescribedCloud> ref;
    std::optional<DescribedCloud> obj;
};

struct Alignment {
    RigidMatrix objToRef;  ///< in coordinates of the samples
    SurfaceContact contact;
    int agreeing = 0;
};

constexpr ExportedFunction feature_function(std::string_view name) {
    return {name, {"can not run function ", name, " because the feature registration = NULL"}};
}

RetVal set_cloud(const FeatureRegistrationSettings& settings, const char* function, const Cloud& cloud,
                 std::optional<DescribedCloud>& described) {
    const auto refuse = [&](const char* reason) {
        print_line(std::string(function) + " failed: " + reason);
        return RET_INPUT_ERROR;
    };
    if (!cloud.is_legal()) return refuse("the cloud is not legal");
    DescribedCloud result;
    const SamplingSettings sampling{settings.spacing, settings.normalRadius * settings.spacing};
    if (!sample_uniformly(cloud, sampling, result.samples)) return refuse("the cloud has too many samples");
    if (result.samples.size() < LEAST_SAMPLES) return refuse("the cloud has too few samples");
    result.features = describe_surface(result.samples, {settings.spacing, settings.frameRadius * settings.spacing,
                                                        settings.descriptorRadius * settings.spacing});
    described = std::move(result);
    return RET_SUCCESS;
}

/// A pose on which many matches agree and in which the surfaces meet over a large area. Either alone misleads: planes
/// slide on each other at no loss of area, and small repeated shapes agree among themselves.
std::int64_t support(const Alignment& alignment) {
    return std::int64_t{alignment.agreeing} * alignment.contact.samples;
}

std::size_t stride_for(const DescribedCloud& cloud, std::size_t samples) {
    return (cloud.samples.size() + samples - 1) / samples;
}

/// Whether two poses are one, up to what an alignment still moves.
bool is_same_pose(const RigidMatrix& a, const RigidMatrix& b, float spacing) {
    const RigidMatrix difference = a.inverse() * b;
    return rotation_angle(difference) < SAME_ANGLE && difference.get_translation().norm() < SAME_POSITION * spacing;
}

/// Roughly aligned, and of those that arrive at one pose the one with most support; at most `MOST_ALIGNMENTS`, best
/// first.
std::vector<Alignment> coarse_alignments(const DescribedCloud& ref, const DescribedCloud& obj,
                                         const std::vector<PoseHypothesis>& poses, float spacing) {
    AlignmentSettings coarse{COARSE_GATE * spacing, FINE_GATE * spacing, COARSE_ITERATIONS};
    coarse.stride = stride_for(obj, COARSE_SAMPLES);
    std::vector<Alignment> candidates(poses.size());
    parallel_ranges(default_thread_number(), poses.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            candidates[i] = {poses[i].objToRef, {}, poses[i].agreeing};
            candidates[i].contact = align_surfaces(ref.samples, obj.samples, coarse, candidates[i].objToRef);
        }
    });
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Alignment& a, const Alignment& b) { return support(a) > support(b); });
    std::vector<Alignment> distinct;
    for (const Alignment& candidate : candidates) {
        const bool isKnown = std::any_of(distinct.begin(), distinct.end(), [&](const Alignment& known) {
            return is_same_pose(known.objToRef, candidate.objToRef, spacing);
        });
        if (!isKnown && distinct.size() < MOST_ALIGNMENTS) distinct.push_back(candidate);
    }
    return distinct;
}

void align_finely(const DescribedCloud& ref, const DescribedCloud& obj, float spacing,
                  std::vector<Alignment>& alignments) {
    AlignmentSettings fine{FINE_GATE * spacing, CONTACT_GATE * spacing, FINE_ITERATIONS};
    fine.stride = stride_for(obj, FINE_SAMPLES);
    const AlignmentSettings judged{CONTACT_GATE * spacing, CONTACT_GATE * spacing, 0};
    parallel_ranges(default_thread_number(), alignments.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            align_surfaces(ref.samples, obj.samples, fine, alignments[i].objToRef);
            alignments[i].contact = align_surfaces(ref.samples, obj.samples, judged, alignments[i].objToRef);
        }
    });
}

RigidMatrix in_cloud_coordinates(const RigidMatrix& objToRef, const SampledCloud& ref, const SampledCloud& obj) {
    const Matrix3d& rotation = objToRef.get_rotation();
    return {rotation, objToRef.get_translation() + ref.centroid - rotation * obj.centroid};
}

float overlap_of(const Alignment& alignment, const DescribedCloud& ref, const DescribedCloud& obj) {
    const std::size_t smaller = std::min(ref.samples.size(), obj.samples.size());
    return std::min(1.0F, static_cast<float>(alignment.contact.samples) / static_cast<float>(smaller));
}

/// Enough matches and enough surface agree, closely, and together leave no motion free.
bool is_convincing(const Alignment& alignment, const DescribedCloud& ref, const DescribedCloud& obj, float spacing) {
    const float overlap = overlap_of(alignment, ref, obj);
    const auto features = static_cast<float>(std::min(ref.features.size(), obj.features.size()));
    const bool isWhole = overlap >= WHOLE_OVERLAP && alignment.contact.evidence >= WHOLE_EVIDENCE;
    const float agreeing = isWhole ? 0.0F : LEAST_AGREEING * overlap * features;
    return overlap >= LEAST_OVERLAP && static_cast<float>(alignment.agreeing) >= agreeing &&
           alignment.agreeing >= LEAST_MATCHES && alignment.contact.residual <= LARGEST_RESIDUAL * spacing &&
           alignment.contact.evidence >= LEAST_EVIDENCE;
}

/// A symmetric object, or too small a part of one, fits as well in another pose.
bool is_ambiguous(const Alignment& best, const std::vector<Alignment>& alignments, float spacing) {
    return std::any_of(alignments.begin(), alignments.end(), [&](const Alignment& other) {
        return static_cast<float>(other.contact.samples) > AMBIGUOUS * static_cast<float>(best.contact.samples) &&
               !is_same_pose(best.objToRef, other.objToRef, spacing);
    });
}

RetVal register_clouds(const FeatureRegistration& registration, RigidMatrix& objToRef, FeatureAlignment& quality) {
    if (!registration.ref || !registration.obj) {
        print_line("pair_lrf_cue_compute_registration failed: a cloud is not set");
        return RET_STATE_ERROR;
    }
    const DescribedCloud& ref = *registration.ref;
    const DescribedCloud& obj = *registration.obj;
    const float spacing = registration.settings.spacing;

    const std::vector<FeatureMatch> matches =
        match_features(ref.features, obj.features, registration.settings.candidates);
    ConsensusSettings consensus;
    consensus.positionTolerance = MATCH_TOLERANCE * spacing;
    const std::vector<PoseHypothesis> poses = agreed_poses(ref.features, obj.features, matches, consensus);
    std::vector<Alignment> alignments = coarse_alignments(ref, obj, poses, spacing);
    align_finely(ref, obj, spacing, alignments);
    alignments.erase(std::remove_if(alignments.begin(), alignments.end(),
                                    [&](const Alignment& a) { return !is_convincing(a, ref, obj, spacing); }),
                     alignments.end());
    if (alignments.empty()) {
        print_line("pair_lrf_cue_compute_registration failed: no pose is supported by enough of both clouds");
        return RET_NOT_CONVERGED;
    }
    const Alignment best =
        *std::max_element(alignments.begin(), alignments.end(),
                          [](const Alignment& a, const Alignment& b) { return a.contact.samples < b.contact.samples; });
    if (is_ambiguous(best, alignments, spacing)) {
        print_line("pair_lrf_cue_compute_registration failed: the clouds fit in more than one pose");
        return RET_NOT_CONVERGED;
    }
    objToRef = in_cloud_coordinates(best.objToRef, ref.samples, obj.samples);
    quality = {overlap_of(best, ref, obj), static_cast<float>(best.contact.residual), best.contact.samples,
               best.agreeing};
    return RET_SUCCESS;
}

}  // namespace

void* pair_lrf_cue_create_implementaion(float normalRadius, float frameRadius, float descriptorRadius, float spacing,
                                        int candidates) noexcept {
    return guarded<void*>("pair_lrf_cue_create_implementaion", nullptr, [&]() -> void* {
        const FeatureRegistrationSettings settings{normalRadius, frameRadius, descriptorRadius, spacing, candidates};
        if (!settings.is_usable()) {
            print_line("pair_lrf_cue_create_implementaion failed: a setting is out of its range");
            return nullptr;
        }
        return std::make_unique<FeatureRegistration>(FeatureRegistration{settings, {}, {}}).release();
    });
}

RetVal pair_lrf_cue_set_ref_cloud(void* handle, const Cloud& cloud) noexcept {
    return on_handle<FeatureRegistration, RetVal>(
        handle, feature_function("pair_lrf_cue_set_ref_cloud"), {RET_INI_ERROR, RET_RUN_FAIL},
        [&](FeatureRegistration& registration) {
            return set_cloud(registration.settings, "pair_lrf_cue_set_ref_cloud", cloud, registration.ref);
        });
}

RetVal pair_lrf_cue_set_obj_cloud(void* handle, const Cloud& cloud) noexcept {
    return on_handle<FeatureRegistration, RetVal>(
        handle, feature_function("pair_lrf_cue_set_obj_cloud"), {RET_INI_ERROR, RET_RUN_FAIL},
        [&](FeatureRegistration& registration) {
            return set_cloud(registration.settings, "pair_lrf_cue_set_obj_cloud", cloud, registration.obj);
        });
}

RetVal pair_lrf_cue_compute_registration(void* handle, RigidMatrix& objToRef, FeatureAlignment& alignment) noexcept {
    return on_handle<FeatureRegistration, RetVal>(
        handle, feature_function("pair_lrf_cue_compute_registration"), {RET_INI_ERROR, RET_RUN_FAIL},
        [&](FeatureRegistration& registration) { return register_clouds(registration, objToRef, alignment); });
}

RetVal pair_lrf_cue_release_implementation(void*& handle) noexcept {
    return release_handle<FeatureRegistration>(handle, feature_function("pair_lrf_cue_release_implementation"),
                                               RET_INI_ERROR);
}

}  // namespace VexelAlgorithm
