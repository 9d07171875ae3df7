#include "fuzz/seeds.h"
#include "tests/project/projectScenes.h"

namespace VexelFuzz {

std::vector<Seed> project_seeds() {
    using namespace VexelAlgorithm;
    const TinyScene scene;
    const Session session(scene.records);
    scene.scan(session);
    const std::string whole = project_of(session);
    const ProjectLayout layout(whole);

    std::string nothingShown = whole.substr(0, layout.display + 8);
    put_number(nothingShown, layout.display + 4, std::int32_t{0});

    // A loop of a camera: a turn of 90 degrees sees more cells of the top grid.
    Matrix3d rotation;
    rodrigures(Vector3d(0.0, 1.5, 0.0), rotation);
    int microseconds = 0;
    fusion(session, scene.frame(), {rotation, Vector3d(900.0, 40.0, -300.0)}, microseconds);
    get_show_data(session);
    return {{"whole", whole}, {"nothing_shown", nothingShown}, {"two_places", project_of(session)}};
}

}  // namespace VexelFuzz
