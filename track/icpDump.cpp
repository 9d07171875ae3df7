// What an ICP iteration worked with, as text for a person to look at.
#include <filesystem>
#include <ostream>

#include "foundation/Cloud.h"
#include "foundation/ReplacedFile.h"
#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/meshExport.h"
#include "track/IcpState.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

std::string dump_path(const std::string& folder, const char* name, int iterId) {
    return (std::filesystem::path(folder) / format_text(name, iterId)).string();
}

Cloud usable_points(const FixedImage& fixed) {
    Cloud cloud;
    cloud.enable_vNormal();
    for (std::size_t slot = 0; slot < fixed.slot_count(); ++slot) {
        if (!fixed.is_usable(slot)) continue;
        const FixedImage::Point& point = fixed.points()[slot];
        const FixedImage::Normal& normal = fixed.normals()[slot];
        cloud.set_vNrv(cloud.add_vCoord({point.x, point.y, point.z}), {normal.x, normal.y, normal.z});
    }
    return cloud;
}

Vector3f moved_point(const MovingPoint& point, const RigidMatrix& pose) {
    return pose * Vector3f(point.x, point.y, point.z);
}

void write_correspondence(std::ostream& out, const CorrPoint& pair, const Correspondence& c, std::int32_t movingSlot) {
    for (const Vector3f& vector : {pair.fixed, pair.normal, pair.moving}) {
        out << vector.x() << ' ' << vector.y() << ' ' << vector.z() << ' ';
    }
    out << c.distance << ' ' << c.mode << ' ' << movingSlot << ' ' << c.pixel << '\n';
}

}  // namespace

// A dump that cannot be written prints a line and ends nothing.

void IcpBaseOnCam::State::debug_outpu_data(int iterId) const {
    guarded("debug_outpu_data", [&] {
        Cloud moved;
        moved.reserve_vn(moving.count());
        for (std::size_t i = 0; i < moving.count(); ++i) moved.add_vCoord(moved_point(moving.points()[i], currentPose));
        write_asc(dump_path(debugPath, "icpFixed_%d.txt", iterId), usable_points(fixed));
        write_asc(dump_path(debugPath, "icpMoving_%d.txt", iterId), moved);
    });
}

void IcpBaseOnCam::State::output_corr_point(int iterId) const {
    guarded("output_corr_point", [&] {
        const std::string path = dump_path(debugPath, "icpCorrespond_%d.txt", iterId);
        const Alignment current = alignment(currentPose);
        const Vector3f centre = fixed.centre().cast<float>();
        ReplacedFile file(path);
        for (std::size_t i = 0; i < cloudCorr.count(); ++i) {
            const Correspondence c = cloudCorr.at(i);
            const ProjectedPoint p = project(current.moving[c.movingEntry], current.movingToFixed, fixed.camera());
            CorrPoint pair = get_corrPoint(p, c, fixed);
            pair.fixed += centre;
            pair.moving += centre;
            write_correspondence(file.stream(), pair, c, moving.slot(static_cast<std::size_t>(c.movingEntry)));
        }
        if (!file.commit()) print_line("output_corr_point fail because " + path + " cannot be written");
    });
}

}  // namespace Track
}  // namespace VexelAlgorithm
