#include "fusion/FusionTsdfDefinitions.h"
#include "fusion/rayCastDefinitions.h"

namespace VexelAlgorithm {
namespace Fusion {

template class FusionTsdf<LeafTSDFCloudGenerator>;
template int rayCast(const FusionTsdf<LeafTSDFCloudGenerator>&, const PointImage&, const RigidMatrix&, PointImage&,
                     bool, const Vector2f&, const RayCastNormals&, float);

}  // namespace Fusion
}  // namespace VexelAlgorithm
