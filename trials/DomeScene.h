// A tiny scene whose project has a few KB, for tests and for fuzzing.
#pragma once

#include "algorithmQorInclude.h"
#include "trials/Records.h"

namespace VexelTrial {

using namespace VexelAlgorithm;

/// A dome of 60 mm, seen with 44 x 44 pixels, in voxels of 20 mm.
struct DomeScene {
    DomeScene() {
        records.common.imageSize = {44, 44};
        records.common.campar = {210, 210, 21.5, 21.5};
        records.common.sample = 1;
        records.common.rawPointDis = 1.4F;
        records.fusion.pointDis = 20.0F;
        records.fusion.treeDepth = 10;
        records.fusion.fusionDataSize = {3, 1};
        records.fusion.codeNumSet = 1;
    }
    PointImage frame() const {
        PointImage image;
        image.ini(44, 44, records.common.campar, 1, Vector2f::Zero());
        image.enable_vNormal();
        image.enable_vWeight();
        image.enable_vFlag();
        for (int y = 0; y < 44; ++y)
            for (int x = 0; x < 44; ++x) {
                const float u = (static_cast<float>(x) - 21.5F) / 210.0F, v = (static_cast<float>(y) - 21.5F) / 210.0F;
                const float depth = 300.0F + 600.0F * (u * u + v * v);
                image.set_point(x, y, {u * depth, v * depth, depth});
                image.set_vWeight(image.index_of(x, y), 1.0F);
            }
        image.count_point_normal(1, 1, 2, 2, 20.0F);
        return image;
    }
    /// Two frames, the second a few millimetres aside; with display. False when the session does not take them.
    bool scan(void* session) const {
        int microseconds = 0;
        Matrix3d rotation;
        rodrigures(Vector3d(0.0, 0.02, 0.01), rotation);
        return fusion(session, frame(), {}, microseconds) &&
               fusion(session, frame(), {rotation, Vector3d(3.0, -2.0, 1.0)}, microseconds) &&
               get_show_data(session).get_vn() > 0;
    }

    Records records;
};

}  // namespace VexelTrial
