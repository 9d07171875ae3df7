#include "platform/surfaceAlignment.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>

namespace VexelAlgorithm {
namespace {

using Matrix6d = Eigen::Matrix<double, 6, 6>;
using Vector6d = Eigen::Matrix<double, 6, 1>;

constexpr float LEAST_NORMAL_COSINE = 0.8F;
constexpr double CONVERGED = 1e-4;  // length of the step, in gates
constexpr double DAMPING = 1e-6;
constexpr int LEAST_SAMPLES = 20;

/// Sums of the normal equations. Rotations are in units of 1 / `arm`, so that all six unknowns are lengths.
struct NormalEquations {
    Matrix6d products = Matrix6d::Zero();
    Vector6d gradient = Vector6d::Zero();
    double squares = 0.0;  ///< mm^2
    int samples = 0;

    void add(const Vector6d& row, double distance) {
        products += row * row.transpose();
        gradient += row * distance;
        squares += distance * distance;
        ++samples;
    }
};

double extent(const SampledCloud& cloud) {
    double sum = 0.0;
    for (const Vector3f& point : cloud.points) sum += point.cast<double>().squaredNorm();
    return std::sqrt(sum / static_cast<double>(cloud.size()));
}

NormalEquations linearise(const SampledCloud& ref, const SampledCloud& obj, const RigidMatrix& objToRef, float gate,
                          std::size_t stride, double arm) {
    const Matrix3f rotation = objToRef.get_rotation().cast<float>();
    const Vector3f translation = objToRef.get_translation().cast<float>();
    NormalEquations equations;
    for (std::size_t i = 0; i < obj.size(); i += stride) {
        const Vector3f point = rotation * obj.points[i] + translation;
        const std::size_t partner = ref.tree.nearest(point, gate);
        if (partner == PointTree::NONE) continue;
        const Vector3f& normal = ref.normals[partner];
        if (!((rotation * obj.normals[i]).dot(normal) > LEAST_NORMAL_COSINE)) continue;
        const float distance = (point - ref.points[partner]).dot(normal);
        // Rotations are about the object's centroid. The reference's own place goes with its normal: on a sphere they
        // then tell nothing about rotations.
        const Vector3d turned = (ref.points[partner] - translation).cast<double>() / arm;
        Vector6d row;
        row << turned.cross(normal.cast<double>()), normal.cast<double>();
        equations.add(row, distance);
    }
    return equations;
}

RigidMatrix stepped(const RigidMatrix& objToRef, const Vector6d& step, double arm) {
    Matrix3d turn;
    rodrigures(Vector3d(step.head<3>() / arm), turn);
    RigidMatrix result(turn * objToRef.get_rotation(), objToRef.get_translation() + step.tail<3>());
    rigidMatrix_regularization(result);
    return result;
}

SurfaceContact contact_of(const NormalEquations& equations) {
    SurfaceContact contact;
    contact.samples = equations.samples;
    if (equations.samples == 0) return contact;
    contact.residual = std::sqrt(equations.squares / equations.samples);
    contact.evidence =
        Eigen::SelfAdjointEigenSolver<Matrix6d>(equations.products, Eigen::EigenvaluesOnly).eigenvalues()(0);
    return contact;
}

}  // namespace

SurfaceContact align_surfaces(const SampledCloud& ref, const SampledCloud& obj, const AlignmentSettings& settings,
                              RigidMatrix& objToRef) {
    const double arm = extent(obj);
    const float shrink =
        std::pow(settings.gateEnd / settings.gateBegin, 2.0F / static_cast<float>(std::max(settings.iterations, 1)));
    float gate = settings.gateBegin;
    for (int i = 0; i < settings.iterations; ++i) {
        const NormalEquations equations = linearise(ref, obj, objToRef, gate, settings.stride, arm);
        if (equations.samples < LEAST_SAMPLES) break;
        // A little damping keeps directions that nothing constrains where they are.
        const Matrix6d damped = equations.products + DAMPING * equations.samples * Matrix6d::Identity();
        const Vector6d step = damped.ldlt().solve(-equations.gradient);
        objToRef = stepped(objToRef, step, arm);
        if (gate <= settings.gateEnd && step.norm() < CONVERGED * static_cast<double>(gate)) break;
        gate = std::max(gate * shrink, settings.gateEnd);
    }
    return contact_of(linearise(ref, obj, objToRef, settings.gateEnd, settings.stride, arm));
}

}  // namespace VexelAlgorithm
