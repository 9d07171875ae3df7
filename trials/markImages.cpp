#include "trials/markImages.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace VexelTrial {

void MarkImage::draw(const Vector2d& point) {
    const int column = static_cast<int>(std::floor(point.x())), row = static_cast<int>(std::floor(point.y()));
    if (column < 0 || row < 0 || column >= size.x() || row >= size.y()) return;
    pixels[static_cast<std::size_t>(row) * static_cast<std::size_t>(size.x()) + static_cast<std::size_t>(column)] = 200;
}

Track::RigidMatrix2D motion_about_middle(const Vector2i& size, double degrees, const Vector2d& shift) {
    const Vector2d middle = 0.5 * size.cast<double>();
    const Eigen::Matrix2d rotation = Eigen::Rotation2Dd(degrees * 3.14159265358979 / 180.0).toRotationMatrix();
    return {rotation, middle - rotation * middle + shift};
}

ImagePair draw_dots(const Vector2i& size, int apart, const Track::RigidMatrix2D& movingToFixed, unsigned seed) {
    ImagePair pair{MarkImage(size), MarkImage(size), movingToFixed};
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> column(apart / 2, size.x() - apart / 2), row(apart / 2, size.y() - apart / 2);
    std::vector<Vector2d> dots;
    for (int attempt = 0; attempt < 20000; ++attempt) {
        const Vector2d dot(column(random), row(random));
        const auto is_near = [&](const Vector2d& other) { return (dot - other).cwiseAbs().maxCoeff() <= apart; };
        if (std::any_of(dots.begin(), dots.end(), is_near)) continue;
        dots.push_back(dot);
        pair.moving.draw(dot);
        pair.fixed.draw(movingToFixed * dot);
    }
    return pair;
}

ImagePair draw_outlines(const Vector2i& size, const Track::RigidMatrix2D& movingToFixed, unsigned seed) {
    ImagePair pair{MarkImage(size), MarkImage(size), movingToFixed};
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> phase(0.0, 6.2831853), amplitude(0.02, 0.15);
    const double places[5][3] = {
        {0.5, 0.5, 0.2}, {0.2, 0.25, 0.13}, {0.8, 0.25, 0.15}, {0.2, 0.75, 0.15}, {0.8, 0.75, 0.13}};
    for (const auto& place : places) {
        double waves[4][2];
        for (auto& wave : waves) wave[0] = amplitude(random), wave[1] = phase(random);
        for (int i = 0; i < 20000; ++i) {
            const double angle = i * 6.283185307179586 / 20000.0;
            double radius = 1.0;
            for (int k = 0; k < 4; ++k) radius += waves[k][0] * std::cos((k + 2) * angle + waves[k][1]);
            const Vector2d point = size.cast<double>().cwiseProduct(Vector2d(place[0], place[1])) +
                                   place[2] * size.y() * radius * Vector2d(std::cos(angle), std::sin(angle));
            pair.moving.draw(point);
            pair.fixed.draw(movingToFixed * point);
        }
    }
    return pair;
}

PlanarError error_of(const Track::RigidMatrix2D& found, const Track::RigidMatrix2D& truth, const Vector2i& size) {
    double sum = 0.0;
    int count = 0;
    for (int y = 0; y <= size.y(); y += 20)
        for (int x = 0; x <= size.x(); x += 20, ++count)
            sum += (found * Vector2d(x, y) - truth * Vector2d(x, y)).squaredNorm();
    const Eigen::Matrix2d between = found.rotation * truth.rotation.transpose();
    return {std::sqrt(sum / count), std::abs(std::atan2(between(1, 0), between(0, 0))) * 180.0 / 3.14159265358979};
}

}  // namespace VexelTrial
