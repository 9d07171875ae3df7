#include "recording/calibrationText.h"

#include <initializer_list>

#include "recording/numberText.h"

namespace VexelAlgorithm {
namespace {

std::string bracket(std::initializer_list<double> numbers) {
    std::string text = "[";
    for (const double number : numbers) text += (text.size() > 1 ? " " : "") + number_text(number);
    return text + ']';
}

}  // namespace

std::string calibration_text(const CalibratedCamera& camera) {
    const auto& k = camera.distortion;
    const Vector3d& t = camera.worldToCamera.get_translation();
    const Matrix3d& r = camera.worldToCamera.get_rotation();
    const std::string margin(28, ' ');
    std::string text;
    text += "Focal Length:          fc = " + bracket({camera.fx, camera.fy}) + '\n';
    text += margin + "[0 0]\n";
    text += "Principal point:       cc = " + bracket({camera.cx, camera.cy}) + '\n';
    // The reader's pattern has both line feeds within the bracket.
    text += margin + "[0 0\n\n]";
    text += "alpha:              alpha = [0] [0]\n";
    text += "Distortion:            kc = " + bracket({k[0], k[1], k[2], k[3], k[4]}) + '\n';
    text += margin + "[0 0 0 0 0]\n";
    text += "Translation vector:     T = " + bracket({t.x(), t.y(), t.z()}) + '\n';
    text += "Rotation Matrix:        R = " +
            bracket({r(0, 0), r(0, 1), r(0, 2), r(1, 0), r(1, 1), r(1, 2), r(2, 0), r(2, 1), r(2, 2)}) + '\n';
    text += "Standard Error:     error = [0]\n";
    return text;
}

}  // namespace VexelAlgorithm
