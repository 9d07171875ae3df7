// Writes the project that TheFirstProjectStillOpens reads: make_small_project FILE. The file in the repository is kept,
// so that every later version proves that it reads projects of the first one; a new one is a new file beside it.
#include <cstdio>

#include "tests/project/projectScenes.h"

int main(int argc, char** argv) {
    using namespace VexelAlgorithm;
    if (argc != 2) {
        std::fputs("usage: make_small_project FILE\n", stderr);
        return 2;
    }
    const TinyScene scene;
    const Session session(scene.records);
    scene.scan(session);
    std::ofstream out(argv[1], std::ios::binary);
    return save_project(session, out) ? 0 : 1;
}
