// The table of docs/exposure.md: the image that the choice of exposure takes from a sweep, against the best by trial.
// Arguments: image width, and a part of the names of the objects.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "exposure/autoExposure.h"
#include "trials/exposureSweeps.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTrial;

constexpr int First = -10, Last = 12;  // brightness from 1 / 32 to 64

struct Sweep {
    std::vector<Simulation::StereoPair> pairs;
    std::vector<int> coverage;
};

Sweep run_sweep(const SweepBench& bench, const SweepObject& object) {
    Sweep sweep;
    const Simulation::StereoSignals signals = bench.gather(object);
    for (int k = First; k <= Last; ++k) {
        sweep.pairs.push_back(bench.develop(object, signals, k));
        sweep.coverage.push_back(bench.coverage(sweep.pairs.back()));
    }
    return sweep;
}

/// Coverage of the chosen image relative to the best one among images first, first + step, ...
double chosen_share(const Sweep& sweep, Vector2i size, std::size_t first, std::size_t step, std::size_t& chosen) {
    std::vector<char*> images;
    std::vector<std::size_t> numbers;
    for (std::size_t i = first; i < sweep.pairs.size(); i += step) {
        numbers.push_back(i);
        images.push_back(reinterpret_cast<char*>(const_cast<unsigned char*>(sweep.pairs[i].left.pixels.data())));
    }
    int best = -1;
    if (autoexposure(images, best, size, Vector4i::Zero(), nullptr, false, true, "") != RET_SUCCESS) return 0.0;
    chosen = numbers[static_cast<std::size_t>(best)];
    int most = 0;
    for (const std::size_t i : numbers) most = std::max(most, sweep.coverage[i]);
    return static_cast<double>(sweep.coverage[chosen]) / most;
}

double worst_share(const Sweep& sweep, const Vector2i& size, std::size_t step) {
    double worst = 1.0;
    std::size_t chosen = 0;
    for (std::size_t first = 0; first < step; ++first)
        worst = std::min(worst, chosen_share(sweep, size, first, step, chosen));
    return worst;
}

void print_row(const std::string& name, const Sweep& sweep, const Vector2i& size) {
    std::size_t chosen = 0;
    const double share = chosen_share(sweep, size, 0, 1, chosen);
    const auto best = std::max_element(sweep.coverage.begin(), sweep.coverage.end());
    const auto brightness = [](std::ptrdiff_t i) { return std::pow(2.0, 0.5 * (First + static_cast<double>(i))); };
    std::printf("| %s | %d | %.3g | %.3g | %.1f | %.1f | %.1f |\n", name.c_str(), *best,
                brightness(best - sweep.coverage.begin()), brightness(static_cast<std::ptrdiff_t>(chosen)),
                100.0 * share, 100.0 * worst_share(sweep, size, 2), 100.0 * worst_share(sweep, size, 4));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const SweepBench bench(argc > 1 ? std::atoi(argv[1]) : 1280);
    if (!bench.is_ready()) return 1;
    std::printf(
        "| object | points at best | best | chosen | share, steps of 1.4, %% | worst, steps of 2, %% | worst, "
        "steps of 4, %% |\n|---|---|---|---|---|---|---|\n");
    const std::string part = argc > 2 ? argv[2] : "";
    for (const SweepObject& object : sweep_objects()) {
        if (object.name.find(part) != std::string::npos) print_row(object.name, run_sweep(bench, object), bench.size());
    }
    return 0;
}
