#include "platform/featureRegistration.h"

#include <cmath>
#include <memory>
#include <string_view>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"

namespace VexelAlgorithm {
namespace {

constexpr float LARGEST_RADIUS = 64.0F;
constexpr int MOST_CANDIDATES = 16;

struct FeatureRegistrationSettings {
    float normalRadius;
    float frameRadius;
    float descriptorRadius;
    float spacing;
    int candidates;

    bool is_usable() const {
        const auto isRadius = [](float radius) { return radius > 0.0F && radius <= LARGEST_RADIUS; };
        return isRadius(normalRadius) && isRadius(frameRadius) && isRadius(descriptorRadius) &&
               std::isfinite(spacing) && spacing > 0.0F && candidates >= 1 && candidates <= MOST_CANDIDATES;
    }
};

struct FeatureRegistration {
    FeatureRegistrationSettings settings;
};

constexpr ExportedFunction feature_function(std::string_view name) {
    return {name, {"can not run function ", name, " because the feature registration = NULL"}};
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
        return std::make_unique<FeatureRegistration>(FeatureRegistration{settings}).release();
    });
}

RetVal pair_lrf_cue_release_implementation(void*& handle) noexcept {
    return release_handle<FeatureRegistration>(handle, feature_function("pair_lrf_cue_release_implementation"),
                                               RET_INI_ERROR);
}

}  // namespace VexelAlgorithm
