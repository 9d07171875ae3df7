#include "SpeckleRebCPU/CommonSpeReb.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <locale>
#include <sstream>

#include "SpeckleRebCPU/boxSums.h"
#include "SpeckleRebCPU/pyramid.h"
#include "SpeckleRebCPU/validMask.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "readCaliData/CameraCalibration.h"

namespace VexelAlgorithm {
namespace {

constexpr int LARGEST_SIDE = 16384;
constexpr int SMALLEST_SIDE = 16;
constexpr int LARGEST_SAMPLE = 16;
constexpr int LARGEST_WINDOW = 63;  // sums of products of larger ones would not fit into 32 bits
constexpr int SMALLEST_WINDOW = 3;
constexpr int LARGEST_GRADIENT_WINDOW = 255;

bool is_window(const Vector2i& window, int width, int height) {
    return (window.array() >= SMALLEST_WINDOW).all() && (window.array() <= LARGEST_WINDOW).all() &&
           window.x() % 2 == 1 && window.y() % 2 == 1 && window.x() <= width && window.y() <= height;
}

std::ostringstream classic_text() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    return text;
}

template <class Matrix>
void write_rows(std::ostream& out, const Matrix& matrix) {
    for (Eigen::Index row = 0; row < matrix.rows(); ++row) {
        for (Eigen::Index column = 0; column < matrix.cols(); ++column)
            out << (column > 0 ? "\t" : "") << matrix(row, column);
        out << '\n';
    }
}

void write_camera(std::ostream& out, const char* header, const std::vector<float>& values) {
    out << header << '\n';
    const auto write = [&](const char* label, std::size_t first, std::size_t count) {
        out << label;
        for (std::size_t i = first; i < first + count; ++i)
            out << (i > first ? "\t" : "") << (i < values.size() ? values[i] : 0.0F);
        out << '\n';
    };
    write("fc: ", 0, 2);
    write("cc: ", 2, 2);
    write("skew: ", 4, 1);
    write("kc: ", 5, 5);
    write("rot: ", 13, 9);
    write("tran: ", 10, 3);
}

void cover_of_map(const float* map, const Vector2i& size, int threads, Mask& cover) {
    cover.assign(size.x(), size.y());
    // The margin of the remap.
    const auto endX = static_cast<float>(size.x() - 2), endY = static_cast<float>(size.y() - 2);
    parallel_ranges(threads, cover.size(), 1U << 16U, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const float x = map[2 * i], y = map[2 * i + 1];
            cover[i] = x >= 3.0F && x < endX && y >= 3.0F && y < endY ? 1 : 0;
        }
    });
}

Mask sampled_cover(const Mask& cover, int sample, int width, int height) {
    Mask sampled(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) sampled.at(x, y) = cover.at(x * sample, y * sample);
    return sampled;
}

Mask window_cover(const Mask& cover, const Vector2i& window, int threads) {
    Mask whole(cover.width(), cover.height());
    for_each_box_sum(
        cover.width(), cover.height(), window.x() / 2, window.y() / 2, threads,
        [&](int x, int y) { return cover.at(x, y); },
        [&](int x, int y, std::int32_t sum) { whole.at(x, y) = sum == window.x() * window.y() ? 1 : 0; });
    return whole;
}

void intersect(Mask& mask, const Mask& other) {
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] &= other[i];
}

}  // namespace

CommonSpeReb::CommonSpeReb(const RebParam& param) : _param(param), _threads(default_thread_number()) {}

std::string CommonSpeReb::fault_of(const RebParam& param) {
    const Vector2i& size = param.imgSize;
    if ((size.array() < SMALLEST_SIDE).any() || (size.array() > LARGEST_SIDE).any()) return "imgSize is not usable";
    if (param.sampleRatio < 1 || param.sampleRatio > LARGEST_SAMPLE) return "sampleRatio is not in [1, 16]";
    const int width = size.x() / param.sampleRatio, height = size.y() / param.sampleRatio;
    if (param.gradientTh(0) < 0 || param.gradientTh(0) > LARGEST_GRADIENT_WINDOW)
        return "the window of gradientTh is not in [0, 255]";
    if (!is_window(param.pixMatchWin, width, height))
        return "pixMatchWin is not odd, not in [3, 63] or larger than the sampled image";
    if (!is_window(param.subPixMatchWin, size.x(), size.y()))
        return "subPixMatchWin is not odd, not in [3, 63] or larger than the image";
    if (param.findRange(0) >= param.findRange(1)) return "findRange is empty or inverted";
    if (param.findRange(0) >= size.x() || param.findRange(1) <= -size.x()) return "findRange lies outside the image";
    const Vector4i& range = param.imageRange;
    if (std::max(range(0), 0) >= std::min(range(1), size.x()) || std::max(range(2), 0) >= std::min(range(3), size.y()))
        return "imageRange is empty, inverted or outside the image";
    return {};
}

bool CommonSpeReb::ini_common() {
    const auto refuse = [](const std::string& reason) {
        print_line("SpeckleRebCpu ini fail because " + reason);
        return false;
    };
    const std::string fault = fault_of(_param);
    if (!fault.empty()) return refuse(fault);
    _calibration = Rebuild::CaliParReadIn(_param.leftCalib, _param.rightCalib, {}, _param.imgSize, Vector2i::Zero());
    if (!_calibration.is_ini_success()) return refuse("the calibration can not be used");

    const auto left = _calibration.get_left_projection(), right = _calibration.get_right_projection();
    if (right(1, 3) != 0.0 || right(0, 3) == 0.0) return refuse("the cameras do not stand side by side");
    _geometry.camera = _calibration.get_rectified_camera();
    _geometry.depthFactor = right(0, 3);
    _geometry.centreOffset = left(0, 2) - right(0, 2);
    _baseLineD = std::abs(right(0, 3) / right(0, 0));

    const int sample = _param.sampleRatio;
    _widthSample = _param.imgSize.x() / sample;
    _heightSample = _param.imgSize.y() / sample;
    const Vector4i& range = _param.imageRange;
    _sampledRange = {range(0) / sample, (std::min(range(1), _param.imgSize.x()) + sample - 1) / sample,
                     range(2) / sample, (std::min(range(3), _param.imgSize.y()) + sample - 1) / sample};
    for (GreyImage* image : {&_remap.left, &_remap.right}) image->assign(_param.imgSize.x(), _param.imgSize.y());
    for (FineImage* image : {&_fine.left, &_fineRight}) image->assign(_param.imgSize.x(), _param.imgSize.y());
    find_cover();
    _debug.set_path(_param.debugPath);
    _debug.enable(_param.isDebug2OutPut);
    return true;
}

void CommonSpeReb::find_cover() {
    cover_of_map(_calibration.get_left_map(), _param.imgSize, _threads, _cover.left);
    cover_of_map(_calibration.get_right_map(), _param.imgSize, _threads, _cover.right);
    for (const auto& [cover, whole] :
         {std::pair(&_cover.left, &_windowCover.left), std::pair(&_cover.right, &_windowCover.right)})
        *whole = window_cover(sampled_cover(*cover, _param.sampleRatio, _widthSample, _heightSample),
                              _param.pixMatchWin, _threads);
}

void CommonSpeReb::print_param() const {
    std::ostringstream text = classic_text();
    const RebParam& p = _param;
    text << "imgSize:        " << p.imgSize(0) << '\t' << p.imgSize(1) << '\n'
         << "sampleRatio:    " << p.sampleRatio << '\n'
         << "isDebug2OutPut: " << p.isDebug2OutPut << '\n'
         << "gradientTh:     " << p.gradientTh(0) << '\t' << p.gradientTh(1) << '\n'
         << "findRange:      " << p.findRange(0) << '\t' << p.findRange(1) << '\n'
         << "pixMatchWin:    " << p.pixMatchWin(0) << '\t' << p.pixMatchWin(1) << '\n'
         << "subPixMatchWin: " << p.subPixMatchWin(0) << '\t' << p.subPixMatchWin(1) << '\n'
         << "imageRange:     " << p.imageRange(0) << '\t' << p.imageRange(1) << '\t' << p.imageRange(2) << '\t'
         << p.imageRange(3) << '\n';
    write_camera(text, "             left calib param ", p.leftCalib);
    write_camera(text, "             right calib param ", p.rightCalib);
    print_text(text.str());
}

void CommonSpeReb::print_calibration() const {
    std::ostringstream text = classic_text();
    text << "print _leftCamPrjMat \n";
    write_rows(text, _calibration.get_left_projection());
    text << "print _rightCamPrjMat \n";
    write_rows(text, _calibration.get_right_projection());
    const RigidMatrix leftToRight = _calibration.get_left_to_right();
    text << "print _leftToRightRtMat \n";
    write_rows(text, leftToRight.get_rotation());
    write_rows(text, leftToRight.get_translation().transpose());
    text << "print _tmpLeftMat \n";
    write_rows(text, _calibration.get_rectified_to_raw().get_rotation());
    text << "_baseLineD = " << _baseLineD << '\n'
         << "_cxcy = " << _geometry.camera.get_cx() << '\t' << _geometry.camera.get_cy() << '\n';
    print_text(text.str());
}

void CommonSpeReb::copy_raw(const unsigned char* left, const unsigned char* right) {
    for (const auto& [image, pixels] : {std::pair(&_raw.left, left), std::pair(&_raw.right, right)}) {
        image->assign(_param.imgSize.x(), _param.imgSize.y());
        std::copy_n(pixels, image->size(), image->data());
    }
}

bool CommonSpeReb::remap(const unsigned char* left, const unsigned char* right) {
    return _calibration.remap_image_LR(left, right, _remap.left.data(), _remap.right.data());
}

void CommonSpeReb::remap_fine(const unsigned char* left, const unsigned char* right) {
    _fineRectification.rectify(left, _calibration.get_left_map(), _threads, _fine.left);
    _fineRectification.rectify(right, _calibration.get_right_map(), _threads, _fineRight);
    spline_rows(_fineRight, _threads, _fine.right);
}

void CommonSpeReb::build_pyramid() {
    build_sampled_image(_remap.left, _param.sampleRatio, _threads, _pyramid.left);
    build_sampled_image(_remap.right, _param.sampleRatio, _threads, _pyramid.right);
}

bool CommonSpeReb::compute_valid_mask() {
    const auto fail = [](const char* line) {
        print_line(line);
        return false;
    };
    if (_pyramid.left.empty() || _pyramid.right.empty()) return fail("!pImgLeft || !pImgRight ");
    if (!compute_gradient(_pyramid.left, _sampledRange, _threads, _gradient.left) ||
        !compute_gradient(_pyramid.right, _sampledRange, _threads, _gradient.right))
        return fail("run compute_gradient error ");
    const int window = _param.gradientTh(0);
    const auto threshold = static_cast<float>(_param.gradientTh(1));
    Both<Mask> textured;
    if (!generate_valid_mask(_gradient.left, _sampledRange, window, threshold, _threads, textured.left) ||
        !generate_valid_mask(_gradient.right, _sampledRange, window, threshold, _threads, textured.right))
        return fail("run generate_valid_mask error ");
    const Vector2i& dilation = _param.pixMatchWin;
    if (!mask_dilate(textured.left, _sampledRange, dilation.x(), dilation.y(), _threads, _mask.left) ||
        !mask_dilate(textured.right, _sampledRange, dilation.x(), dilation.y(), _threads, _mask.right))
        return fail("run mask_dilate error ");
    intersect(_mask.left, _windowCover.left);
    intersect(_mask.right, _windowCover.right);
    return true;
}

}  // namespace VexelAlgorithm
