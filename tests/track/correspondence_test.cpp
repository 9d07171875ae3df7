// The mathematics of a registration step: vector forms against the plain one, the step against the motion that it must
// undo.
#include "track/correspondence.h"

#include <glog/logging.h>

#include <numeric>

#include "simulation/NoiseModel.h"
#include "tests/common.h"
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

    void resize(std::size_t size) {
        for (auto* field : {&fixedIndex, &movingEntry, &mode, &pixel}) field->resize(size);
        distance.resize(size);
    }
    CorrespondenceArrays arrays() {
        return {fixedIndex.data(), movingEntry.data(), mode.data(), pixel.data(), distance.data()};
    }
};

Found find_all(const CorrespondenceKernels& kernels, const Alignment& alignment, const EntryRange& range, float gate) {
    Found found;
    found.resize(range.count + CorrespondencePadding);
    found.result = kernels.find(alignment, range, gate, found.arrays());
    found.resize(found.result.found);
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
        const float values[] = {kNaN, kInfinity, -kInfinity, 1e30F, -1e-6F, 0.0F, 1e-7F};
        for (int i = 0; i < 400; ++i) {
            const std::size_t slot = random() % image.get_vn();
            Vector3f point = image.get_vCoord(slot), normal = image.get_vNrv(slot);
            (i % 2 == 0 ? point : normal)[static_cast<int>(random() % 3)] = values[random() % 7];
            image.set_vCoord(slot, point);
            image.set_vNrv(slot, normal);
            if (i % 5 == 0) image.set_vWeight(slot, i % 2 == 0 ? kNaN : 0.0F);
        }
    }
    return {images[0], images[1]};
}

void compare_with_plain(const CorrespondenceKernels& best, const std::vector<Pair>& pairs) {
    const CorrespondenceKernels& plain = plain_correspondence_kernels();
    for (const Pair& pair : pairs) {
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
                for (int term = 0; term < NormalEquations::Terms; ++term)
                    EXPECT_NEAR(sums[1].terms[term], sums[0].terms[term], 1e-12 * sums[0].JTJ().norm()) << term;
                for (const ResidualRule& rule : {ResidualRule{5, 6.0F, kInfinity}, ResidualRule{0, kInfinity, 1.0F},
                                                 ResidualRule{0, kInfinity, kInfinity}}) {
                    const ResidualSum one = plain.residual(alignment, range, rule, 1e9);
                    const ResidualSum other = best.residual(alignment, range, rule, 1e9);
                    EXPECT_EQ(other.count, one.count);
                    EXPECT_EQ(other.sum, one.sum);
                }
            }
        }
    }
}

// Every instruction set that this processor has, not the widest alone.
TEST(CorrespondenceKernels, VectorFormsGiveWhatThePlainOneGives) {
    std::vector<Pair> pairs;
    for (const Vector2f& radial : {Vector2f(0, 0), Vector2f(0.5F, -0.25F), Vector2f(30, 12), Vector2f(-1e9F, 1e9F)})
        pairs.push_back(spoilt_pair(radial, 7));
    const Pair& shifted = pairs[2];  // exercises both modes, drop-outs and the edge of the map
    const EntryRange all{0, shifted.moving.count(), 1};
    const Found found = find_all(plain_correspondence_kernels(), shifted.aligned(Near), all, 2.0F);
    const auto inBlock = std::count(found.mode.begin(), found.mode.end(), InBlock);
    EXPECT_GT(inBlock, 1000);
    EXPECT_GT(static_cast<std::ptrdiff_t>(found.result.found) - inBlock, 100);
    EXPECT_GT(found.result.outOfMap, 100U);

    with_every_instruction_set([&] { compare_with_plain(best_correspondence_kernels(), pairs); });
}

// ---- the step ---------------------------------------------------------------------------------------

struct CountingSink : google::LogSink {
    int warnings = 0;
    void send(google::LogSeverity severity, const char*, const char*, int, const std::tm*, const char*,
              size_t) override {
        warnings += severity == google::GLOG_WARNING ? 1 : 0;
    }
};

// What a step finds is judged by whole registrations.
TEST(NormalEquations, HoldWhatIsNotDetermined) {
    const Vector3d centre(30, -40, 400);
    NormalEquations flat;  // points of a plane across the view that lies 2 mm behind it
    for (int i = 0; i < 500; ++i) {
        const ProjectedPoint p{
            30.0F + static_cast<float>(i % 25 - 12), -40.0F + static_cast<float>(i / 25 - 10), 400, 0, 0, 0, 0};
        flat.add(system_row(p, {0, 0, -1, -2.0F, 0}, 0.5F, centre.cast<float>()));
    }
    RigidMatrix pose;
    CountingSink sink;
    google::AddLogSink(&sink);
    EXPECT_EQ(printed([&] {
                  for (int i = 0; i < 3; ++i) {
                      pose.set_identity();
                      ASSERT_TRUE(step_pose(flat, centre, pose));
                  }
              }),
              "");
    google::RemoveLogSink(&sink);
    EXPECT_EQ(sink.warnings, 1);  // a second
    EXPECT_LT((pose * centre - centre - Vector3d(0, 0, 2)).norm(), 1e-3);
    EXPECT_LT(std::abs(smallest_eigenvalue(flat.JTJ())), 1e-6);

    const RigidMatrix before = pose;
    EXPECT_TRUE(step_pose(NormalEquations(), centre, pose));  // nothing known, nothing moved
    flat.terms[4] = kNaN;
    EXPECT_FALSE(step_pose(flat, centre, pose));
    EXPECT_TRUE(std::isnan(smallest_eigenvalue(flat.JTJ())));
    EXPECT_LT(distance_between(pose, before, {80, 10, 450}), 1e-9);
}

// ---- trimming ---------------------------------------------------------------------------------------

TEST(DistanceRank, FindsTheElementAndTheMeanOfASortedCopy) {
    std::mt19937 random(11);
    std::vector<float> scratch;
    for (const std::size_t count : {1, 2, 17, 1000, 70000}) {
        std::vector<float> values(count);
        for (std::size_t i = 0; i < count; ++i) {
            std::exponential_distribution<float> draw(random() % 2 == 0 ? 0.01F : 3.0F);
            values[i] = i % 7 == 0 ? (i % 2 == 0 ? 0.0F : 0.25F) : draw(random);
        }
        std::vector<float> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        for (const std::size_t rank : {std::size_t{0}, count / 3, count * 9 / 10, count - 1})
            EXPECT_EQ(element_of_rank(values.data(), count, rank, scratch, 2), sorted[rank]) << count << ' ' << rank;
        const auto end = std::upper_bound(sorted.begin(), sorted.end(), sorted[count * 9 / 10]);
        const double mean = std::accumulate(sorted.begin(), end, 0.0) / static_cast<double>(end - sorted.begin());
        EXPECT_NEAR(mean_up_to(values.data(), count, sorted[count * 9 / 10], 2), mean, 1.1e-6);
    }
    EXPECT_EQ(mean_up_to(nullptr, 0, 1.0F, 1), 1e6);
    const std::vector<float> huge(100, 3e38F);
    EXPECT_GT(mean_up_to(huge.data(), huge.size(), 3e38F, 1), 1e9);  // no overflow
}

TEST(DistanceRank, RankOfAShareIsAlwaysThere) {
    const std::tuple<std::size_t, float, std::size_t> cases[] = {
        {100, 0.9F, 90}, {10, 1.0F, 9},       {10, -1.0F, 0}, {10, kNaN, 9},  {10, kInfinity, 9},
        {1, 0.5F, 0},    {10, -kInfinity, 0}, {3, 0.34F, 1},  {10, 1e30F, 9}, {20000001, 1.0F, 20000000}};
    for (const auto& [count, share, rank] : cases)
        EXPECT_EQ(rank_of_share(count, share), rank) << count << ' ' << share;
}

}  // namespace
