#include "recording/trajectoryText.h"

#include <Eigen/Geometry>
#include <charconv>
#include <cmath>

#include "recording/files.h"
#include "recording/numberText.h"

namespace VexelAlgorithm {
namespace {

constexpr double millimetresPerMetre = 1000.0;
/// Further away than any scanner gets.
constexpr double farthestPosition = 1e8;
/// What rounding four numbers to three decimals can do to the length.
constexpr double lengthTolerance = 2e-3;
constexpr std::size_t largestFile = std::size_t{64} << 20;

void add_number(std::string& text, double value, int decimals) {
    char digits[64];
    const auto result = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, decimals);
    text.append(digits, result.ptr);
}

Outcome<TimedPose> parse_line(std::string_view line) {
    const Outcome<std::vector<double>> numbers = parse_numbers(line, 8);
    if (!numbers) return numbers.failure();
    const Eigen::Map<const Eigen::Matrix<double, 8, 1>> values(numbers->data());
    if (!values.allFinite()) return Failure{"it holds a number that is not finite"};
    const Vector3d translation = values.segment<3>(1) * millimetresPerMetre;
    if (translation.cwiseAbs().maxCoeff() > farthestPosition) {
        return Failure{"its position is more than 100 km away; positions are in metres"};
    }
    const Eigen::Quaterniond rotation(values[7], values[4], values[5], values[6]);
    if (std::abs(rotation.norm() - 1.0) > lengthTolerance) {
        return Failure{"its quaternion has the length " + number_text(rotation.norm()) + " instead of 1"};
    }
    return TimedPose{values[0], RigidMatrix(rotation.normalized().toRotationMatrix(), translation)};
}

/// The first line of the text, which is shortened by it.
std::string_view take_line(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

bool is_comment(std::string_view line) {
    const std::size_t start = line.find_first_not_of(" \t\r");
    return start == std::string_view::npos || line[start] == '#';
}

}  // namespace

std::string trajectory_text(const std::vector<TimedPose>& poses) {
    std::string text = "# time_s tx_m ty_m tz_m qx qy qz qw\n";
    for (const TimedPose& timed : poses) {
        Eigen::Quaterniond rotation(timed.cameraToWorld.get_rotation());
        if (rotation.w() < 0.0) rotation.coeffs() = -rotation.coeffs();
        add_number(text, timed.time, 6);
        for (int axis = 0; axis < 3; ++axis) {
            text += ' ';
            add_number(text, timed.cameraToWorld.get_translation()[axis] / millimetresPerMetre, 7);
        }
        for (const double part : {rotation.x(), rotation.y(), rotation.z(), rotation.w()}) {
            text += ' ';
            add_number(text, part, 9);
        }
        text += '\n';
    }
    return text;
}

Outcome<std::vector<TimedPose>> parse_trajectory(std::string_view text) {
    std::vector<TimedPose> poses;
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = take_line(text);
        if (is_comment(line)) continue;
        const Outcome<TimedPose> pose = parse_line(line);
        const std::string place = "line " + std::to_string(number) + ": ";
        if (!pose) return Failure{place + pose.failure().reason};
        if (!poses.empty() && pose->time <= poses.back().time) {
            return Failure{place + "its time " + number_text(pose->time) + " s is not after the one before"};
        }
        poses.push_back(*pose);
    }
    if (poses.empty()) return Failure{"it holds no pose"};
    return poses;
}

Outcome<std::vector<TimedPose>> read_trajectory(const std::filesystem::path& path) {
    const Outcome<std::string> text = read_whole_file(path, largestFile);
    if (!text) return text.failure();
    Outcome<std::vector<TimedPose>> poses = parse_trajectory(*text);
    if (!poses) return Failure{path.string() + " is not usable: " + poses.failure().reason};
    return poses;
}

}  // namespace VexelAlgorithm
