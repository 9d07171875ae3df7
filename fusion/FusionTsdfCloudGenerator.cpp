#include "fusion/FusionTsdfDefinitions.h"
#include "fusion/rayCastDefinitions.h"

namespace VexelAlgorithm {
namespace Fusion {

template class VEXEL_API_INSTANTIATION FusionTsdf<LeafTSDFCloudGenerator>;
template VEXEL_API_INSTANTIATION int rayCast(const FusionTsdf<LeafTSDFCloudGenerator>&, const PointImage&,
                                             const RigidMatrix&, PointImage&, bool, const Vector2f&,
                                             const RayCastNormals&, float);

}  // namespace Fusion
}  // namespace VexelAlgorithm
