// What an application does with the installed package: one header, one target.
#include <iostream>

#include <algorithmQorInclude.h>

using namespace VexelAlgorithm;

int main() {
    Cloud cloud;
    cloud.add_vCoord({1.0F, 2.0F, 3.0F});
    RigidMatrix pose;
    pose.set_translation({10.0, 0.0, 0.0});
    cloud.rigid_transformation(pose);
    print_parameter(FusionParameter());
    return cloud.get_vCoord(0) == Vector3f(11.0F, 2.0F, 3.0F) ? 0 : 1;
}
