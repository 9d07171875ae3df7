// Runs a fuzz target without libFuzzer: its seeds, then COUNT mutations of them, the same ones in every run. The input
// under way lies in a file that is named at the start, so that what ends the program can be looked at; given as an
// argument, such a file is run alone.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <iterator>

#include "fuzz/seeds.h"
#include "fuzz/target.h"

namespace VexelFuzz {
namespace {

/// Standard distributions differ from library to library; this does not.
class Random {
public:
    explicit Random(std::uint32_t seed) : _engine(seed) {}
    /// Below `end`, which is positive.
    std::size_t below(std::size_t end) { return _engine() % end; }
    template <class Value, std::size_t Count>
    Value one_of(const std::array<Value, Count>& values) {
        return values[below(Count)];
    }

private:
    std::mt19937 _engine;
};

std::size_t place_in(const std::string& bytes, Random& random) {
    return random.below(bytes.size() + 1);
}

void flip_bit(std::string& bytes, Random& random) {
    if (bytes.empty()) return;
    char& byte = bytes[random.below(bytes.size())];
    byte = static_cast<char>(byte ^ (1 << random.below(8)));
}

void put_byte(std::string& bytes, Random& random) {
    if (!bytes.empty()) bytes[random.below(bytes.size())] = static_cast<char>(random.below(256));
}

/// Counts, indices and floats at their limits, mostly where four-byte values stand.
void put_number(std::string& bytes, Random& random) {
    constexpr std::array<std::uint32_t, 12> numbers{
        0, 1, 8, 0xff, 0xffff, 0x10000, 0x7fffffff, 0x80000000, 0xffffffff, 0x7fc00000, 0x7f800000, 0x00ffffff};
    if (bytes.size() < 4) return;
    const std::uint32_t number = random.one_of(numbers);
    const std::size_t place = random.below(bytes.size() - 3);
    std::memcpy(&bytes[place], &number, sizeof number);
}

void put_sign(std::string& bytes, Random& random) {
    constexpr std::array<char, 12> signs{'0', '9', '-', '.', 'e', ' ', '\n', '\0', '[', '/', '"', ':'};
    bytes.insert(place_in(bytes, random), 1, random.one_of(signs));
}

void cut_end(std::string& bytes, Random& random) {
    bytes.resize(place_in(bytes, random));
}

void remove_piece(std::string& bytes, Random& random) {
    bytes.erase(place_in(bytes, random), 1 + random.below(16));
}

void repeat_piece(std::string& bytes, Random& random) {
    const std::string piece = bytes.substr(place_in(bytes, random), 1 + random.below(64));
    bytes.insert(place_in(bytes, random), piece);
}

/// Pieces of an input lead from one of its values to another.
void swap_pieces(std::string& bytes, Random& random) {
    if (bytes.size() < 8) return;
    const std::size_t one = random.below(bytes.size() - 3), other = random.below(bytes.size() - 3);
    std::swap_ranges(bytes.begin() + static_cast<std::ptrdiff_t>(one),
                     bytes.begin() + static_cast<std::ptrdiff_t>(one + 4),
                     bytes.begin() + static_cast<std::ptrdiff_t>(other));
}

std::string mutation(const std::vector<Seed>& seeds, std::uint32_t number) {
    using Change = void (*)(std::string&, Random&);
    constexpr std::array<Change, 8> changes{flip_bit, put_byte,     put_number,   put_sign,
                                            cut_end,  remove_piece, repeat_piece, swap_pieces};
    Random random(number);
    std::string bytes = seeds[random.below(seeds.size())].bytes;
    for (std::size_t i = 1 + random.below(4); i > 0; --i) random.one_of(changes)(bytes, random);
    return bytes;
}

void run(const std::string& bytes) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

int run_file(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "usage: fuzz_%s COUNT|FILE\n", VEXEL_FUZZ_TARGET);
        return 2;
    }
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    run(bytes);
    return 0;
}

int run_mutations(std::uint32_t count) {
    const std::vector<Seed> seeds = seeds_of(VEXEL_FUZZ_TARGET);
    require(!seeds.empty(), "the target has seeds");
    InputFile underWay("." VEXEL_FUZZ_TARGET);
    std::fprintf(stderr, "the input under way is in %s\n", underWay.path().string().c_str());
    const auto run_kept = [&](const std::string& bytes) {
        underWay.hold(bytes);
        run(bytes);
    };
    for (const Seed& seed : seeds) run_kept(seed.bytes);
    for (std::uint32_t number = 0; number < count; ++number) run_kept(mutation(seeds, number));
    std::fprintf(stderr, "%zu seeds and %u mutations\n", seeds.size(), count);
    return 0;
}

}  // namespace
}  // namespace VexelFuzz

int main(int argc, char** argv) {
    std::uint32_t count = 1000;
    if (argc > 1) {
        const char* const end = argv[1] + std::strlen(argv[1]);
        const auto parsed = std::from_chars(argv[1], end, count);
        if (parsed.ec != std::errc() || parsed.ptr != end) return VexelFuzz::run_file(argv[1]);
    }
    return VexelFuzz::run_mutations(count);
}
