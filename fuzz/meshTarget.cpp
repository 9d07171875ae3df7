// Mesh files.
#include "fuzz/target.h"
#include "recording/meshReaders.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace VexelAlgorithm;
    using VexelFuzz::require;
    constexpr MeshFault (*readers[])(std::string_view, MeshData&) = {read_ply, read_obj, read_stl};
    std::string_view input = VexelFuzz::text_of(data, size);
    const std::size_t choice = VexelFuzz::take_choice(input, std::size(readers));

    MeshData mesh;
    if (readers[choice](input, mesh) != nullptr) return 0;
    // A point takes at least three bytes, in PLY files of three properties of one byte; a corner takes one.
    require(mesh.points.size() <= size && mesh.triangles.size() <= size, "a mesh is not larger than its file");
    const int count = static_cast<int>(mesh.points.size());
    for (const Vector3i& triangle : mesh.triangles)
        require(triangle.minCoeff() >= 0 && triangle.maxCoeff() < count, "the corners of a triangle exist");
    return 0;
}
