// The archives of geometry: what is read is written again to the same bytes, and may be worked on.
#include <sstream>

#include "foundation/BaseTriMesh.h"
#include "foundation/CloudWithWeight.h"
#include "foundation/PointImage.h"
#include "fuzz/target.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

void work_on(Cloud& cloud) {
    require(cloud.is_legal(), "what was read is legal");
    Vector3f low, high;
    cloud.get_boundBox(low, high);
    cloud.rigid_transformation(RigidMatrix(Matrix3d::Identity(), Vector3d(1.0, 2.0, 3.0)));
    cloud.squeeze(true);
    require(cloud.is_legal(), "what was squeezed is legal");
}

void work_on(CloudWithWeight& cloud) {
    work_on(static_cast<Cloud&>(cloud));
}

void work_on(BaseTriMesh& mesh) {
    mesh.update_VNrv();
    work_on(static_cast<Cloud&>(mesh));
}

void work_on(PointImage& frame) {
    frame.count_point_normal(1, 1, 2, 2, 20.0F);
    frame.find_egde_point(3, 0.3F, 4);
    frame.delete_island(1, 5.0F, 3);
    frame.delete_point_without_normal();
    work_on(static_cast<Cloud&>(frame));
}

void work_on(RigidMatrix& motion) {
    (motion * motion).inverse();
}

void work_on(CameraInParam&) {}

template <class Value>
void take_as(const std::string& bytes) {
    std::istringstream in(bytes);
    Value value;
    if (!value.read_archive(in)) return;
    std::ostringstream out;
    require(value.write_archive(out), "what was read can be written");
    const auto length = static_cast<std::size_t>(in.tellg());
    require(out.str() == bytes.substr(0, length), "what was read is written to the same bytes");
    work_on(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    VexelFuzz::stay_silent();
    // In the order of the seeds.
    static constexpr void (*readers[])(const std::string&) = {take_as<Cloud>,       take_as<CloudWithWeight>,
                                                              take_as<PointImage>,  take_as<BaseTriMesh>,
                                                              take_as<RigidMatrix>, take_as<CameraInParam>};
    std::string_view input = VexelFuzz::text_of(data, size);
    const std::size_t choice = VexelFuzz::take_choice(input, std::size(readers));
    readers[choice](std::string(input));
    return 0;
}
