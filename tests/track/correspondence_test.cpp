// The mathematics of a registration step: plain form against geometry, vector form against the plain one.
#include "track/correspondence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "simulation/NoiseModel.h"
#include "tests/track/trackScenes.h"
#include "track/FixedImage.h"
#include "track/MovingPoints.h"
#include "track/correspondenceKernels.h"
#include "track/distanceRank.h"
#include "track/normalEquations.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Track;
using namespace VexelTest;

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();
const RigidMatrix Near = motion({0.01, -0.008, 0.015}, {0.8, -0.5, 1.1});

struct Pair {
    FixedImage fixed;
    MovingPoints moving;

    Pair(const PointImage& fixedImage, const PointImage& movingImage) {
        fixed.prepare(fixedImage, 2);
        moving.prepare(movingImage, 2);
    }
    Alignment aligned(const RigidMatrix& pose) const { return {fixed, moving.points(), FloatPose(pose)}; }
};

struct Found {
    std::vector<std::int32_t> fixedIndex, movingEntry, mode, pixel;
    std::vector<float> distance;
    SearchResult result;

    CorrespondenceArrays arrays() {
        return {fixedIndex.data(), movingEntry.data(), mode.data(), pixel.data(), distance.data()};
    }
};

Found find_all(const CorrespondenceKernels& kernels, const Alignment& alignment, const EntryRange& range, float gate) {
    Found found;
    const std::size_t size = range.count + CorrespondencePadding;
    for (auto* field : {&found.fixedIndex, &found.movingEntry, &found.mode, &found.pixel}) field->resize(size);
    found.distance.resize(size);
    found.result = kernels.find(alignment, range, gate, found.arrays());
    for (auto* field : {&found.fixedIndex, &found.movingEntry, &found.mode, &found.pixel}) {
        field->resize(found.result.found);
    }
    found.distance.resize(found.result.found);
    return found;
}

/// Two noisy views of the demo object with everything that may stand in a slot.
Pair spoilt_pair(const Vector2f& viewRadial, std::uint32_t seed) {
    Simulation::NoiseModel noise;
    noise.dropFraction = 0.05;
    const auto scene = Simulation::make_scene("owl_on_table");
    PointImage images[2] = {render_view(*scene, front_view(), 160, viewRadial),
                            render_view(*scene, front_view() * Near)};
    std::mt19937 random(seed);
    for (PointImage& image : images) {
        EXPECT_TRUE(Simulation::apply_noise(image, noise, seed));
        const float values[] = {NaN, Infinity, -Infinity, 1e30F, -1e-6F, 0.0F, 1e-7F};
        for (int i = 0; i < 400; ++i) {
            const std::size_t slot = random() % image.get_vn();
            Vector3f point = image.get_vCoord(slot), normal = image.get_vNrv(slot);
            (i % 2 == 0 ? point : normal)[static_cast<int>(random() % 3)] = values[random() % 7];
            image.set_vCoord(slot, point);
            image.set_vNrv(slot, normal);
            if (i % 5 == 0) image.set_vWeight(slot, i % 2 == 0 ? NaN : 0.0F);
        }
    }
    return {images[0], images[1]};
}

TEST(CorrespondenceKernels, VectorFormGivesWhatThePlainOneGives) {
    const CorrespondenceKernels& plain = plain_correspondence_kernels();
    const CorrespondenceKernels& best = best_correspondence_kernels();
    for (const Vector2f& viewRadial :
         {Vector2f(0, 0), Vector2f(0.5F, -0.25F), Vector2f(30, 12), Vector2f(-1e9F, 1e9F)}) {
        const Pair pair = spoilt_pair(viewRadial, 7);
        for (const RigidMatrix& pose : {RigidMatrix(), Near, motion({0, 3, 0}, {0, 0, 100})}) {
            const Alignment alignment = pair.aligned(pose);
            for (const std::size_t step : {1, 12}) {
                const EntryRange range{step, std::min<std::size_t>(1003, pair.moving.count() / step - 1), step};
                const Found expected = find_all(plain, alignment, range, 2.0F);
                Found found = find_all(best, alignment, range, 2.0F);
                EXPECT_EQ(found.result.found, expected.result.found);
                EXPECT_EQ(found.result.outOfMap, expected.result.outOfMap);
                EXPECT_EQ(found.result.firstOutOfMap, expected.result.firstOutOfMap);
                EXPECT_EQ(found.fixedIndex, expected.fixedIndex);
                EXPECT_EQ(found.movingEntry, expected.movingEntry);
                EXPECT_EQ(found.mode, expected.mode);
                EXPECT_EQ(found.pixel, expected.pixel);
                EXPECT_EQ(found.distance, expected.distance);

                NormalEquations sums[2];
                plain.accumulate(alignment, found.arrays(), found.result.found, 1.0F, sums[0]);
                best.accumulate(alignment, found.arrays(), found.result.found, 1.0F, sums[1]);
                for (int term = 0; term < NormalEquations::Terms; ++term) {
                    EXPECT_NEAR(sums[1].terms[term], sums[0].terms[term], 1e-12 * sums[0].JTJ().norm()) << term;
                }
                for (const ResidualRule& rule : {ResidualRule{5, 6.0F, Infinity}, ResidualRule{0, Infinity, 1.0F},
                                                 ResidualRule{0, Infinity, Infinity}}) {
                    const ResidualSum one = plain.residual(alignment, range, rule, 1e9);
                    const ResidualSum other = best.residual(alignment, range, rule, 1e9);
                    EXPECT_EQ(other.count, one.count);
                    EXPECT_EQ(other.sum, one.sum);
                }
            }
        }
    }
}

// The pairs above must exercise both modes, drop-outs and the edge of the map.
TEST(CorrespondenceKernels, PairsOfTheComparisonCoverTheCases) {
    const Pair pair = spoilt_pair({30, 12}, 7);
    const Found found = find_all(plain_correspondence_kernels(), pair.aligned(Near), {0, pair.moving.count(), 1}, 2.0F);
    const auto inBlock = std::count(found.mode.begin(), found.mode.end(), InBlock);
    EXPECT_GT(inBlock, 1000);
    EXPECT_GT(static_cast<std::ptrdiff_t>(found.result.found) - inBlock, 100);
    EXPECT_GT(found.result.outOfMap, 100U);
}

}  // namespace
