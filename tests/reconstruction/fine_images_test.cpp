// Images between their pixels: splines against their definition, rectification against a scene that is known
// everywhere.
#include <cmath>

#include "SpeckleRebCPU/fineImages.h"
#include "tests/common.h"
#include "tests/reconstruction/testImages.h"
#include "trials/finePair.h"

namespace VexelAlgorithm {
namespace {

using VexelTest::with_every_instruction_set;

TEST(FineImages, SplinesGoThroughThePixelsOfTheirRows) {
    for (const int width : {7, 16, 71}) {
        const FineImage image = VexelTrial::fine_image(noise_image(width, 9, 61));
        with_every_instruction_set([&] {
            FineImage coefficients, other;
            spline_rows(image, 1, coefficients);
            spline_rows(image, 3, other);
            for (int y = 0; y < image.height(); ++y)
                for (int x = 0; x < width; ++x) {
                    const std::int16_t* c = coefficients.row(y);
                    const int before = std::abs(x - 1), after = width - 1 - std::abs(width - 2 - x);
                    ASSERT_NEAR((c[before] + 4.0 * c[x] + c[after]) / 6.0, image.at(x, y), 2.5) << width << ": " << x;
                    ASSERT_EQ(c[x], other.at(x, y)) << "threads";
                }
        });
    }
}

TEST(FineImages, RectifiedPixelsAreThoseOfTheScene) {
    const int width = 150, height = 90;
    const auto scene = [](double x, double y) {
        return 125.0 + 60.0 * std::sin(1.15 * x + 0.3 * y) + 45.0 * std::cos(0.9 * y - 0.5 * x);
    };
    GreyImage raw(width, height);
    std::vector<float> map;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            raw.at(x, y) = static_cast<std::uint8_t>(std::lround(scene(x, y)));
            map.push_back(0.98F * static_cast<float>(x) - 0.03F * static_cast<float>(y) + 4.1F);
            map.push_back(0.02F * static_cast<float>(x) + 0.97F * static_cast<float>(y) + 0.3F);
        }
    const float beyond[] = {NAN, -VexelTest::kInfinity, -50.0F, 1e30F, static_cast<float>(width) + 7.0F};
    for (std::size_t i = 0; i < std::size(beyond); ++i) map[2 * (40 * width + 60 + i)] = beyond[i];
    with_every_instruction_set([&] {
        FineRectification rectification;
        FineImage fine(width, height), other(width, height);
        rectification.rectify(raw.data(), map.data(), 2, fine);
        rectification.rectify(raw.data(), map.data(), 3, other);
        double squares = 0, bilinear = 0, count = 0;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                ASSERT_EQ(fine.at(x, y), other.at(x, y)) << "threads";
                const float* place = map.data() + 2 * (y * width + x);
                const double u = std::isnan(place[0]) ? 1.0 : std::clamp<double>(place[0], 1, width - 2);
                const double v = std::clamp<double>(place[1], 1, height - 2);
                const double grey = fine.at(x, y) / FINE_SCALE + FINE_ZERO;
                ASSERT_NEAR(grey, scene(u, v), 15.0) << x << ' ' << y << ": " << u << ' ' << v;
                if (!(u > 4 && u < width - 5 && v > 4 && v < height - 5)) continue;  // mirrored ends are not the scene
                squares += std::pow(grey - scene(u, v), 2);
                const int a = static_cast<int>(u), b = static_cast<int>(v);
                const double s = u - a, t = v - b;
                bilinear += std::pow((1 - t) * ((1 - s) * raw.at(a, b) + s * raw.at(a + 1, b)) +
                                         t * ((1 - s) * raw.at(a, b + 1) + s * raw.at(a + 1, b + 1)) - scene(u, v),
                                     2);
                ++count;
            }
        EXPECT_GT(count, 0.7 * width * height);
        EXPECT_LT(std::sqrt(squares / count), 0.5) << "grey values, 0.29 of them from 8 bits";
        EXPECT_GT(std::sqrt(bilinear / count), 5.0) << "the scene is no easy one";
    });
}

}  // namespace
}  // namespace VexelAlgorithm
