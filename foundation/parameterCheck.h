// Advice on parameter records, before they are given to a session.
#pragma once

#include <string>
#include <vector>

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TextureParam.h"
#include "foundation/TrackParmeter.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

/// One field that a scan cannot work with, or that will be replaced by a permitted value.
struct ParameterFinding {
    std::string field;   ///< as in the record, with the index in parentheses where one entry is meant
    std::string reason;  ///< one plain line with the value found
};

/// Each function lists what is wrong with its record, in the order of the fields; an empty list means nothing.
/// The check only advises: it prints nothing, and sessions and volumes go by their own rules, which clamp much
/// of this silently. Any number may stand in any field. Should memory run out, one line is printed and the
/// list is empty.
VEXEL_API std::vector<ParameterFinding> check_common_parameter(const CommonParameter& record) noexcept;
VEXEL_API std::vector<ParameterFinding> check_track_parmeter(const TrackParmeter& record) noexcept;
VEXEL_API std::vector<ParameterFinding> check_fusion_parameter(const FusionParameter& record) noexcept;
VEXEL_API std::vector<ParameterFinding> check_texture_param(const TextureParam& record) noexcept;

}  // namespace VexelAlgorithm
