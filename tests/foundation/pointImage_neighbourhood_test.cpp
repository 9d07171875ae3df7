// The neighbourhood operations of PointImage against plain references and analytic surfaces.
#include <tbb/task_arena.h>

#include <Eigen/Geometry>
#include <Eigen/LU>

#include "foundation/PointImage.h"
#include "tests/common.h"

using namespace VexelAlgorithm;
using namespace VexelTest;

namespace {

using Size = std::pair<int, int>;
const std::vector<Size> oddSizes = {{0, 0}, {1, 1}, {1, 40}, {40, 1}, {2, 2}, {37, 23}, {23, 37}, {19, 300}};

PointImage make_image(Size size) {
    PointImage image;
    image.ini(size.first, size.second);
    image.enable_vNormal();
    image.enable_vFlag();
    image.enable_vWeight();
    image.enable_vColor();
    for (std::size_t i = 0; i < image.get_vn(); ++i) {
        image.set_vWeight(i, 1.0f);
        image.set_vColor(i, Vector3f::Ones());
        image.get_vFlag(i).set(VertexFlag::Locked, true);
    }
    return image;
}

/// Patches of different depth with steps that are multiples of 0.25 mm, so that limits are met exactly; holes, and
/// slots that are not finite.
PointImage make_patchwork(Size size, unsigned seed) {
    PointImage image = make_image(size);
    std::mt19937 random(seed);
    for (int y = 0; y < size.second; ++y)
        for (int x = 0; x < size.first; ++x) {
            const unsigned kind = random() % 100;
            if (kind < 20) continue;
            float depth =
                400.0f + 0.25f * static_cast<float>(random() % 3) + 0.5f * static_cast<float>((x / 7 + y / 5) % 3);
            if (kind < 30) depth += static_cast<float>(random() % 8);
            image.set_point(x, y, Vector3f(0.25f * static_cast<float>(x), 0.25f * static_cast<float>(y), depth));
            if (kind == 30) image.set_point(x, y, Vector3f(1.0f, kNaN, depth));
            if (kind == 31) image.set_point(x, y, Vector3f(1.0f, 1.0f, kInfinity));
        }
    return image;
}

/// Quarter turns and whole millimetres are exact in floating point.
RigidMatrix exact_pose() {
    Matrix3d turn;
    turn << 0, 0, 1, 1, 0, 0, 0, 1, 0;
    return RigidMatrix(turn, Vector3d(100.0, -50.0, 25.0));
}

std::size_t count_flag(const PointImage& image, std::uint8_t flag) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < image.get_vn(); ++i) count += image.get_vFlag(i).test(flag) ? 1 : 0;
    return count;
}

bool is_slot_empty(const PointImage& image, std::size_t i) {
    return image.get_vNrv(i).isZero(0.0f) && image.get_vColor(i).isZero(0.0f) && image.get_vWeight(i) == 0.0f &&
           image.get_vFlag(i).bits == 0;
}

/// Byte for byte, NaN included.
bool is_same(const PointImage& a, const PointImage& b) {
    const auto same = [](const auto& u, const auto& v) {
        return u.size() == v.size() && (u.empty() || std::memcmp(u.data(), v.data(), u.size() * sizeof(u[0])) == 0);
    };
    bool isSame = same(a.get_vCoords(), b.get_vCoords()) && same(a.get_vNrvs(), b.get_vNrvs()) &&
                  same(a.get_vWeights(), b.get_vWeights());
    for (std::size_t i = 0; isSame && i < a.get_vn(); ++i) isSame = a.get_vFlag(i).bits == b.get_vFlag(i).bits;
    return isSame;
}

// ---- normals ------------------------------------------------------------------------------------------

struct NormalParameters {
    int stepX, stepY, windowX, windowY;
    float limit;
};

/// The documented regression, point by point.
Vector3d reference_normal(const PointImage& image, int x, int y, const NormalParameters& p) {
    const int stepX = std::max(p.stepX, 1), stepY = std::max(p.stepY, 1);
    const int countX = std::clamp(p.windowX / stepX, 1, 16), countY = std::clamp(p.windowY / stepY, 1, 16);
    const Vector3d centre = image.get_point(x, y).cast<double>();
    std::vector<Eigen::Matrix<double, 1, 5>> rows;  // offset and point
    for (int j = -countY; j <= countY; ++j)
        for (int i = -countX; i <= countX; ++i) {
            const std::int64_t nx = x + std::int64_t{i} * stepX, ny = y + std::int64_t{j} * stepY;
            if (nx < 0 || ny < 0 || nx >= image.get_image_width() || ny >= image.get_image_height()) continue;
            const std::size_t slot = image.index_of(static_cast<int>(nx), static_cast<int>(ny));
            const Vector3d point = image.get_vCoord(slot).cast<double>();
            if (!image.has_point(slot) || !((point - centre).norm() <= static_cast<double>(p.limit))) continue;
            rows.emplace_back();
            rows.back() << i, j, point.transpose();
        }
    if (!image.has_point(image.index_of(x, y)) || rows.empty()) return Vector3d::Zero();
    Eigen::Matrix<double, Eigen::Dynamic, 5> data(rows.size(), 5);
    for (std::size_t k = 0; k < rows.size(); ++k) data.row(static_cast<Eigen::Index>(k)) = rows[k];
    data.rowwise() -= data.colwise().mean().eval();
    const Eigen::Matrix<double, 2, 5> products = data.leftCols<2>().transpose() * data;
    const Eigen::Matrix2d left = products.leftCols<2>();
    if (left.determinant() <= 1e-4 * left(0, 0) * left(1, 1)) return Vector3d::Zero();
    const Eigen::Matrix<double, 2, 3> tangents = left.inverse() * products.rightCols<3>();
    const Vector3d normal = Vector3d(tangents.row(0)).cross(Vector3d(tangents.row(1)));
    if (normal.norm() <= 1e-5 * tangents.row(0).norm() * tangents.row(1).norm()) return Vector3d::Zero();
    const bool facesAway = normal.dot(image.get_rt().get_translation() - centre) < 0.0;
    return facesAway ? Vector3d(-normal.normalized()) : Vector3d(normal.normalized());
}

TEST(PointImageNormals, AreThoseOfTheReference) {
    const NormalParameters table[] = {{1, 1, 2, 2, 0.75f},  // met exactly by 0.25, 0.5, 0.5
                                      {2, 3, 5, 7, 3.0f},
                                      {0, -5, -1, 0, 1.0f},
                                      {3, 1, 1 << 30, 1, kInfinity},
                                      {1 << 30, 1, 1 << 30, 1 << 30, kInfinity},
                                      {1, 1, 2, 2, -1.0f},
                                      {1, 1, 2, 2, kNaN}};
    for (const Size& size : oddSizes) {
        PointImage image = make_patchwork(size, 3), moved = image;
        moved.rigid_transformation(exact_pose());
        for (const NormalParameters& p : table)
            for (PointImage* frame : {&image, &moved}) {
                frame->count_point_normal(p.stepX, p.stepY, p.windowX, p.windowY, p.limit);
                for (int i = 0; i < size.first * size.second; ++i) {
                    const int x = i % size.first, y = i / size.first;
                    const Vector3d expected = reference_normal(*frame, x, y, p);
                    const Vector3d normal = frame->get_normal(x, y).cast<double>();
                    ASSERT_LT((normal - expected).norm(), 2e-3) << size.first << " window " << p.windowX << " at " << i;
                }
            }
    }
    PointImage wall = make_patchwork({37, 23}, 3);
    wall.set_rt(RigidMatrix(Matrix3d::Constant(kNaN), Vector3d(0.0, 0.0, 5000.0)));
    wall.update_VNrv(1, 2, 2.0f);
    for (const Vector3f& normal : wall.get_vNrvs()) ASSERT_LE(normal.z(), 0.0f) << "the origin when not finite";
}

// ---- deletions by attribute ---------------------------------------------------------------------------

TEST(PointImageDeletion, EmptiesSlotsByNormalAndByFlag) {
    const PointImage before = make_patchwork({16, 3}, 2);
    const auto is_kept = [&](const PointImage& image, std::size_t i) {
        return 0 == std::memcmp(&image.get_vCoord(i), &before.get_vCoord(i), sizeof(Vector3f)) &&
               image.get_vWeight(i) == 1.0f && image.get_vFlag(i).bits != 0;
    };
    PointImage byNormal = before;
    const Vector3f normals[] = {Vector3f(0, 0, -1), Vector3f::Zero(), Vector3f(kNaN, 0, 1), Vector3f(0, -0.0f, 0),
                                Vector3f(0, kInfinity, 0)};
    for (std::size_t i = 0; i < byNormal.get_vn(); ++i) byNormal.set_vNrv(i, normals[i % 5]);
    byNormal.delete_point_without_normal();
    for (std::size_t i = 0; i < byNormal.get_vn(); ++i) {
        const bool isEmpty = byNormal.get_vCoord(i).isZero(0.0f) && is_slot_empty(byNormal, i);
        EXPECT_TRUE(i % 5 == 0 ? is_kept(byNormal, i) : isEmpty) << i;
    }

    PointImage byFlag = before;
    for (std::size_t i = 0; i < byFlag.get_vn(); ++i) byFlag.get_vFlag(i).bits = static_cast<std::uint8_t>(i % 32 | 64);
    byFlag.set_vCoord(7, Vector3f(1, 2, 3));
    byFlag.delete_point_flaged(byFlag.get_vCoord(7));  // slot 7 itself is deleted on the way
    for (std::size_t i = 0; i < byFlag.get_vn(); ++i) {
        const bool isFlagged = (i % 32 & (VertexFlag::Edge | VertexFlag::Deleted | VertexFlag::Selected)) != 0;
        const bool isEmpty = byFlag.get_vCoord(i) == Vector3f(1, 2, 3) && is_slot_empty(byFlag, i);
        EXPECT_TRUE(isFlagged ? isEmpty : is_kept(byFlag, i)) << i;
    }
}

// ---- islands ------------------------------------------------------------------------------------------

using Connected = std::function<bool(const Vector3f&, const Vector3f&)>;

/// Sizes of the regions of all slots by flooding, 0 for slots without a point.
std::vector<int> reference_region_sizes(const PointImage& image, int radius, const Connected& connected) {
    std::vector<int> sizes(image.get_vn(), 0);
    for (std::size_t seed = 0; seed < image.get_vn(); ++seed) {
        if (!image.has_point(seed) || sizes[seed] != 0) continue;
        std::vector<std::size_t> region = {seed};
        sizes[seed] = -1;
        for (std::size_t k = 0; k < region.size(); ++k) {
            const int x = static_cast<int>(region[k]) % image.get_image_width();
            const int y = static_cast<int>(region[k]) / image.get_image_width();
            for (int ny = std::max(y - radius, 0); ny <= std::min(y + radius, image.get_image_height() - 1); ++ny)
                for (int nx = std::max(x - radius, 0); nx <= std::min(x + radius, image.get_image_width() - 1); ++nx) {
                    const std::size_t n = image.index_of(nx, ny);
                    if (!image.has_point(n) || sizes[n] != 0) continue;
                    if (!connected(image.get_vCoord(region[k]), image.get_vCoord(n))) continue;
                    sizes[n] = -1;
                    region.push_back(n);
                }
        }
        for (const std::size_t slot : region) sizes[slot] = static_cast<int>(region.size());
    }
    return sizes;
}

void expect_small_regions_emptied(const PointImage& before, const PointImage& after, const std::vector<int>& sizes,
                                  int countLimit, const Vector3f& emptyPoint) {
    for (std::size_t i = 0; i < before.get_vn(); ++i) {
        if (sizes[i] > 0 && sizes[i] < countLimit) {
            ASSERT_TRUE(after.get_vCoord(i) == emptyPoint && is_slot_empty(after, i)) << i;
        } else {
            ASSERT_EQ(0, std::memcmp(&after.get_vCoord(i), &before.get_vCoord(i), sizeof(Vector3f))) << i;
            ASSERT_EQ(after.get_vWeight(i), 1.0f);
        }
    }
}

TEST(PointImageIslands, AreThoseOfTheReference) {
    const int radii[][2] = {{1, 1}, {3, 3}, {-7, 1}, {1000000000, 16}};  // given, in effect
    for (const Size& size : oddSizes) {
        for (const auto& radius : radii) {
            if (radius[1] == 16 && size.second > 100) continue;
            for (const float limit : {0.25f, 0.5f, 1.0f, 0.0f}) {
                const PointImage image = make_patchwork(size, 5);
                const auto inSpace = [&](const Vector3f& a, const Vector3f& b) {
                    return (a - b).squaredNorm() <= limit * limit;
                };
                const auto inDepth = [&](const Vector3f& a, const Vector3f& b) {
                    return std::fabs(a.z() - b.z()) <= limit;
                };
                const std::vector<int> spaceSizes = reference_region_sizes(image, radius[1], inSpace);
                const std::vector<int> depthSizes = reference_region_sizes(image, radius[1], inDepth);
                for (const int countLimit : {2, 9, 60}) {
                    PointImage bySpace = image;
                    bySpace.delete_island(radius[0], limit, countLimit);
                    expect_small_regions_emptied(image, bySpace, spaceSizes, countLimit, Vector3f::Zero());
                    PointImage byDepth = image;
                    byDepth.delete_island_through_depth(radius[0], limit, countLimit, Vector3f(9, 9, 9));
                    expect_small_regions_emptied(image, byDepth, depthSizes, countLimit, Vector3f(9, 9, 9));

                    PointImage moved = image;
                    moved.rigid_transformation(exact_pose());
                    moved.delete_island_through_depth(radius[0], limit, countLimit, Vector3f(9, 9, 9));
                    ASSERT_EQ(moved.get_vWeights(), byDepth.get_vWeights());
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

// ---- depth edges --------------------------------------------------------------------------------------

TEST(PointImageEdges, AreWhereAnApplicationExpectsThem) {
    // 60 x 50 slots, the window is 3.
    const std::tuple<const char*, std::function<double(int x, int y)>, std::size_t> table[] = {
        {"plane of 60 degrees", [](int x, int) { return 400.0 + 0.45 * x; }, 0},
        {"roof of 60 degrees", [](int x, int) { return 400.0 + 0.45 * std::abs(x - 30); }, 0},
        {"step of 2 mm", [](int x, int) { return x < 30 ? 400.0 : 402.0; }, 6 * 50},
        {"step across two floating points",
         [](int x, int) { return x < 30   ? 400.0
                                 : x < 32 ? 403.0 + 3 * (x - 30)
                                          : 410.0; }, 8 * 50},
        {"step behind an occlusion of 20 x 4 slots",
         [](int x, int y) {
             return y < 25 ? (x < 30 ? 400.0 : 402.0) : (x < 30 ? 400.0 : x < 34 && y < 45 ? 0.0 : 402.0);
         },
         6 * 50 + 4 * 4},  // the corners of the occluded side
        {"ridge on a slope", [](int x, int) { return 400.0 + 0.45 * x + (x < 30 ? 0.0 : 1.0); }, 6 * 50},
        {"drop-outs", [](int x, int y) { return x % 7 < 2 && y % 5 < 2 ? 0.0 : 400.0; }, 0},
        {"hole of 13 x 13", [](int x, int y) { return x / 13 == 2 && y / 13 == 2 ? 0.0 : 400.0; }, 19 * 19 - 13 * 13},
        {"speck on a surface", [](int x, int y) { return x / 4 == 5 && y / 4 == 5 ? 390.0 : 400.0; }, 16},
        {"piece of 12 x 12 alone", [](int x, int y) { return x / 12 == 2 && y / 12 == 2 ? 400.0 : 0.0; }, 144},
    };
    for (const auto& [name, depth, edges] : table) {
        PointImage upright = make_image({60, 50}), lying = make_image({50, 60});
        for (int y = 0; y < 50; ++y)
            for (int x = 0; x < 60; ++x) {
                if (depth(x, y) <= 0) continue;
                upright.set_point(x, y, Vector3d(0.25 * x, 0.25 * y, depth(x, y)).cast<float>());
                lying.set_point(y, x, Vector3d(0.25 * y, 0.25 * x, depth(x, y)).cast<float>());
            }
        PointImage moved = upright;
        moved.rigid_transformation(exact_pose());
        for (PointImage* image : {&upright, &lying, &moved}) {
            image->get_vFlag(0).set(VertexFlag::Edge, true);  // of an earlier search
            image->find_egde_point(3, 0.3f, 150);
            EXPECT_EQ(count_flag(*image, VertexFlag::Edge), edges) << name;
            EXPECT_EQ(count_flag(*image, VertexFlag::Locked), image->get_vn());
        }
    }
}

// ---- planes -------------------------------------------------------------------------------------------

float plane_ratio(const PointImage& image, float distance, int step) {
    float ratio = -1.0f;
    image.plane_detect(ratio, distance, step);
    return ratio;
}

TEST(PointImagePlane, ShareIsTheOneThatWasPlanted) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> chance(0.0f, 1.0f);
    std::normal_distribution<float> noise(0.0f, 0.05f);
    // A tilted plane covers a part of the frame or is strewn over it; elsewhere there is clutter 100 mm deep.
    for (const auto& [share, isStrewn] : {std::pair{1.0f, false}, {0.1f, false}, {0.3f, true}}) {
        PointImage image = make_image({640, 480});
        for (int i = 0; i < 640 * 480; ++i) {
            const float x = 0.25f * static_cast<float>(i % 640), y = 0.25f * static_cast<float>(i / 640);
            const bool isPlane = (isStrewn ? chance(random) : x / 160.0f) < share;
            const float plane = 310.0f + 0.3f * x + 0.3f * y + noise(random);
            image.set_point(i % 640, i / 640, {x, y, isPlane ? plane : 300.0f + 100.0f * chance(random)});
        }
        const float ratio = plane_ratio(image, 0.2f, 8);
        EXPECT_GT(ratio, 0.98f * share) << share << isStrewn;
        EXPECT_LT(ratio, share + 0.02f) << share << isStrewn;
        EXPECT_EQ(plane_ratio(image, kInfinity, 16), 1.0f);
    }
}

TEST(PointImagePlane, NeedsThreePointsAndADistance) {
    PointImage image = make_image({8, 8});
    image.set_point(0, 0, Vector3f(0, 0, 400));
    image.set_point(4, 4, Vector3f(kNaN, 0, 400));
    image.set_point(7, 7, Vector3f(1, 0, 400));
    EXPECT_EQ(plane_ratio(image, 0.2f, 1), 0.0f);
    image.set_point(3, 5, Vector3f(0.1f, 0.7f, 400.3f));
    EXPECT_EQ(plane_ratio(image, 0.0f, -3), 1.0f);
    image.set_point(2, 5, Vector3f(0, 0, 400));  // all on one line but one
    image.set_point(2, 6, Vector3f(2, 0, 400));
    EXPECT_EQ(plane_ratio(image, 0.1f, 1), 1.0f);
    EXPECT_EQ(plane_ratio(image, 0.1f, 1 << 30), 0.0f);
    for (const float distance : {-0.1f, kNaN, -kInfinity}) EXPECT_EQ(plane_ratio(image, distance, 1), 0.0f);
    EXPECT_EQ(plane_ratio(PointImage(), 0.2f, 16), 0.0f);
}

// ---- all of them --------------------------------------------------------------------------------------

using Operation = std::function<void(PointImage&)>;
const std::vector<Operation> operations = {
    [](PointImage& image) { image.update_VNrv(1, 2, 2.0f); },
    [](PointImage& image) { image.find_egde_point(3, 0.5f, 20); },
    [](PointImage& image) { image.delete_island(3, 0.5f, 30); },
    [](PointImage& image) { image.delete_island_through_depth(3, 0.25f, 30, Vector3f::Zero()); },
    [](PointImage& image) { image.delete_point_flaged(Vector3f::Zero()); },
    [](PointImage& image) { image.delete_point_without_normal(); },
};

TEST(PointImageNeighbourhood, ResultDoesNotDependOnThreadsRunOrInstructionSet) {
    const PointImage input = make_patchwork({131, 700}, 13);
    std::vector<std::pair<PointImage, float>> results;
    with_every_instruction_set([&] {
        for (const int threads : {1, 2, 7}) {
            auto& [image, ratio] = results.emplace_back(input, 0.0f);
            tbb::task_arena(threads).execute([&, &image = image, &ratio = ratio] {
                for (const Operation& operation : operations) operation(image);
                image.plane_detect(ratio, 0.2f, 3);
            });
        }
    });
    const auto& [first, firstRatio] = results.front();
    EXPECT_GT(first.count_vaildNum(), 0);
    EXPECT_LT(first.count_vaildNum(), input.count_vaildNum());
    for (const auto& [image, ratio] : results) {
        EXPECT_TRUE(is_same(image, first));
        EXPECT_EQ(ratio, firstRatio);
    }
}

TEST(PointImageNeighbourhood, MeaninglessLimitsAndBrokenImagesChangeNothing) {
    const PointImage image = make_patchwork({31, 17}, 17);
    PointImage asBefore = image;
    for (const float limit : {-0.1f, kNaN}) {
        asBefore.find_egde_point(3, limit, 20);
        asBefore.delete_island(3, limit, 20);
        asBefore.delete_island_through_depth(3, limit, 20, Vector3f::Zero());
    }
    for (const int count : {1, std::numeric_limits<int>::min()}) asBefore.delete_island(3, 1.0f, count);
    EXPECT_TRUE(is_same(asBefore, image));
    PointImage shortCoords = image, shortNormals = image;
    shortCoords.set_vCoords(std::vector<Vector3f>(5, Vector3f(1, 2, 3)));
    shortNormals.set_vNrvs(std::vector<Vector3f>(3, Vector3f::UnitZ()));
    for (const PointImage& broken : {shortCoords, shortNormals}) {
        for (const Operation& operation : operations) {
            PointImage result = broken;
            operation(result);
            EXPECT_TRUE(is_same(result, broken));
        }
        EXPECT_EQ(plane_ratio(broken, 0.2f, 1), 0.0f);
    }
    for (const Size& size : oddSizes) {  // nothing outside is read
        PointImage odd = make_patchwork(size, 11);
        for (const int window : {-4, 1, 5, 1 << 30}) odd.find_egde_point(window, window == 5 ? kInfinity : 0.25f, 12);
    }
}

// Archives may say so.
TEST(PointImageNeighbourhood, ManyRowsWithoutSlotsTakeNoTime) {
    constexpr int most = std::numeric_limits<int>::max();
    for (const Size& size : {Size(0, most), Size(most, 0)}) {
        PointImage image = make_image(size);
        for (const Operation& operation : operations) operation(image);
        EXPECT_EQ(plane_ratio(image, 1.0f, 1), 0.0f);
        EXPECT_TRUE(image.is_legal());
    }
}

}  // namespace
