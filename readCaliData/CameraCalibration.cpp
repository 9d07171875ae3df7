#include "readCaliData/CameraCalibration.h"

#include <algorithm>
#include <array>

#include "readCaliData/FormattedReader.h"

namespace VexelAlgorithm {
namespace Rebuild {
namespace {

struct PatternLine {
    std::string_view pattern;
    int numbers;
    int target;  ///< index of the first number in a camera vector, or -1 for lines that are read and dropped
};

constexpr int DROPPED = -1;

// The blanks and the line feeds inside the bracket of the fourth line belong to the format.
constexpr std::array<PatternLine, 10> FILE_FORMAT{{
    {"Focal Length:          fc = [%lf %lf]\n", 2, 0},
    {"                            [%lf %lf]\n", 2, DROPPED},
    {"Principal point:       cc = [%lf %lf]\n", 2, 2},
    {"                            [%lf %lf\n\n]", 2, DROPPED},
    {"alpha:              alpha = [%lf] [%lf]\n", 2, 4},  // the second is overwritten by the distortion
    {"Distortion:            kc = [%lf %lf %lf %lf %lf]\n", 5, 5},
    {"                            [%lf %lf %lf %lf %lf]\n", 5, DROPPED},
    {"Translation vector:     T = [%lf %lf %lf]\n", 3, 10},
    {"Rotation Matrix:        R = [%lf %lf %lf %lf %lf %lf %lf %lf %lf]\n", 9, 13},
    {"Standard Error:     error = [%lf]\n", 1, DROPPED},
}};

using CameraValues = std::array<double, CameraVectorSize>;

CameraCalibration calibration_from_values(const CameraValues& v) {
    CameraCalibration camera;
    camera.K << v[0], v[4] * v[0], v[2], 0.0, v[1], v[3], 0.0, 0.0, 1.0;
    camera.D << v[5], v[6], v[7], v[8], v[9];
    camera.T << v[10], v[11], v[12];
    camera.R << v[13], v[14], v[15], v[16], v[17], v[18], v[19], v[20], v[21];
    return camera;
}

}  // namespace

std::optional<CameraCalibration> calibration_from_vector(const std::vector<float>& values) {
    if (values.size() != CameraVectorSize) return std::nullopt;
    CameraValues wide;
    std::copy(values.begin(), values.end(), wide.begin());
    return calibration_from_values(wide);
}

std::optional<CameraCalibration> calibration_from_text(std::string_view text) {
    FormattedReader reader(text);
    CameraValues values{};
    for (const PatternLine& line : FILE_FORMAT) {
        std::array<double, 9> numbers{};
        if (reader.read(line.pattern, numbers.data()) != line.numbers) return std::nullopt;
        if (line.target != DROPPED) std::copy_n(numbers.begin(), line.numbers, values.begin() + line.target);
    }
    return calibration_from_values(values);
}

}  // namespace Rebuild
}  // namespace VexelAlgorithm
