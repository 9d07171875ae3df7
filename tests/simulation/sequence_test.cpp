// Hand-held scans: the speed of the built-in sequences, and what their frames hold.
#include "simulation/Sequence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

namespace VexelAlgorithm::Simulation {
namespace {

constexpr double kDegrees = 57.29577951308232;

SequenceSettings small_images() {
    SequenceSettings settings;
    settings.width = 160;
    settings.height = 128;
    return settings;
}

TEST(Sequence, PathsAreAsFastAsDescribed) {
    const struct {
        const char* name;
        double translation, rotation, largestTranslation, largestRotation;
    } cases[] = {
        {"full_turn", 25, 3.6, 28, 4.2}, {"arc", 25, 3.6, 28, 4.2},       {"smooth", 7, 1.0, 11, 2.0},
        {"fast", 15, 2.2, 30, 5.0},      {"bare_plane", 5, 0.13, 7, 0.5}, {"past_plane", 9, 0.1, 16, 0.5},
        {"still", 0.2, 0.03, 0.5, 0.1},
    };
    for (const auto& c : cases) {
        const PathSpeed speed = path_speed(make_sequence(c.name, small_images())->poses);
        EXPECT_NEAR(speed.meanTranslation, c.translation, 0.35 * c.translation) << c.name;
        EXPECT_NEAR(speed.meanRotation, c.rotation, std::max(0.02, 0.35 * c.rotation)) << c.name;
        EXPECT_LT(speed.largestTranslation, c.largestTranslation) << c.name;
        EXPECT_LT(speed.largestRotation, c.largestRotation) << c.name;
    }
}

TEST(Sequence, FramesHoldWhatAScannerMeasures) {
    for (const SequenceDescription& description : sequence_descriptions()) {
        SequenceSettings settings = small_images();
        const Sequence sequence = *make_sequence(description.name, settings);
        ASSERT_EQ(sequence.frame_count(), description.frames);
        for (const int frames : {1, 2, 11}) {
            settings.frames = frames;
            EXPECT_EQ(make_sequence(description.name, settings)->frame_count(), frames);
        }
        const PointImage frame = frame_of(sequence, 1, 1);
        ASSERT_TRUE(frame.is_legal() && frame.is_enable_vNormal() && frame.is_enable_vWeight() &&
                    frame.is_enable_vFlag());
        EXPECT_EQ(std::memcmp(frame.get_vCoords().data(), frame_of(sequence, 1, 2).get_vCoords().data(),
                              frame.get_vn() * sizeof(Vector3f)),
                  0);
        Sequence ideal = sequence;
        ideal.noise.reset();
        const PointImage truth = frame_of(ideal, 1);
        double squares = 0.0;
        int count = 0, steady = 0;
        for (std::size_t slot = 0; slot < frame.get_vn(); ++slot) {
            if (!frame.has_point(slot) || !truth.has_point(slot)) continue;
            const double error = double{frame.get_vCoord(slot).z()} - truth.get_vCoord(slot).z();
            squares += error * error;
            steady += frame.get_vNrv(slot).dot(truth.get_vNrv(slot)) > std::cos(1.5 / kDegrees) ? 1 : 0;
            ++count;
        }
        EXPECT_GT(count, 0.4 * 160 * 128) << description.name;
        EXPECT_NEAR(std::sqrt(squares / count), 0.1, 0.004) << description.name;
        EXPECT_GT(steady, 0.8 * count) << description.name << ": normals within 1.5 degrees, edges apart";
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
