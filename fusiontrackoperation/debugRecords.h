// What debug recording keeps of a session.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "foundation/TrackParmeter.h"
#include "fusiontrackoperation/FusionScanState.h"
#include "fusiontrackoperation/TextureSetup.h"

namespace VexelAlgorithm {

/// The records from which the session was made, as the application gave them.
struct SessionStart {
    CommonParameter common;
    TrackParmeter track;
    FusionParameter fusion;
    std::optional<TextureSetup> texture;
    std::int32_t acceptedFrames = 0;  ///< more than none: the recording began in the middle of a scan
};

/// A frame without its empty slots. A slot is empty when all its attributes have the bits of zero, so nothing is lost.
struct PackedFrame {
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::int32_t sample = 1;
    Vector2f viewRadial = Vector2f::Zero();
    CameraInParam camera;
    RigidMatrix rt;
    bool isLegal = true;  ///< false: attributes of different length; then nothing else of the frame was kept
    bool hasNormals = false;
    bool hasColors = false;
    bool hasFlags = false;
    bool hasWeights = false;
    std::vector<std::int32_t> slots;  ///< ascending; the arrays of the attributes follow them
    std::vector<Vector3f> points;
    std::vector<Vector3f> normals;
    std::vector<Vector3f> colors;
    std::vector<std::uint8_t> flags;
    std::vector<float> weights;

    /// Slots of the whole image.
    std::int64_t slot_count() const { return std::int64_t{width} * height; }
    /// Takes memory for every slot of the image, whatever the bytes of the file were.
    VEXEL_API PointImage unpacked() const;
};

/// What a frame comes with.
struct FrameArguments {
    bool fuseFlag = true;
    std::int32_t contribution = 0;
    std::int32_t frameTimeGap = -1;
    std::int32_t speedState = -1;
    RigidMatrix pose;  ///< of `fusion`
};
/// A frame is given to the session.
struct FrameCall {
    std::string function;  ///< fusion_and_track, track or fusion
    FrameArguments arguments;
    PackedFrame frame;
};

/// What came of the frame before.
struct FrameResult {
    FusionScanState state;
    RigidMatrix pose;  ///< the last accepted one, camera to model
    std::int32_t contribution = 0;
    std::int32_t speedState = -1;
};

/// A setting or the life of the session was changed by the exported function of that name.
struct SettingChange {
    std::string function;
    std::vector<double> values;  ///< its arguments in their order, one behind the other
};

/// An edit operation. Functions that edit hand one to `SessionRecorder::edit`.
struct EditRecord {
    struct Datas {
        std::vector<Vector3f> points;   ///< mm
        std::vector<std::int32_t> ids;  ///< of points, leaves or frames, as the operation has it
    };
    std::string name;  ///< of the exported function
    Datas datas;
    std::vector<RigidMatrix> rts;
};

/// The session was released.
struct SessionEnd {};

/// One record as a file has it.
struct DebugRecord {
    struct Entry {
        std::string name;
        std::uint64_t bytes = 0;
    };
    std::string property;
    std::string name;
    std::vector<Entry> entries;
    /// Without a state: a kind that this version does not know.
    std::variant<std::monostate, SessionStart, FrameCall, FrameResult, SettingChange, EditRecord, SessionEnd> content;
};

}  // namespace VexelAlgorithm
