// The names in debug recordings. They belong to the form of the files. Internal to the library.
#pragma once

#include <cstdint>
#include <string_view>

namespace VexelAlgorithm::DebugRecordNames {

inline constexpr std::string_view MAGIC = "TESTBUG";
inline constexpr std::int32_t VERSIONS[] = {1, 1, 0};

inline constexpr std::string_view FUSION_PROPERTY = "AccumalateFusionData";
inline constexpr std::string_view EDIT_PROPERTY = "AccumalateFusionEditData";

// Records of the fusion property. Those of changed settings and of edits bear the name of their function.
inline constexpr std::string_view START = "fusion_and_track_ini";
inline constexpr std::string_view STEPS[] = {"fusion_and_track", "track", "fusion"};
inline constexpr std::string_view RESULT = "result";
inline constexpr std::string_view END = "fusiontrack_release";

// Entries.
inline constexpr std::string_view COMMON_ENTRY = "CommonParameter";
inline constexpr std::string_view TRACK_ENTRY = "TrackParmeter";
inline constexpr std::string_view FUSION_ENTRY = "FusionParameter";
inline constexpr std::string_view TEXTURE_ENTRY = "TextureParam";
inline constexpr std::string_view ACCEPTED_ENTRY = "acceptedFrames";
inline constexpr std::string_view FRAME_ENTRY = "frame";
inline constexpr std::string_view ARGUMENTS_ENTRY = "arguments";
inline constexpr std::string_view STATE_ENTRY = "state";
inline constexpr std::string_view VALUES_ENTRY = "values";
inline constexpr std::string_view DATAS_ENTRY = "datas";
inline constexpr std::string_view POSES_ENTRY = "rts";

}  // namespace VexelAlgorithm::DebugRecordNames
