// Random numbers without state: each is a hash of what it belongs to.
#pragma once

#include <cmath>
#include <cstdint>

namespace VexelAlgorithm::Simulation {

/// The output function of SplitMix64 (Steele, Lea, Flood, OOPSLA 2014).
inline std::uint64_t mix_bits(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

/// The random numbers of one pixel of one frame.
class PixelRandom {
public:
    PixelRandom(std::uint64_t seed, std::uint64_t frame, std::uint64_t pixel)
        : _key(mix_bits(mix_bits(mix_bits(seed) ^ frame) ^ pixel)) {}

    /// Uniform in [0, 1).
    double uniform(std::uint64_t draw) const {
        return static_cast<double>(mix_bits(_key ^ mix_bits(draw)) >> 11) * 0x1p-53;
    }
    /// Standard normal, by Box and Muller; uses the draws 2 * draw and 2 * draw + 1.
    double gaussian(std::uint64_t draw) const {
        constexpr double kTurn = 6.283185307179586;
        return std::sqrt(-2.0 * std::log(1.0 - uniform(2 * draw))) * std::cos(kTurn * uniform(2 * draw + 1));
    }

private:
    std::uint64_t _key;
};

}  // namespace VexelAlgorithm::Simulation
