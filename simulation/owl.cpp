// The demo object. Built of primitives in the order of a sculptor: rough body, face, plumage, feet, books.
#include <Eigen/Geometry>
#include <cmath>

#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"

namespace VexelAlgorithm::Simulation {

namespace {

using Shapes = std::vector<ShapePtr>;

constexpr double kRadians = 3.14159265358979323846 / 180.0;
constexpr double kSides[] = {-1.0, 1.0};

Matrix3d turn(double degrees, const Vector3d& axis) {
    return Eigen::AngleAxisd(degrees * kRadians, axis).toRotationMatrix();
}

void append(Shapes& shapes, const Shapes& more) {
    shapes.insert(shapes.end(), more.begin(), more.end());
}

ShapePtr body() {
    const ShapePtr trunk = ellipsoid({0, 0, 86}, {39, 35, 50});
    const ShapePtr head = moved(ellipsoid({0, 0, 0}, {37, 31, 29}), {turn(7, Vector3d::UnitZ()), {0, -3, 143}});
    const ShapePtr neck = ellipsoid({0, 0, 116}, {36, 31, 26});
    const ShapePtr rump = round_cone({0, 18, 62}, 20, {0, 34, 44}, 10);
    Shapes parts = {trunk, head, neck, rump};
    for (const double side : kSides) parts.push_back(round_cone({side * 21, -9, 158}, 10, {side * 33, -5, 182}, 2.2));
    return smooth_union(parts, 14);
}

Shapes face() {
    Shapes parts;
    for (const double side : kSides) {
        const Matrix3d gaze = turn(7 + side * 17, Vector3d::UnitZ()) * turn(94, Vector3d::UnitX());
        const RigidMatrix socket(gaze, {side * 15.5 + 3.5, -30.5, 146});
        const ShapePtr ball = smooth_difference(sphere({0, 0, -1.5}, 10), torus({0, 0, 8.0}, 5.2, 1.0), 0.5);
        parts.push_back(moved(ball, socket));
        parts.push_back(moved(torus({0, 0, 1.5}, 12.8, 2.6), socket));
        parts.push_back(moved(torus({0, 0, -2.5}, 17.2, 2.2), socket));
    }
    parts.push_back(round_cone({3.6, -34, 139}, 4.8, {4.8, -43, 127}, 1.3));
    return parts;
}

/// An overlapping feather: a flat ellipsoid that lies on the ground's surface where the ray from outside meets it, its
/// lower end lifted.
ShapePtr feather(const Shape& ground, const Vector3d& from, const Vector3d& towards, const Vector3d& halfAxes,
                 double lift) {
    const std::optional<Hit> seat = ground.hit({from, (towards - from).normalized()});
    if (!seat) return nothing();
    const Vector3d across = Vector3d::UnitZ().cross(seat->normal).normalized();
    const Vector3d along = seat->normal.cross(across);
    Matrix3d frame;
    frame << across, along, seat->normal;
    return moved(ellipsoid(Vector3d::Zero(), halfAxes), {frame * turn(lift, Vector3d::UnitX()), seat->point});
}

/// Rows of feathers around the trunk, each row set half a feather off the one below; degrees from the x axis.
Shapes plumage(const Shape& ground, double azimuth, double spread, int perRow, double lowest, double rowHeight,
               int rows, const Vector3d& halfAxes) {
    Shapes feathers;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < perRow; ++column) {
            const double place = (column + 0.5 + 0.5 * (row % 2)) / perRow - 0.5;
            const double angle = (azimuth + spread * place) * kRadians;
            const Vector3d axis(0, 0, lowest + rowHeight * row);
            feathers.push_back(
                feather(ground, axis + 80 * Vector3d(std::cos(angle), std::sin(angle), 0), axis, halfAxes, 12));
        }
    return feathers;
}

ShapePtr wing(double side) {
    const Matrix3d fold =
        turn(side * 8, Vector3d::UnitY()) * turn(-12, Vector3d::UnitX()) * turn(side * 10, Vector3d::UnitZ());
    return moved(ellipsoid(Vector3d::Zero(), {10, 24, 44}), {fold, {side * 34, 6, 84}});
}

Shapes wing_feathers(const Shape& ground, double side) {
    Shapes feathers;
    for (int row = 0; row < 4; ++row) {
        const double height = 106 - 15 * row;
        const double length = 10 + 2.5 * row;
        for (double column = -1.5 + 0.5 * (row % 2); column <= 1.5; column += 1) {
            const double y = 5 + 11 * column + 3.5 * row;
            feathers.push_back(feather(ground, {side * 90, y, height}, {0, y, height}, {5.6, length, 2.2}, 9));
        }
    }
    return feathers;
}

Shapes tail() {
    Shapes feathers;
    for (const double fan : kSides)
        feathers.push_back(moved(ellipsoid(Vector3d::Zero(), {10, 4, 26}),
                                 {turn(42, Vector3d::UnitX()) * turn(fan * 9, Vector3d::UnitY()), {fan * 7, 44, 46}}));
    feathers.push_back(moved(ellipsoid(Vector3d::Zero(), {10, 4, 28}), {turn(42, Vector3d::UnitX()), {0, 43, 49}}));
    return feathers;
}

Shapes feet() {
    Shapes toes;
    for (const double side : kSides)
        for (int toe = -1; toe <= 1; ++toe) {
            const Vector3d heel(side * 15, -20, 43);
            const Vector3d knuckle = heel + Vector3d(toe * 6 + side * 1.5, -13, -2.5);
            const Vector3d tip = knuckle + Vector3d(toe * 3, -7, -4.5);
            toes.push_back(round_cone(heel, 5, knuckle, 4));
            toes.push_back(round_cone(knuckle, 4, tip, 1.8));
        }
    return toes;
}

/// Covers, a rounded spine at -x, and pages that stand back from the edges of the covers.
ShapePtr book(double halfLength, double halfDepth, double thickness) {
    const double cover = 1.3;
    const double middle = 0.5 * thickness;
    const Vector3d coverHalf(halfLength, halfDepth, cover);
    const ShapePtr spine =
        smooth_difference(box({-halfLength, 0, middle}, {4.5, halfDepth, middle}, 4.0),
                          box({-halfLength + 7, 0, middle}, {6, 2 * halfDepth, middle - 2 * cover}), 0);
    Shapes ridges;
    for (const double y : {-0.6, -0.2, 0.2, 0.6})
        ridges.push_back(round_cone({-halfLength - 3.8, y * halfDepth, 4}, 1.6,
                                    {-halfLength - 3.8, y * halfDepth, thickness - 4}, 1.6));
    const ShapePtr boards =
        smooth_union({box({0, 0, cover}, coverHalf, 1.0), box({0, 0, thickness - cover}, coverHalf, 1.0), spine}, 0);
    const ShapePtr pages = box({-2, 0, middle}, {halfLength - 2, halfDepth - 4, middle - cover});
    append(ridges, {boards, pages});
    return smooth_union(ridges, 0.6);
}

Shapes books() {
    return {moved(book(62, 46, 20), {turn(-6, Vector3d::UnitZ()), {0, 2, 0}}),
            moved(book(54, 40, 17), {turn(13, Vector3d::UnitZ()), {2, 0, 20}})};
}

}  // namespace

ShapePtr owl_on_books() {
    const ShapePtr trunk = body();
    Shapes parts = {trunk};
    append(parts, face());
    append(parts, plumage(*trunk, -90, 125, 8, 58, 9.5, 7, {5.4, 8, 2.0}));
    append(parts, plumage(*trunk, 90, 130, 6, 66, 13, 6, {7.5, 11, 2.2}));
    for (const double side : kSides) {
        const ShapePtr folded = wing(side);
        parts.push_back(folded);
        append(parts, wing_feathers(*folded, side));
    }
    append(parts, tail());
    append(parts, feet());
    append(parts, books());
    return smooth_union(parts, 1.5);
}

Vector3d owl_centre() {
    return {0, 0, 92};
}

}  // namespace VexelAlgorithm::Simulation
