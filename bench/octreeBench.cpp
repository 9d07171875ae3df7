// Look-up and creation of leaves from one and two threads, on the voxels around a sphere.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "bench/Stopwatch.h"
#include "bench/benchData.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

using Octree = VexelOctree::Octree<Leaf>;

constexpr int TreeDepth = 12;
constexpr std::size_t VoxelsPerPiece = 4096;

enum Order { Scan, Random };

// Voxels at most two from a sphere's surface: the band that integration fills.
std::vector<Vector3i> sphere_band() {
    constexpr int Centre = 1 << (TreeDepth - 1), Radius = 200, HalfWidth = 2;
    constexpr int Reach = Radius + HalfWidth;
    std::vector<Vector3i> voxels;
    for (int z = -Reach; z <= Reach; ++z) {
        for (int y = -Reach; y <= Reach; ++y) {
            for (int x = -Reach; x <= Reach; ++x) {
                const double range = std::sqrt(static_cast<double>(x * x + y * y + z * z));
                if (std::abs(range - Radius) <= HalfWidth) voxels.emplace_back(Centre + x, Centre + y, Centre + z);
            }
        }
    }
    return voxels;
}

const std::vector<Vector3i>& voxels_in(int order) {
    static const std::vector<Vector3i> scan = sphere_band();
    static const std::vector<Vector3i> random = [] {
        std::vector<Vector3i> shuffled = scan;
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
        return shuffled;
    }();
    return order == Scan ? scan : random;
}

// Thread `thread` of `threads` takes every threads-th piece, so that the threads meet in the same nodes.
template <class Body>
void for_own_pieces(const std::vector<Vector3i>& voxels, int thread, int threads, const Body& body) {
    const auto first = VoxelsPerPiece * static_cast<std::size_t>(thread);
    const auto stride = VoxelsPerPiece * static_cast<std::size_t>(threads);
    for (std::size_t begin = first; begin < voxels.size(); begin += stride) {
        const std::size_t end = std::min(begin + VoxelsPerPiece, voxels.size());
        for (std::size_t i = begin; i < end; ++i) body(voxels[i]);
    }
}

void create_leaves(Octree& tree, const std::vector<Vector3i>& voxels, int threads) {
    std::vector<std::thread> workers;
    for (int thread = 0; thread < threads; ++thread) {
        workers.emplace_back([&, thread] {
            for_own_pieces(voxels, thread, threads,
                           [&](const Vector3i& v) { tree.find_or_create_leaf(v.x(), v.y(), v.z()); });
        });
    }
    for (std::thread& worker : workers) worker.join();
}

void octree_creation(benchmark::State& state) {
    const std::vector<Vector3i>& voxels = voxels_in(static_cast<int>(state.range(0)));
    Octree tree;
    for (auto _ : state) {
        tree.set_depth(TreeDepth, 1);
        const Stopwatch watch;
        create_leaves(tree, voxels, static_cast<int>(state.range(1)));
        state.SetIterationTime(watch.sum().wall);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(voxels.size()));
    state.counters["leaves"] = tree.get_vaild_leaf_num();
}

const Octree& filled_octree() {
    static Octree tree;
    static const bool filled = [] {
        tree.set_depth(TreeDepth, 1);
        create_leaves(tree, voxels_in(Scan), 1);
        return true;
    }();
    (void)filled;
    return tree;
}

void octree_lookup(benchmark::State& state) {
    const std::vector<Vector3i>& voxels = voxels_in(static_cast<int>(state.range(0)));
    const Octree& tree = filled_octree();
    for (auto _ : state) {
        for_own_pieces(voxels, state.thread_index(), state.threads(),
                       [&](const Vector3i& voxel) { benchmark::DoNotOptimize(tree.find_leaf(voxel)); });
    }
    if (state.thread_index() == 0) {
        state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(voxels.size()));
    }
}

BENCHMARK(octree_lookup)
    ->ArgName("random")
    ->Arg(Scan)
    ->Arg(Random)
    ->ThreadRange(1, 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(octree_creation)
    ->ArgNames({"random", "threads"})
    ->ArgsProduct({{Scan, Random}, {1, 2}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
