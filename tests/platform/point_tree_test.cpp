// The tree against a look at every point.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/pointTree.h"

namespace VexelAlgorithm {
namespace {

TEST(PointTree, AsEveryPointLookedAt) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-1.0f, 1.0f);
    const auto place = [&](float scaleZ) {
        return Vector3f(coordinate(random), coordinate(random), coordinate(random) * scaleZ);
    };
    for (const std::size_t count : {0, 1, 8, 9, 500}) {
        for (const float scaleZ : {1.0f, 0.0f}) {
            std::vector<Vector3f> points(count);
            for (Vector3f& point : points) point = place(scaleZ);
            for (std::size_t i = count / 2; i < count; i += 3) points[i] = points[0];
            const PointTree tree(points);
            for (int query = 0; query < 40; ++query) {
                const Vector3f at = place(scaleZ);
                const float reach = 0.02f + 0.05f * static_cast<float>(query % 10);
                std::multimap<std::size_t, float> expected, found;
                float least = reach * reach;
                for (std::size_t i = 0; i < count; ++i) {
                    const float squared = (points[i] - at).squaredNorm();
                    if (squared < reach * reach) expected.emplace(i, squared);
                    least = std::min(least, squared);
                }
                tree.for_each_within(at, reach, [&](std::size_t i, float squared) { found.emplace(i, squared); });
                EXPECT_EQ(found, expected);
                const std::size_t nearest = tree.nearest(at, reach);
                ASSERT_EQ(nearest == PointTree::NONE, expected.empty());
                EXPECT_TRUE(expected.empty() || (points[nearest] - at).squaredNorm() == least);
            }
        }
    }
}

}  // namespace
}  // namespace VexelAlgorithm
