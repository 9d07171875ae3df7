#include "apps/meshDrawing.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <vector>

namespace VexelAlgorithm::Apps {
namespace {

constexpr float nearestDepth = 1.0f;

/// A vertex in the camera: its point and normal in camera coordinates, and its pixel position.
struct SeenVertex {
    Vector3f point;
    Vector3f normal;
    Vector2f pixel;
};

std::vector<SeenVertex> seen_vertices(const BaseTriMesh& mesh, const View& view) {
    const RigidMatrix worldToCamera = view.cameraToWorld.inverse();
    std::vector<SeenVertex> vertices(mesh.get_vn());
    for (std::size_t i = 0; i < vertices.size(); ++i) {
        SeenVertex& vertex = vertices[i];
        vertex.point = worldToCamera * mesh.get_vCoord(i);
        vertex.normal = worldToCamera.transform_normal(mesh.get_vNrv(i));
        if (vertex.point.z() >= nearestDepth) view.camera.point_to_image(vertex.point, vertex.pixel);
    }
    return vertices;
}

float twice_area(const Vector2f& a, const Vector2f& b, const Vector2f& c) {
    return (b.x() - a.x()) * (c.y() - a.y()) - (c.x() - a.x()) * (b.y() - a.y());
}

/// The whole pixel positions between two coordinates that lie in a row of `count`.
struct PixelSpan {
    int first;
    int last;

    PixelSpan(float a, float b, float c, int count)
        : first(static_cast<int>(std::ceil(std::clamp(std::min({a, b, c}), 0.0f, static_cast<float>(count))))),
          last(static_cast<int>(std::floor(std::clamp(std::max({a, b, c}), -1.0f, static_cast<float>(count - 1))))) {}
};

/// Draws the pixels whose middle lies in the triangle, where nothing nearer is drawn yet. Corner weights are
/// divided by the corners' depth, which makes them linear in space (perspective-correct).
void draw_triangle(const SeenVertex& a, const SeenVertex& b, const SeenVertex& c, PointImage& picture) {
    const float area = twice_area(a.pixel, b.pixel, c.pixel);
    const PixelSpan columns(a.pixel.x(), b.pixel.x(), c.pixel.x(), picture.get_image_width());
    const PixelSpan rows(a.pixel.y(), b.pixel.y(), c.pixel.y(), picture.get_image_height());
    for (int y = rows.first; y <= rows.last; ++y) {
        for (int x = columns.first; x <= columns.last; ++x) {
            const Vector2f pixel(static_cast<float>(x), static_cast<float>(y));
            float weightA = twice_area(pixel, b.pixel, c.pixel) / area;
            float weightB = twice_area(a.pixel, pixel, c.pixel) / area;
            float weightC = 1.0f - weightA - weightB;
            if (weightA < 0.0f || weightB < 0.0f || weightC < 0.0f) continue;
            weightA /= a.point.z();
            weightB /= b.point.z();
            weightC /= c.point.z();
            const float depth = 1.0f / (weightA + weightB + weightC);
            const float drawn = picture.get_point(x, y).z();
            if (drawn > 0.0f && drawn <= depth) continue;
            picture.set_point(x, y, depth * (weightA * a.point + weightB * b.point + weightC * c.point));
            picture.set_normal(x, y, (weightA * a.normal + weightB * b.normal + weightC * c.normal).normalized());
        }
    }
}

bool is_seen_from_front(const SeenVertex& a, const SeenVertex& b, const SeenVertex& c) {
    const bool isAhead = std::min({a.point.z(), b.point.z(), c.point.z()}) >= nearestDepth;
    return isAhead && (b.point - a.point).cross(c.point - a.point).dot(a.point) < 0.0f;
}

}  // namespace

PointImage drawn_mesh(const BaseTriMesh& mesh, const View& view) {
    PointImage picture;
    picture.ini(view.size.width, view.size.height, view.camera, 1, Vector2f::Zero());
    picture.enable_vNormal();
    const std::vector<SeenVertex> vertices = seen_vertices(mesh, view);
    for (const BaseTriFace& face : mesh.get_faces()) {
        const SeenVertex& a = vertices[static_cast<std::size_t>(face[0])];
        const SeenVertex& b = vertices[static_cast<std::size_t>(face[1])];
        const SeenVertex& c = vertices[static_cast<std::size_t>(face[2])];
        if (is_seen_from_front(a, b, c)) draw_triangle(a, b, c, picture);
    }
    return picture;
}

}  // namespace VexelAlgorithm::Apps
