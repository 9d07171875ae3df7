#include "bench/sessionData.h"

#include <cmath>
#include <numeric>
#include <utility>

#include "bench/scenes.h"
#include "foundation/parallel.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

ScanSequence empty_sequence(const char* preset, ImageSize size, const CameraInParam& camera) {
    ScanSequence sequence;
    sequence.settings = Apps::preset_settings(preset);
    sequence.settings.common.imageSize = {size.width, size.height};
    sequence.settings.common.campar = camera;
    return sequence;
}

std::optional<ScanSequence> read_office(ImageSize size) {
    const std::optional<OfficeRecording> recording = OfficeRecording::open(size);
    if (!recording) return std::nullopt;
    ScanSequence office = empty_sequence("room", size, recording->camera());
    for (const RecordedFrame& recorded : recording->frames(0, 59)) {
        std::optional<DepthImage> depth = recording->depth(recorded);
        if (!depth) return std::nullopt;
        ScanFrame scanned;
        scanned.frame =
            depth_frame_to_point_image(*depth, recording->camera(), office.settings.frame, default_thread_number());
        scanned.depth = std::move(*depth);
        scanned.cameraToWorld = *recorded.cameraToWorld;
        office.frames.push_back(std::move(scanned));
    }
    if (office.frames.empty()) return std::nullopt;
    return office;
}

/// Views of the demo object from steps around it, one for each seed of the noise.
ScanSequence render_object(ImageSize size, const std::vector<std::size_t>& steps) {
    const ObjectWalk walk(size);
    ScanSequence rendered = empty_sequence("object", size, walk.camera());
    for (std::size_t seed = 0; seed < steps.size(); ++seed) {
        rendered.frames.push_back({walk.view(steps[seed], seed), {}, walk.poses()[steps[seed]]});
    }
    return rendered;
}

}  // namespace

const ScanSequence* office_scan(ImageSize size) {
    static MadeBySize<ScanSequence> kept;
    return kept.get(size, read_office);
}

const ScanSequence* rendered_scan(ImageSize size) {
    static MadeBySize<ScanSequence> kept;
    std::vector<std::size_t> steps(40);
    std::iota(steps.begin(), steps.end(), std::size_t{0});
    return kept.get(size, [&](ImageSize wanted) { return render_object(wanted, steps); });
}

const ScanSequence* still_scan(ImageSize size) {
    static MadeBySize<ScanSequence> kept;
    return kept.get(size, [](ImageSize wanted) { return render_object(wanted, std::vector<std::size_t>(8, 0)); });
}

double trajectory_error(const ScanSequence& sequence, const std::vector<RigidMatrix>& cameraToFirst) {
    const RigidMatrix worldToFirst = sequence.frames.front().cameraToWorld.inverse();
    double sum = 0.0;
    for (std::size_t i = 0; i < cameraToFirst.size(); ++i) {
        const RigidMatrix truth = worldToFirst * sequence.frames[i].cameraToWorld;
        sum += (cameraToFirst[i].get_translation() - truth.get_translation()).squaredNorm();
    }
    return cameraToFirst.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(cameraToFirst.size()));
}

}  // namespace VexelBench
