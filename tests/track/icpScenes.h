// Frames and settings for projective ICP.
#pragma once

#include "tests/common.h"
#include "tests/track/trackScenes.h"
#include "track/IcpBaseOnCam.h"

namespace VexelTest {

const RigidMatrix kSmallMotion = motion({0.01, -0.008, 0.015}, {0.8, -0.5, 1.1});

struct IcpSettings {
    int iterNum = 20;
    int iterNumFixed = 6;
    Vector2f icpDis{1.0F, 6.0F};
    float disAvgThread = 0.5F;
    Vector2f rata{0.15F, 0.3F};
    Vector2f corrRatio{0.8F, 0.95F};
    int threads = 2;
    std::string debugPath = "";

    Track::IcpBaseOnCam icp() const {
        return {iterNum, iterNumFixed, icpDis, disAvgThread, rata, debugPath, corrRatio, threads};
    }
};

struct IcpOutcome {
    RetVal code = RET_STATE_ERROR;
    RigidMatrix pose;
    std::string lines;
};

inline IcpOutcome run(Track::IcpBaseOnCam& icp, const PointImage& fixed, const PointImage& moving,
                      const RigidMatrix& initial = {}, bool acceptFar = false, const RigidMatrix& before = {}) {
    IcpOutcome outcome;
    outcome.pose = before;
    outcome.lines =
        printed([&] { outcome.code = icp.realTimeIcp(fixed, moving, outcome.pose, initial, 9, acceptFar); });
    return outcome;
}

}  // namespace VexelTest
