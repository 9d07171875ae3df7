// Surface extraction from the octree.
//
// Vertex pass, octet by octet in leaf order: read the 3 x 3 x 3 voxels that the octet's eight cubes need, make a
// vertex on each of the 24 voxel edges that the octet owns where the value changes its sign, and note the case
// of each cube. Then the vertices are numbered: an octet keeps a mask of its edges with a vertex and the number
// of its first one, so that the number of any edge's vertex is a bit count away. Face pass: look up the vertices
// of each cube's triangles. Both passes work on chunks of octets that are joined in order, which makes the mesh
// the same for any number of threads.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <vector>

#include "foundation/BaseTriMesh.h"
#include "foundation/parallel.h"
#include "fusion/OctetCache.h"
#include "fusion/Octree.h"
#include "fusion/marchingCubesTable.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Runs body(0) ... body(count - 1) on TBB's workers.
struct TbbChunks {
    int threads;

    template <class Body>
    void operator()(std::size_t count, const Body& body) const {
        parallel_ranges(threads, count, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) body(i);
        });
    }
};

/// The same with OpenMP, out of whose loops no exception may come: the first one is thrown behind the loop.
struct OpenMpChunks {
    int threads;

    template <class Body>
    void operator()(std::size_t count, const Body& body) const {
        std::exception_ptr failure;
        const int chunks = static_cast<int>(count);
        const int workers = usable_threads(threads);
        (void)workers;
#pragma omp parallel for schedule(dynamic) num_threads(workers)
        for (int i = 0; i < chunks; ++i) {
            try {
                body(static_cast<std::size_t>(i));
            } catch (...) {
#pragma omp critical(vexel_open_mp_chunks)
                failure = std::current_exception();
            }
        }
        if (failure) std::rethrow_exception(failure);
    }
};

namespace marching_cubes {

constexpr std::size_t OctetsPerChunk = 2048;

/// The lattice of voxels around an octet: index x + 3 y + 9 z, 0 <= x, y, z <= 2; the octet's own voxels are
/// those with x, y, z <= 1.
constexpr int lattice_index(int x, int y, int z) {
    return x + 3 * y + 9 * z;
}

/// What the passes need of each voxel of the lattice. A voxel that is missing or unused has value 0 and no
/// contributions.
struct Lattice {
    std::array<float, 27> value;
    std::array<int, 27> count;
};

/// An octet with a surface in at least one of its cubes.
struct SurfaceOctet {
    std::array<std::int32_t, 8> octets;  // its own number, then its neighbours' at +x, +y, +xy, +z, ... or -1
    std::array<std::uint8_t, 8> cases;   // cube case of each voxel; 0 where no cube starts
};

struct Chunk {
    std::vector<Vector3f> vertices;
    std::vector<int> axes;
    std::vector<SurfaceOctet> surface;
    std::vector<BaseTriFace> faces;
    std::size_t firstVertex = 0;
};

/// Which voxel edges have a vertex. Edge bit 3 * child code + axis of the octet.
struct EdgeVertices {
    std::vector<std::uint32_t> masks;
    std::vector<std::int32_t> firsts;  // within the octet's chunk

    static int bit(int code, int axis) { return 3 * code + axis; }
};

inline int count_bits(std::uint32_t bits) {
    bits -= (bits >> 1) & 0x55555555u;
    bits = (bits & 0x33333333u) + ((bits >> 2) & 0x33333333u);
    return static_cast<int>((((bits + (bits >> 4)) & 0x0f0f0f0fu) * 0x01010101u) >> 24);
}

template <class Leaf>
void read_octet(const VexelOctree::Octree<Leaf>& tree, std::int32_t octet, int dx, int dy, int dz, Lattice& lattice) {
    for (int code = 0; code < 8; ++code) {
        const int x = 2 * dx + (code & 1), y = 2 * dy + ((code >> 1) & 1), z = 2 * dz + (code >> 2);
        if (x > 2 || y > 2 || z > 2) continue;
        const int at = lattice_index(x, y, z);
        lattice.value[static_cast<std::size_t>(at)] = 0.0f;
        lattice.count[static_cast<std::size_t>(at)] = 0;
        if (octet < 0) continue;
        const Leaf& leaf = tree.leaf_at(8 * octet + code);
        if (!leaf.is_used()) continue;
        lattice.value[static_cast<std::size_t>(at)] = leaf.value();
        lattice.count[static_cast<std::size_t>(at)] = leaf.count();
    }
}

/// The voxels of the octet, as a mask of child codes, from which vertices and cubes start.
inline unsigned find_bases(const Lattice& lattice, const Vector3i& low, int upper, float minWeight) {
    unsigned bases = 0;
    for (int code = 0; code < 8; ++code) {
        const Vector3i voxel = low + Vector3i(code & 1, (code >> 1) & 1, code >> 2);
        const auto at = static_cast<std::size_t>(lattice_index(code & 1, (code >> 1) & 1, code >> 2));
        if (voxel.minCoeff() < 1 || voxel.maxCoeff() >= upper) continue;
        if (lattice.count[at] == 0 || static_cast<float>(lattice.count[at]) < minWeight) continue;
        if (std::abs(lattice.value[at]) < 1e-6f) continue;
        bases |= 1u << code;
    }
    return bases;
}

/// Makes the vertices on the three edges of one voxel towards +x, +y, +z; returns their bits.
inline std::uint32_t make_vertices(const Lattice& lattice, int code, const Vector3f& centre, const Vector3f& shift,
                                   float pointDis, float minWeight, Chunk& chunk) {
    constexpr int step[3] = {1, 3, 9};
    const int at = lattice_index(code & 1, (code >> 1) & 1, code >> 2);
    const float v = lattice.value[static_cast<std::size_t>(at)];
    std::uint32_t made = 0;
    for (int axis = 0; axis < 3; ++axis) {
        const auto neighbour = static_cast<std::size_t>(at + step[axis]);
        const float w = lattice.value[neighbour];
        // The owner passes at minWeight already, its neighbour only above it.
        if (!(v * w < 0.0f) || !(static_cast<float>(lattice.count[neighbour]) > minWeight)) continue;
        Vector3f vertex = centre;
        vertex[axis] += pointDis * std::abs(v) / (std::abs(v) + std::abs(w));
        vertex += shift;
        if (!vertex.allFinite()) continue;
        chunk.vertices.push_back(vertex);
        chunk.axes.push_back(axis);
        made |= 1u << EdgeVertices::bit(code, axis);
    }
    return made;
}

inline std::uint8_t cube_case(const Lattice& lattice, int code) {
    unsigned bits = 0;
    for (int corner = 0; corner < 8; ++corner) {
        const auto at = static_cast<std::size_t>(lattice_index((code & 1) + CubeCorner[corner][0],
                                                               ((code >> 1) & 1) + CubeCorner[corner][1],
                                                               (code >> 2) + CubeCorner[corner][2]));
        if (lattice.count[at] > 0 && lattice.value[at] < 0.0f) bits |= 1u << corner;
    }
    return static_cast<std::uint8_t>(bits);
}

template <class Leaf>
void vertex_pass(const VexelOctree::Octree<Leaf>& tree, float minWeight, std::size_t first, std::size_t last,
                 EdgeVertices& edges, Chunk& chunk) {
    OctetCache cache;
    const int upper = tree.get_size() - 2;
    const float pointDis = tree.get_pointDis();
    Lattice lattice;
    for (std::size_t i = first; i < last; ++i) {
        const auto octet = static_cast<std::int32_t>(i);
        edges.masks[i] = 0;
        edges.firsts[i] = static_cast<std::int32_t>(chunk.vertices.size());
        const Vector3i low = tree.leaf_coordinates(8 * octet);
        read_octet(tree, octet, 0, 0, 0, lattice);
        const unsigned bases = find_bases(lattice, low, upper, minWeight);
        if (bases == 0) continue;

        SurfaceOctet surface;
        surface.octets[0] = octet;
        for (int n = 1; n < 8; ++n) {
            const int dx = n & 1, dy = (n >> 1) & 1, dz = n >> 2;
            const Vector3i voxel = low + 2 * Vector3i(dx, dy, dz);
            const bool inside = tree.is_inside(voxel.x(), voxel.y(), voxel.z());
            const std::int32_t leaf = inside ? cache.find(tree, voxel.x(), voxel.y(), voxel.z()) : -1;
            surface.octets[static_cast<std::size_t>(n)] = leaf < 0 ? -1 : leaf / 8;
            read_octet(tree, surface.octets[static_cast<std::size_t>(n)], dx, dy, dz, lattice);
        }
        bool hasSurface = false;
        for (int code = 0; code < 8; ++code) {
            surface.cases[static_cast<std::size_t>(code)] = 0;
            if ((bases >> code & 1u) == 0) continue;
            const Vector3i voxel = low + Vector3i(code & 1, (code >> 1) & 1, code >> 2);
            const Vector3f centre = (voxel.cast<float>() + Vector3f::Constant(0.5f)) * pointDis;
            edges.masks[i] |= make_vertices(lattice, code, centre, tree.get_shift(), pointDis, minWeight, chunk);
            const std::uint8_t cubeCase = cube_case(lattice, code);
            surface.cases[static_cast<std::size_t>(code)] = cubeCase;
            hasSurface = hasSurface || (cubeCase != 0 && cubeCase != 255);
        }
        if (hasSurface) chunk.surface.push_back(surface);
    }
}

/// The number of the vertex on an edge of the cube that starts at the octet's voxel `code`; -1 for none.
inline std::int32_t vertex_of(const SurfaceOctet& surface, int code, const CubeEdge& edge, const EdgeVertices& edges,
                              const std::vector<Chunk>& chunks) {
    const int x = (code & 1) + edge.x, y = ((code >> 1) & 1) + edge.y, z = (code >> 2) + edge.z;
    const std::int32_t owner = surface.octets[static_cast<std::size_t>((x >> 1) + 2 * (y >> 1) + 4 * (z >> 1))];
    if (owner < 0) return -1;
    const auto at = static_cast<std::size_t>(owner);
    const std::uint32_t bit = 1u << EdgeVertices::bit((x & 1) + 2 * (y & 1) + 4 * (z & 1), edge.axis);
    if ((edges.masks[at] & bit) == 0) return -1;
    return static_cast<std::int32_t>(chunks[at / OctetsPerChunk].firstVertex) + edges.firsts[at] +
           count_bits(edges.masks[at] & (bit - 1));
}

inline void face_pass(const EdgeVertices& edges, const std::vector<Chunk>& chunks, Chunk& chunk) {
    for (const SurfaceOctet& surface : chunk.surface) {
        for (int code = 0; code < 8; ++code) {
            const std::int8_t* row = TriangleTable[surface.cases[static_cast<std::size_t>(code)]];
            for (; *row >= 0; row += 3) {
                // Backwards, so that faces look out of the surface.
                BaseTriFace face;
                for (int k = 0; k < 3; ++k) face[k] = vertex_of(surface, code, CubeEdges[row[2 - k]], edges, chunks);
                if (face[0] >= 0 && face[1] >= 0 && face[2] >= 0) chunk.faces.push_back(face);
            }
        }
    }
}

template <class Record>
std::vector<Record> join(std::vector<Chunk>& chunks, std::vector<Record> Chunk::*part) {
    std::size_t total = 0;
    for (const Chunk& chunk : chunks) total += (chunk.*part).size();
    std::vector<Record> all;
    all.reserve(total);
    for (Chunk& chunk : chunks) {
        all.insert(all.end(), (chunk.*part).begin(), (chunk.*part).end());
        std::vector<Record>().swap(chunk.*part);
    }
    return all;
}

}  // namespace marching_cubes

/// Marching cubes over all voxels of a tree with one leaf bit, into an empty mesh. `runChunks(count, body)` runs
/// the chunks, in any order and in parallel.
template <class Leaf, class RunChunks>
void march_cubes(const VexelOctree::Octree<Leaf>& tree, float minWeight, BaseTriMesh& mesh,
                 std::vector<int>& vertexAxis, const RunChunks& runChunks) {
    using namespace marching_cubes;
    const auto octets = static_cast<std::size_t>(tree.get_vaild_leaf_num() / 8);
    std::vector<Chunk> chunks((octets + OctetsPerChunk - 1) / OctetsPerChunk);
    EdgeVertices edges{std::vector<std::uint32_t>(octets), std::vector<std::int32_t>(octets)};

    runChunks(chunks.size(), [&](std::size_t i) {
        vertex_pass(tree, minWeight, i * OctetsPerChunk, std::min((i + 1) * OctetsPerChunk, octets), edges, chunks[i]);
    });
    for (std::size_t i = 1; i < chunks.size(); ++i) {
        chunks[i].firstVertex = chunks[i - 1].firstVertex + chunks[i - 1].vertices.size();
    }
    runChunks(chunks.size(), [&](std::size_t i) { face_pass(edges, chunks, chunks[i]); });

    mesh.set_vCoords(join(chunks, &Chunk::vertices));
    mesh.set_faces(join(chunks, &Chunk::faces));
    vertexAxis = join(chunks, &Chunk::axes);
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
