// Archives, swapping and value semantics of all geometry types in the same cases.
#include <memory>

#include "foundation/BaseTriMesh.h"
#include "foundation/PointImage.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace {

using namespace VexelAlgorithm;

namespace fs = std::filesystem;

void fill_vertices(Cloud& cloud, std::size_t vn) {
    cloud.resize_vn(vn);
    cloud.enable_vNormal();
    cloud.enable_vColor();
    cloud.enable_vFlag();
    for (std::size_t i = 0; i < vn; ++i) {
        const float f = static_cast<float>(i);
        cloud.set_vCoord(i, {f + 1.0f, -f, 0.5f});
        cloud.set_vNrv(i, {0.0f, 1.0f, f});
        cloud.set_vColor(i, {0.25f, f, 1.0f});
        cloud.get_vFlag(i).bits = static_cast<std::uint8_t>(i % 4 == 1 ? VertexFlag::Locked : 0);
    }
}

void fill(Cloud& cloud) {
    fill_vertices(cloud, 12);
}

void fill(CloudWithWeight& cloud) {
    fill_vertices(cloud, 12);
    cloud.enable_vWeight();
    for (std::size_t i = 0; i < 12; ++i) cloud.set_vWeight(i, 100.0f + static_cast<float>(i));
}

void fill(PointImage& frame) {
    frame.ini(4, 3, CameraInParam(500.0, 510.0, 2.0, 1.5), 2, Vector2f(7.0f, 8.0f));
    fill(static_cast<CloudWithWeight&>(frame));
    frame.set_rt({Matrix3d::Identity(), Vector3d(1.0, 2.0, 3.0)});
}

void fill(BaseTriMesh& mesh) {
    fill_vertices(mesh, 12);
    mesh.enable_fNormal();
    mesh.enable_fFlag();
    mesh.enable_texture();
    mesh.set_faces({{{0, 1, 2}}, {{2, 1, 3}}, {{9, 10, 11}}, {{-1, 5, 99}}});
    mesh.set_fNrv(1, {0.0f, 0.0f, 1.0f});
    mesh.set_fTexCoord(2, {Vector2f(0.1f, 0.2f), Vector2f(0.3f, 0.4f), Vector2f(0.5f, 0.6f)});
    mesh.set_texture_name("colours.png");
}

std::string bytes_of(const Cloud& cloud) {
    std::ostringstream out;
    EXPECT_TRUE(cloud.write_archive(out));
    return out.str();
}

bool read_bytes(Cloud& cloud, const std::string& bytes) {
    std::istringstream in(bytes);
    return cloud.read_archive(in);
}

template <class T>
class GeometryTypes : public testing::Test {
protected:
    GeometryTypes() { fill(filled); }
    T filled;
};
using AllTypes = testing::Types<Cloud, CloudWithWeight, PointImage, BaseTriMesh>;
TYPED_TEST_SUITE(GeometryTypes, AllTypes);

TYPED_TEST(GeometryTypes, ArchivesBringEverythingBackOrChangeNothing) {
    const std::string bytes = bytes_of(this->filled);
    TypeParam read, empty;
    const std::string before = bytes_of(empty);
    for (std::size_t length = 0; length < bytes.size(); ++length)
        ASSERT_FALSE(read_bytes(read, bytes.substr(0, length))) << length;
    // At 0 the type, at 4 the attributes, at 8 the number of points.
    const std::pair<std::size_t, std::uint64_t> damages[] = {{8, ~std::uint64_t{0}}, {8, 1 << 31}, {0, 77}, {4, ~0u}};
    for (const auto& [at, value] : damages) {
        std::string damaged = bytes;
        std::memcpy(&damaged[at], &value, at == 8 ? 8 : 4);
        EXPECT_FALSE(read_bytes(read, damaged)) << at;
    }
    EXPECT_EQ(bytes_of(read), before);

    ASSERT_TRUE(read_bytes(read, bytes));
    EXPECT_TRUE(read.is_legal());
    EXPECT_EQ(read.get_type(), this->filled.get_type());
    EXPECT_EQ(bytes_of(read), bytes);
    EXPECT_EQ(read.get_vColor(3), Vector3f(0.25f, 3.0f, 1.0f));
    ASSERT_TRUE(read_bytes(read, before));
    EXPECT_EQ(bytes_of(read), before);
}

TYPED_TEST(GeometryTypes, StreamsThatThrowAndIllegalCloudsGiveFalse) {
    std::istringstream in("short");
    in.exceptions(std::ios::failbit | std::ios::badbit | std::ios::eofbit);
    const std::string before = bytes_of(this->filled);
    EXPECT_FALSE(this->filled.read_archive(in));
    EXPECT_EQ(bytes_of(this->filled), before);

    this->filled.set_vNrvs({Vector3f::Zero()});
    std::ostringstream out;
    EXPECT_FALSE(this->filled.is_legal() || this->filled.write_archive(out) || this->filled.swap_out_data() == 0);
    EXPECT_EQ(this->filled.get_vn(), 12u);
    this->filled.repair_illegal();
    EXPECT_TRUE(this->filled.is_legal());
    EXPECT_EQ(this->filled.get_vNrv(11), Vector3f::Zero());
}

TYPED_TEST(GeometryTypes, SwapsOutAndIn) {
    const std::string before = bytes_of(this->filled);
    EXPECT_NE(this->filled.swap_in_data(), 0) << "nothing is swapped out";
    const fs::path file = this->filled.get_temp_full_name();
    ASSERT_EQ(this->filled.swap_out_data(), 0);
    EXPECT_EQ(this->filled.get_vn(), 0u);
    EXPECT_EQ(this->filled.get_vCoords().capacity(), 0u) << "memory is given back";
    EXPECT_TRUE(this->filled.is_legal());
    EXPECT_NE(this->filled.swap_out_data(), 0) << "twice would lose the first file";

    TypeParam copy(this->filled);
    EXPECT_EQ(copy.get_vn(), 0u);
    EXPECT_NE(copy.swap_in_data(), 0) << "the file belongs to the original";

    fs::resize_file(file, fs::file_size(file) - 1);
    EXPECT_NE(this->filled.swap_in_data(), 0) << "damaged";
    EXPECT_EQ(this->filled.get_vn(), 0u);
    VexelTrial::put_bytes(file, before);

    TypeParam moved(std::move(this->filled));
    EXPECT_NE(this->filled.swap_in_data(), 0);
    ASSERT_EQ(moved.swap_in_data(), 0) << "the file goes along";
    EXPECT_EQ(bytes_of(moved), before);
    EXPECT_FALSE(fs::exists(file));
    this->filled = std::move(moved);

    fs::create_directory(this->filled.get_temp_full_name());
    EXPECT_NE(this->filled.swap_out_data(), 0) << "the file cannot be created";
    EXPECT_EQ(bytes_of(this->filled), before);
    fs::remove(this->filled.get_temp_full_name());
}

TYPED_TEST(GeometryTypes, LeftOverSwapFilesAreRemoved) {
    const std::pair<const char*, std::function<void(std::unique_ptr<TypeParam>&)>> table[] = {
        {"destruction", [](auto& object) { object.reset(); }},
        {"clear", [](auto& object) { object->clear(); }},
        {"copy assignment", [&](auto& object) { *object = this->filled; }},
        {"move assignment", [](auto& object) { *object = TypeParam(); }},
        {"reading", [&](auto& object) { EXPECT_TRUE(read_bytes(*object, bytes_of(this->filled))); }}};
    for (const auto& [name, action] : table) {
        auto object = std::make_unique<TypeParam>(this->filled);
        ASSERT_EQ(object->swap_out_data(), 0);
        const fs::path file = object->get_temp_full_name();
        EXPECT_TRUE(fs::exists(file));
        action(object);
        EXPECT_FALSE(fs::exists(file)) << name;
    }
}

TYPED_TEST(GeometryTypes, CopiesAndMoves) {
    const std::string before = bytes_of(this->filled);
    TypeParam copy(this->filled), assigned;
    assigned = copy;
    EXPECT_NE(copy.get_temp_full_name(), this->filled.get_temp_full_name());
    TypeParam moved(std::move(copy));
    EXPECT_EQ(bytes_of(moved), before);
    EXPECT_TRUE(copy.is_legal() && copy.get_vn() == 0);
    copy = std::move(moved);
    EXPECT_EQ(bytes_of(copy), before);
    TypeParam& itself = copy;
    copy = std::move(itself);
    copy = itself;
    EXPECT_EQ(bytes_of(copy), before);
    copy.set_vCoord(0, {9.0f, 9.0f, 9.0f});
    EXPECT_EQ(bytes_of(assigned), before) << "copies are deep";

    const Cloud sliced(this->filled);
    EXPECT_EQ(sliced.get_type(), DataType::Cloud);
    EXPECT_EQ(bytes_of(sliced).size(), 16 + 12 * (36u + 1u));
}

TEST(Cloud, AttributesFollowTheVertices) {
    CloudWithWeight cloud;
    fill(cloud);
    EXPECT_EQ(cloud.add_vCoord({1.0f, 1.0f, 1.0f}), 12u);
    cloud.resize_vn(20);
    EXPECT_TRUE(cloud.is_legal());
    EXPECT_EQ(cloud.get_vWeight(12), 0.0f);
    cloud.set_vCoords(std::vector<Vector3f>(5, Vector3f::Ones()));
    EXPECT_TRUE(cloud.is_legal());
    EXPECT_EQ(cloud.get_vWeight(4), 104.0f);
    cloud.set_vWeights({1.0f});
    EXPECT_FALSE(cloud.is_legal());
    cloud.disable_vFlag();
    EXPECT_FALSE(cloud.get_vDeleted(3)) << "without flags nothing is deleted";
    cloud.clear();
    EXPECT_TRUE(cloud.is_legal() && cloud.is_enable_vColor() && cloud.is_enable_vWeight());

    fill(cloud);
    Vector3f low, high;
    for (const std::size_t i : {0, 3, 4, 11}) cloud.set_vDeleted(i, true);
    EXPECT_TRUE(cloud.get_boundBox(low, high));
    EXPECT_TRUE(low == Vector3f(2, -10, 0.5f) && high == Vector3f(11, -1, 0.5f)) << "without what is deleted";
    cloud.squeeze(true);
    ASSERT_TRUE(cloud.is_legal());
    EXPECT_EQ(cloud.get_vWeights(), (std::vector<float>{101, 102, 105, 106, 107, 108, 109, 110}));
    EXPECT_EQ(cloud.get_vNrv(2).z(), 5.0f);
    EXPECT_TRUE(cloud.get_vFlag(2).test(VertexFlag::Locked));
}

TEST(BaseTriMesh, SqueezeRenumbersFaces) {
    BaseTriMesh mesh;
    fill(mesh);
    mesh.set_vDeleted(0, true);
    mesh.squeeze(false);
    ASSERT_TRUE(mesh.is_legal());
    ASSERT_EQ(mesh.get_fn(), 2u) << "the faces of the dropped and of missing vertices are gone";
    EXPECT_EQ(mesh.get_face(0)[0], 1);
    EXPECT_EQ(mesh.get_face(1)[2], 10);
    EXPECT_EQ(mesh.get_fNrv(0), Vector3f(0, 0, 1));
    EXPECT_EQ(mesh.get_fTexCoord(1)[2], Vector2f(0.5f, 0.6f));
    mesh.set_fDeleted(0, true);
    mesh.squeeze(true);
    EXPECT_EQ(mesh.get_fn(), 1u);
    EXPECT_EQ(mesh.get_vn(), 11u) << "unused vertices stay";
}

TEST(BaseTriMesh, VertexNormalsWeighFacesByArea) {
    BaseTriMesh mesh;
    mesh.set_vCoords({{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 1}, {5, 5, 5}, {VexelTest::kNaN, 0, 0}});
    // Area 2 with normal +z, area 1 with normal +x; then no area, a missing vertex, a NaN corner, a deleted face.
    mesh.set_faces({{{0, 1, 2}}, {{0, 2, 3}}, {{0, 0, 1}}, {{0, 1, 17}}, {{0, 1, 5}}, {{0, 1, 3}}});
    mesh.set_fDeleted(5, true);
    mesh.enable_fNormal();
    mesh.update_VNrv();
    EXPECT_LT((mesh.get_vNrv(0) - Vector3f(1, 0, 2).normalized()).norm(), 1e-6f);
    EXPECT_EQ(mesh.get_vNrv(1), Vector3f(0, 0, 1));
    EXPECT_EQ(mesh.get_vNrv(4), Vector3f::Zero());
    EXPECT_EQ(mesh.get_fNrv(1), Vector3f(1, 0, 0));
    EXPECT_EQ(mesh.get_fNrv(3), Vector3f::Zero());

    mesh.rigid_transformation({VexelTest::turned({0, std::acos(0.0), 0}), {1, 2, 3}});
    EXPECT_LT((mesh.get_fNrv(0) - Vector3f(1, 0, 0)).norm(), 1e-6f);
    EXPECT_LT((mesh.get_vCoord(3) - Vector3f(2, 2, 3)).norm(), 1e-6f);
}

}  // namespace
