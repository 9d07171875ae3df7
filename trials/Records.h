// The records from which a session is made.
#pragma once

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TrackParmeter.h"

namespace VexelTrial {

struct Records {
    VexelAlgorithm::CommonParameter common;
    VexelAlgorithm::TrackParmeter track;
    VexelAlgorithm::FusionParameter fusion;
};

}  // namespace VexelTrial
