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

bool has_decimal_comma(std::string_view text) {
    const auto isDigit = [&](std::size_t place) {
        return place < text.size() && text[place] >= '0' && text[place] <= '9';
    };
    for (std::size_t comma = text.find(','); comma != std::string_view::npos; comma = text.find(',', comma + 1))
        if (comma > 0 && isDigit(comma - 1) && isDigit(comma + 1)) return true;
    return false;
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

std::string calibration_fault(std::string_view text) {
    std::size_t last = 0;
    const char* before = nullptr;
    for (const char* label : {"Focal Length:", "Principal point:", "alpha:", "Distortion:", "Translation vector:",
                              "Rotation Matrix:", "Standard Error:"}) {
        const std::size_t place = text.find(label);
        if (place == std::string_view::npos)
            return std::string("the line '") + label + "' is missing" +
                   (before == nullptr ? "" : ", or the file is cut short");
        if (place < last)
            return std::string("the line '") + label + "' stands before '" + before + "'; their order is fixed";
        last = place;
        before = label;
    }
    if (has_decimal_comma(text)) return "its numbers have decimal commas; decimal points are needed";
    return "its lines are not those of a calibration, with the right number of values in brackets and lines of "
           "uncertainties after fc, cc and kc";
}

}  // namespace VexelAlgorithm
