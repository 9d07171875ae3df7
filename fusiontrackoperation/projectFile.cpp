#include "fusiontrackoperation/projectFile.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/archive.h"
#include "foundation/diagnostics.h"
#include "fusion/leafFile.h"
#include "fusion/octreeFile.h"
#include "fusiontrackoperation/rigidPose.h"

namespace VexelAlgorithm {
namespace {

using Archive::read_array;
using Archive::read_value;
using Archive::write_array;
using Archive::write_value;

constexpr std::string_view MAGIC = "FUSION";
constexpr std::int32_t HEADER_VERSION = 1;
constexpr std::int32_t MAJOR_VERSION = 1;
constexpr std::int32_t MINOR_VERSION = 0;

// What a section says when the stream is not, or no longer, good; from the trees on the same in both directions.
constexpr const char* BAD_START = "read_whole_tree fail , invaild path ";  // header and poses, in reading
constexpr const char* BAD_TREES = "tree prative open Path Fail";
constexpr const char* BAD_LEAVES = "open leaf Path Fail , save fail";
constexpr const char* BAD_DISPLAY = "result data open Path Fail , save fail";

bool fail(std::string_view line) {
    print_line(line);
    return false;
}

bool refuse(const std::string& reason) {
    return fail("read_project fail because " + reason);
}

bool are_finite(const std::vector<Vector3f>& vectors) {
    return std::all_of(vectors.begin(), vectors.end(), [](const Vector3f& v) { return v.allFinite(); });
}

/// The two settings that say which volume this is, as the file holds them. Without the voxel size the leaves have no
/// place in space; the integer has the bits of the float, so that every size compares exactly.
std::array<std::int32_t, 2> volume_settings(const SessionVolume& volume) {
    const float pointDis = volume.get_pointDis();
    std::array<std::int32_t, 2> settings = {volume.get_treeDepth(), 0};
    static_assert(sizeof(settings[1]) == sizeof(pointDis), "the bits of a float fit the integer");
    std::memcpy(&settings[1], &pointDis, sizeof(pointDis));
    return settings;
}

double voxel_size(const std::array<std::int32_t, 2>& settings) {
    float pointDis = 0.0F;
    std::memcpy(&pointDis, &settings[1], sizeof(pointDis));
    return static_cast<double>(pointDis);
}

// ---- writing ----------------------------------------------------------------------------------------

bool write_header(std::ofstream& out) {
    out.write(MAGIC.data(), static_cast<std::streamsize>(MAGIC.size()));
    for (const std::int32_t version : {HEADER_VERSION, MAJOR_VERSION, MINOR_VERSION}) write_value(out, version);
    return out.good() || fail("save_whole_tree fail , invaild path");
}

void write_poses(std::ofstream& out, const std::vector<RigidMatrix>& poses) {
    write_value(out, static_cast<std::int32_t>(poses.size()));
    for (const RigidMatrix& pose : poses) pose.write_archive(out);
}

bool write_trees(std::ofstream& out, const SessionVolume& volume) {
    print_line("save tree prative");
    if (!out.good()) return fail(BAD_TREES);
    return (write_value(out, volume_settings(volume)) && write_value(out, volume.get_treeShift()) &&
            VexelOctree::save_trees_binary(volume.get_fusion_tree(), out)) ||
           fail(BAD_TREES);
}

bool write_leaves(std::ofstream& out, const SessionVolume& volume, const LeafColors& colors) {
    const auto& tree = volume.get_fusion_tree();
    const std::int32_t leafCount = tree.get_vaild_leaf_num();
    print_line(format_text("the max vaild leaf id = %d", leafCount - 1));
    print_line("save leaf data");
    if (!out.good()) return fail(BAD_LEAVES);
    if (tree.pool().size() == 0) return fail("leaf tree  has been destory ,save fail.");
    print_line(format_text("leaf.size() %d", leafCount));
    const std::int32_t used = Fusion::count_used_leaves(tree);
    print_line(format_text("vaildSize = %d", used));
    return (write_value(out, leafCount) && write_value(out, used) && Fusion::save_used_leaves(tree, colors, out)) ||
           fail(BAD_LEAVES);
}

std::vector<Vector3f> colors_of(const Cloud& cloud) {
    std::vector<Vector3f> colors(cloud.get_vn());
    for (std::size_t i = 0; i < colors.size(); ++i) colors[i] = cloud.get_vColor(i);
    return colors;
}

bool write_display(std::ofstream& out, const LeafPoints& points) {
    print_line("output all cloudShow ");
    if (!out.good()) return fail(BAD_DISPLAY);
    const Cloud& cloud = points.cloud();
    if (cloud.get_vn() == 0) return fail("Result data has been destory , save fail");
    // Every point of the display is valid.
    const auto count = static_cast<std::int32_t>(cloud.get_vn());
    print_line(format_text("show cloud = %d", count));
    print_line(format_text("vaildSize = %d", count));
    write_value(out, count);
    write_value(out, count);
    write_array(out, points.leaves());
    write_array(out, cloud.get_vCoords());
    write_array(out, cloud.get_vNrvs());
    write_array(out, colors_of(cloud));
    // A full disk may show only when the stream's own buffer goes out.
    return out.flush().good() || fail(BAD_DISPLAY);
}

bool read_shown_points(std::ifstream& in, std::uint64_t count, ShownPoints& shown) {
    return read_array(in, count, shown.leaves) && read_array(in, count, shown.points) &&
           read_array(in, count, shown.normals) && read_array(in, count, shown.colors);
}

}  // namespace

bool write_project(std::ofstream& out, const std::vector<RigidMatrix>& poses, const SessionVolume& volume,
                   const LeafColors& colors, const DisplayData& display) {
    if (!write_header(out)) return false;
    write_poses(out, poses);
    return write_trees(out, volume) && write_leaves(out, volume, colors) && write_display(out, display.leaf_points());
}

// ---- reading ----------------------------------------------------------------------------------------

bool read_project_header(std::ifstream& in) {
    std::array<char, MAGIC.size()> magic{};
    in.read(magic.data(), static_cast<std::streamsize>(magic.size()));
    if (std::string_view(magic.data(), magic.size()) != MAGIC) return refuse("no Fusion data");
    const struct {
        const char* name;
        std::int32_t known;
    } versions[] = {
        {"headerVersion", HEADER_VERSION}, {"majorVersion", MAJOR_VERSION}, {"minorVersion", MINOR_VERSION}};
    for (const auto& version : versions) {
        std::int32_t number = 0;  // also that of a file that ends here
        read_value(in, number);
        if (number != version.known) return refuse(format_text("%s != %d", version.name, version.known));
    }
    return in.good() || fail(BAD_START);
}

bool read_project_poses(std::ifstream& in, std::vector<RigidMatrix>& poses) {
    std::int32_t count = 0;
    if (!read_value(in, count)) return fail(BAD_START);
    if (count < 1) return refuse("the number of poses is not positive");
    poses.clear();
    for (std::int32_t i = 0; i < count; ++i) {
        RigidMatrix pose;
        if (!pose.read_archive(in)) return fail(BAD_START);
        if (!is_rigid(pose)) return refuse(format_text("pose %d is not a rigid motion", i));
        poses.push_back(pose);
    }
    return true;
}

bool read_project_volume_header(std::ifstream& in, const SessionVolume& volume, Vector3f& shift) {
    std::array<std::int32_t, 2> settings{};
    if (!read_value(in, settings) || !read_value(in, shift)) return fail(BAD_TREES);
    const std::array<std::int32_t, 2> own = volume_settings(volume);
    if (settings != own) {
        return refuse(format_text("its volume has tree depth %d and voxels of %g mm, that of the session %d and %g mm",
                                  settings[0], voxel_size(settings), own[0], voxel_size(own)));
    }
    return shift.allFinite() || refuse("the shift is not finite");
}

bool read_project_volume(std::ifstream& in, SessionVolume& volume, LeafColors& colors) {
    auto& tree = volume.get_fusion_tree();
    switch (VexelOctree::OctreeReader<Fusion::LeafTSDFSpeckle>(tree, in).run()) {
        case VexelOctree::TreesRead::Ended:
            return fail(BAD_TREES);
        case VexelOctree::TreesRead::Damaged:
            return refuse("the tables of the octree are damaged");
        case VexelOctree::TreesRead::Whole:
            break;
    }
    std::int32_t leafCount = 0, used = 0;
    if (!read_value(in, leafCount) || !read_value(in, used)) return fail(BAD_LEAVES);
    if (leafCount != tree.get_vaild_leaf_num()) return refuse("the leaf count is not that of the octree");
    if (leafCount == 0) return refuse("the volume is empty");
    if (used < 0 || used > leafCount) return refuse("the number of leaves is out of its range");
    switch (Fusion::read_used_leaves(in, used, tree, colors)) {
        case Fusion::LeavesRead::Ended:
            return fail(BAD_LEAVES);
        case Fusion::LeavesRead::DamagedLeaf:
            return refuse("a leaf record is damaged");
        case Fusion::LeavesRead::DamagedOrder:
            return refuse("the leaf ids do not ascend or are out of their range");
        case Fusion::LeavesRead::Whole:
            break;
    }
    return true;
}

bool read_project_display(std::ifstream& in, const SessionVolume& volume, DisplayData& display) {
    if (!in.good()) return fail(BAD_DISPLAY);
    std::int32_t count = 0, valid = 0;
    if (!read_value(in, count) || !read_value(in, valid)) return fail(BAD_DISPLAY);
    if (valid < 0 || valid > count) return refuse("the number of display points is out of its range");
    ShownPoints shown;
    if (!read_shown_points(in, static_cast<std::uint64_t>(valid), shown)) return fail(BAD_DISPLAY);
    if (!are_finite(shown.points) || !are_finite(shown.normals) || !are_finite(shown.colors)) {
        return refuse("a display point is not finite");
    }
    return display.restore(std::move(shown), volume) || refuse("a display id is out of its range or there twice");
}

}  // namespace VexelAlgorithm
