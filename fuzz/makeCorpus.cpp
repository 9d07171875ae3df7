// Writes the seeds of fuzz targets: makeCorpus FOLDER [TARGET...] fills FOLDER/TARGET, for all targets when none is
// named.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fuzz/seeds.h"

int main(int argc, char** argv) {
    using namespace VexelFuzz;
    if (argc < 2) {
        std::fputs("usage: makeCorpus FOLDER [TARGET...]\n", stderr);
        return 2;
    }
    const std::vector<std::string> names = argc > 2 ? std::vector<std::string>(argv + 2, argv + argc) : target_names();
    for (const std::string& name : names) {
        const std::vector<Seed> seeds = seeds_of(name);
        if (seeds.empty()) {
            std::fprintf(stderr, "makeCorpus: there is no target %s\n", name.c_str());
            return 2;
        }
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / name;
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        for (const Seed& seed : seeds) {
            std::ofstream file(folder / seed.name, std::ios::binary | std::ios::trunc);
            file << seed.bytes;
            file.close();
            if (file) continue;
            std::fprintf(stderr, "makeCorpus: %s cannot be written\n", (folder / seed.name).string().c_str());
            return 1;
        }
        std::fprintf(stderr, "%s: %zu seeds\n", name.c_str(), seeds.size());
    }
    return 0;
}
