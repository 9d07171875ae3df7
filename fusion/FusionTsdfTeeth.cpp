#include "fusion/FusionTsdfDefinitions.h"
#include "fusion/rayCastDefinitions.h"

namespace VexelAlgorithm {
namespace Fusion {

template class FusionTsdf<LeafTSDFTeeth>;
template int rayCast(const FusionTsdf<LeafTSDFTeeth>&, const PointImage&, const RigidMatrix&, PointImage&, bool,
                     const Vector2f&, const RayCastNormals&, float);

}  // namespace Fusion
}  // namespace VexelAlgorithm
