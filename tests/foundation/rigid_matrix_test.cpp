#include <Eigen/Geometry>

#include "foundation/CameraInParam.h"
#include "foundation/RigidMatrix.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;

constexpr double pi = 3.14159265358979323846;

double deviation_from_rotation(const Matrix3d& matrix) {
    return (matrix * matrix.transpose() - Matrix3d::Identity()).cwiseAbs().maxCoeff() +
           std::abs(matrix.determinant() - 1.0);
}

TEST(Rodrigures, GoesThereAndBackAtEveryAngle) {
    for (const double angle : {0.0, 1e-300, 1e-12, 1e-8, 1e-4, 1.0, 3.0, pi - 1e-4, pi - 1e-8, pi - 1e-12, pi})
        for (const Vector3d& direction : {Vector3d(1, 0, 0), Vector3d(0, -1, 0), Vector3d(0, 0, 1), Vector3d(1, 2, 3),
                                          Vector3d(-3, 1e-9, 2), Vector3d(-1, -1, -1)}) {
            const Vector3d axis = direction.normalized();
            const Vector3d vector = angle * axis;
            Matrix3d rotation;
            rodrigures(vector, rotation);
            EXPECT_LT(deviation_from_rotation(rotation), 1e-14) << angle << " about " << axis.transpose();
            EXPECT_LT((rotation - Eigen::AngleAxisd(angle, axis).toRotationMatrix()).cwiseAbs().maxCoeff(), 1e-14);
            Vector3d back;
            rodrigures(rotation, back);
            // At half a turn both directions of the axis are right.
            const double error = std::min((back - vector).norm(), angle > 3.14 ? (back + vector).norm() : 10.0);
            EXPECT_LT(error, 1e-14 + 1e-9 * std::min(angle, 1e-6)) << angle << " about " << axis.transpose();
            EXPECT_LE(back.norm(), pi + 1e-15);
        }
    Matrix3d rotation;
    Vector3d back;
    rodrigures(Vector3d(0.0, 1.5 * pi, 0.0), rotation);
    rodrigures(rotation, back);
    EXPECT_LT((back - Vector3d(0.0, -0.5 * pi, 0.0)).norm(), 1e-14) << "more than half a turn is the shorter way round";
}

TEST(Rodrigures, RegularisesDisturbedRotations) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    for (int i = 0; i < 500; ++i) {
        const Vector3d vector =
            (i % 5 == 0 ? pi : 2.0) * Vector3d(uniform(random), uniform(random), uniform(random)).normalized();
        Matrix3d exact;
        rodrigures(vector, exact);
        const Matrix3d noise = Matrix3d::NullaryExpr([&] { return 1.7e-4 * uniform(random); });
        const Vector3d translation(1.0, 2.0, 3.0);
        RigidMatrix rt(exact + noise, translation);
        rigidMatrix_regularization(rt);
        EXPECT_LT(deviation_from_rotation(rt.get_rotation()), 1e-12);
        EXPECT_EQ(rt.get_translation(), translation);
        // The closest rotation makes R^T M symmetric.
        const Matrix3d stretch = rt.get_rotation().transpose() * (exact + noise);
        EXPECT_LT((stretch - stretch.transpose()).cwiseAbs().maxCoeff(), 1e-12);
    }
}

TEST(Rodrigures, MatricesThatAreNoRotationDoNoHarm) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    Vector3d vector;
    rodrigures(Matrix3d(Matrix3d::Constant(nan)), vector);
    EXPECT_TRUE(vector.array().isNaN().all());
    for (const double scale : {0.0, -1.0, 1e-300, 1e300}) {
        rodrigures(Matrix3d(scale * Matrix3d::Identity()), vector);
        EXPECT_LE(vector.norm(), pi + 1e-12) << scale;
    }
}

TEST(SmallArchives, HaveTheirFixedFormAndRefuseShortInput) {
    std::ostringstream out;
    const RigidMatrix rt((Matrix3d() << 1, 2, 3, 4, 5, 6, 7, 8, 9).finished(), Vector3d(10, 11, 12));
    ASSERT_TRUE(rt.write_archive(out) && CameraInParam(13, 14, 15, 16).write_archive(out));
    const std::string bytes = out.str();
    Eigen::Matrix<double, 16, 1> values, expected;
    ASSERT_EQ(bytes.size(), sizeof values);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(values.data()));
    expected << 1, 4, 7, 2, 5, 8, 3, 6, 9, 10, 11, 12, 13, 14, 15, 16;
    EXPECT_EQ(values, expected) << "column by column";

    RigidMatrix rtRead;
    CameraInParam cameraRead(1, 2, 3, 4);
    std::istringstream cut(bytes.substr(0, 95)), cutCamera(bytes.substr(96, 31));
    EXPECT_FALSE(rtRead.read_archive(cut) || cameraRead.read_archive(cutCamera));
    EXPECT_TRUE(rtRead.get_rotation().isIdentity() && cameraRead.get_fx() == 1.0);
}

}  // namespace
