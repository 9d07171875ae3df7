#include "foundation/CameraInParam.h"

#include <array>

#include "foundation/archive.h"

namespace VexelAlgorithm {

bool CameraInParam::write_archive(std::ostream& out) const {
    try {
        return Archive::write_value(out, std::array<double, 4>{_fx, _fy, _cx, _cy});
    } catch (...) {
        return false;
    }
}

bool CameraInParam::read_archive(std::istream& in) {
    try {
        std::array<double, 4> values{};
        if (!Archive::read_value(in, values)) return false;
        set_param(values[0], values[1], values[2], values[3]);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace VexelAlgorithm
