// The records from which a session is made.
#pragma once

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TrackParmeter.h"

namespace VexelAlgorithm {

struct Records {
    CommonParameter common;
    TrackParmeter track;
    FusionParameter fusion;
};

}  // namespace VexelAlgorithm
