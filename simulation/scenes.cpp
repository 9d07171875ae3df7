#include "simulation/scenes.h"

#include <Eigen/Geometry>

#include "foundation/diagnostics.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"

namespace VexelAlgorithm::Simulation {

namespace {

ShapePtr table() {
    return half_space(Vector3d::Zero(), Vector3d::UnitZ());
}

ShapePtr blocks() {
    const RigidMatrix leaning(Eigen::AngleAxisd(0.5, Vector3d(1, 2, 3).normalized()).toRotationMatrix(), {70, 40, 32});
    return smooth_union({table(), box({-50, 20, 30}, {25, 35, 30}), box({-45, 25, 75}, {18, 18, 15}, 4),
                         moved(box(Vector3d::Zero(), {22, 22, 22}), leaning), sphere({30, -45, 28}, 28),
                         round_cone({85, -40, 16}, 16, {85, -40, 80}, 7)},
                        0);
}

struct NamedScene {
    const char* name;
    ShapePtr (*make)();
};

const NamedScene kScenes[] = {
    {"owl", owl_on_books},
    {"owl_on_table",
     [] {
         return smooth_union({table(), owl_on_books()}, 0);
     }},
    {"sphere",
     [] {
         return sphere({0, 0, 50}, 50);
     }},
    {"torus",
     [] {
         return torus({0, 0, 25}, 60, 25);
     }},
    {"blocks", blocks},
    {"table", table},
};

}  // namespace

std::vector<std::string> scene_names() {
    std::vector<std::string> names;
    for (const NamedScene& scene : kScenes) names.emplace_back(scene.name);
    return names;
}

ShapePtr make_scene(const std::string& name) {
    for (const NamedScene& scene : kScenes)
        if (name == scene.name) return scene.make();
    std::string known;
    for (const NamedScene& scene : kScenes) known += std::string(known.empty() ? "" : ", ") + scene.name;
    print_line("no scene is called \"" + name + "\"; there are " + known);
    return nullptr;
}

}  // namespace VexelAlgorithm::Simulation
