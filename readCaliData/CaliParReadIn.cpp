#include "readCaliData/CaliParReadIn.h"

#include <opencv2/core/core_c.h>

#include <array>
#include <cmath>
#include <fstream>
#include <locale>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/eigen.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <sstream>
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "readCaliData/CameraCalibration.h"
#include "readCaliData/DeviceMaps.h"
#include "readCaliData/OwnedCvMat.h"
#include "readCaliData/remapRow.h"

namespace VexelAlgorithm {
namespace Rebuild {

struct CaliParReadIn::State {
    float fxRect = 0.0F, fyRect = 0.0F, cxRect = 0.0F, cyRect = 0.0F;
    cv::Rect validRoiLeft, validRoiRight;
    OwnedCvMat leftMapX, leftMapY, rightMapX, rightMapY;
    OwnedCvMat K_L, K_R, D_L, D_R;
    OwnedCvMat R_L, T_L, R_R, T_R;  ///< world to camera
    OwnedCvMat R, T;                ///< left to right camera
    OwnedCvMat R1{3, 3, CV_64FC1}, R2{3, 3, CV_64FC1};
    OwnedCvMat P1{3, 4, CV_64FC1}, P2{3, 4, CV_64FC1};
    OwnedCvMat Q{4, 4, CV_64FC1};
    Vector2i imageSize = Vector2i::Zero();
    DeviceMaps deviceMaps;
    RigidMatrix rectifiedToRaw, leftToRight, leftToColor, rectifiedToColor;
    bool isIniSuccess = false;
    std::vector<float> leftMap, rightMap;  ///< x, y side by side

    Vector2i colorImageSize = Vector2i::Zero();
    OwnedCvMat colorK, colorD, colorR, colorT;
    OwnedCvMat colorMapX, colorMapY;
    bool hasColor = false;
};

namespace {

constexpr int MAX_SIDE = 32767;  // the largest that OpenCV's remap takes
constexpr std::size_t MAX_FILE_BYTES = std::size_t{1} << 16U;
constexpr std::size_t REMAP_GRAIN = 16;  // rows; some 20 microseconds of work

bool is_usable(const Vector2i& size) {
    return (size.array() >= 1).all() && (size.array() <= MAX_SIDE).all();
}

std::string size_text(const Vector2i& size) {
    return format_text("%d x %d", size.x(), size.y());
}

std::optional<CameraCalibration> read_camera(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::string text(MAX_FILE_BYTES, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad()) return std::nullopt;
    text.resize(static_cast<std::size_t>(file.gcount()));
    return calibration_from_text(text);
}

std::optional<CameraCalibration> read_camera(const std::vector<float>& par) {
    return calibration_from_vector(par);
}

bool can_hold(const CvMat* matrix, int rows, int columns) {
    return matrix == nullptr || (CV_IS_MAT(matrix) && matrix->rows == rows && matrix->cols == columns &&
                                 CV_MAT_TYPE(matrix->type) == CV_64FC1);
}

template <class Values>
void fill(CvMat*& matrix, const Values& values) {
    if (matrix == nullptr)
        matrix = cvCreateMat(static_cast<int>(values.rows()), static_cast<int>(values.cols()), CV_64FC1);
    for (int row = 0; row < values.rows(); ++row)
        for (int column = 0; column < values.cols(); ++column) cvmSet(matrix, row, column, values(row, column));
}

void store_camera(const CameraCalibration& camera, CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T) {
    fill(K, camera.K);
    fill(D, camera.D);
    fill(R, camera.R);
    fill(T, camera.T);
}

template <class Source>
bool read_into_matrices(const Source& source, CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T) {
    if (!can_hold(K, 3, 3) || !can_hold(D, 5, 1) || !can_hold(R, 3, 3) || !can_hold(T, 3, 1)) {
        print_line("read_calibrate_para_single fail because a matrix is not CV_64FC1 or has another shape");
        return false;
    }
    const std::optional<CameraCalibration> camera = read_camera(source);
    if (camera) store_camera(*camera, K, D, R, T);
    return camera.has_value();
}

template <int Rows, int Columns>
Eigen::Matrix<double, Rows, Columns> eigen_matrix(const OwnedCvMat& matrix) {
    Eigen::Matrix<double, Rows, Columns> result = Eigen::Matrix<double, Rows, Columns>::Zero();
    if (matrix.get() != nullptr) cv::cv2eigen(matrix.mat(), result);
    return result;
}

bool is_rotation(const Matrix3d& R) {
    constexpr double TOLERANCE = 0.01;  // of files with three digits
    return (R * R.transpose() - Matrix3d::Identity()).cwiseAbs().maxCoeff() < TOLERANCE && R.determinant() > 0.0;
}

/// Null when the pair can be rectified, else what is wrong with it.
const char* fault_of_pair(const Matrix3d& K_L, const Matrix3d& K_R, const cv::Mat& D_L, const cv::Mat& D_R,
                          const RigidMatrix& leftToRight) {
    constexpr double SMALLEST_BASELINE = 1e-6;  // mm
    if (!K_L.allFinite() || !K_R.allFinite() || !cv::checkRange(D_L) || !cv::checkRange(D_R) ||
        !leftToRight.is_finite())
        return "a value is not finite";
    if (K_L(0, 0) <= 0.0 || K_L(1, 1) <= 0.0 || K_R(0, 0) <= 0.0 || K_R(1, 1) <= 0.0)
        return "a focal length is not positive";
    if (!is_rotation(leftToRight.get_rotation())) return "a rotation matrix is none";
    if (leftToRight.get_translation().norm() < SMALLEST_BASELINE) return "the baseline is zero";
    if (leftToRight.get_rotation()(2, 2) <= 0.0) return "the cameras look away from each other";
    return nullptr;
}

/// A camera that rectification turns this far sees next to nothing of what its rectified image shows.
bool is_turned_away(const Matrix3d& rectification) {
    constexpr double COSINE_OF_80_DEGREES = 0.17364817766693033;
    return rectification(2, 2) < COSINE_OF_80_DEGREES;
}

void interleave(const OwnedCvMat& x, const OwnedCvMat& y, std::vector<float>& map) {
    const float* mapX = x.get()->data.fl;
    const float* mapY = y.get()->data.fl;
    for (std::size_t i = 0; i < map.size() / 2; ++i) {
        map[2 * i] = mapX[i];
        map[2 * i + 1] = mapY[i];
    }
}

/// OpenCV's maps take K without its skew.
void add_skew(const cv::Mat& K, cv::Mat& mapX, const cv::Mat& mapY) {
    const double shear = K.at<double>(0, 1) / K.at<double>(1, 1);
    if (shear == 0.0) return;
    const double cy = K.at<double>(1, 2);
    for (int row = 0; row < mapX.rows; ++row) {
        float* x = mapX.ptr<float>(row);
        const float* y = mapY.ptr<float>(row);
        for (int column = 0; column < mapX.cols; ++column) x[column] += static_cast<float>(shear * (y[column] - cy));
    }
}

bool is_matrix(const cv::Mat& matrix, int rows, int columns) {
    return matrix.rows == rows && matrix.cols == columns && matrix.type() == CV_64FC1;
}

bool compute_rectify_map(const cv::Mat& K, const cv::Mat& D, const cv::Mat& R, const cv::Mat& P, const cv::Size& size,
                         int type, const cv::_OutputArray& map1, const cv::_OutputArray& map2) {
    if (!is_matrix(K, 3, 3) || !is_matrix(R, 3, 3) || !(is_matrix(P, 3, 3) || is_matrix(P, 3, 4)) ||
        !(is_matrix(D, 5, 1) || is_matrix(D, 1, 5)) || !is_usable({size.width, size.height})) {
        print_line("get_rectify_map_run fail because a matrix or the size is not usable");
        return false;
    }
    if (type != CV_16SC2 && type != CV_32FC1 && type != CV_32FC2) {
        print_line("get_rectify_map_run fail because the map type is not CV_16SC2, CV_32FC1 or CV_32FC2");
        return false;
    }
    map1.create(size, type);
    map2.create(size, type == CV_16SC2 ? CV_16UC1 : CV_32FC1);
    cv::Mat mapX, mapY;
    if (type == CV_32FC1) {
        mapX = map1.getMat();
        mapY = map2.getMat();
    }
    cv::initUndistortRectifyMap(K, D, R, P, size, CV_32FC1, mapX, mapY);
    add_skew(K, mapX, mapY);
    if (type != CV_32FC1) cv::convertMaps(mapX, mapY, map1, map2, type);
    return true;
}

std::string rectified_camera_text(float fx, float fy, float cx, float cy) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "fxRect : " << fx << "  fyRect : " << fy << "\ncxRect : " << cx << "  cyRect : " << cy;
    return text.str();
}

template <class RemapRow, class Pixel>
void remap_pair(RemapRow remap_row, const std::array<RawImage, 2>& raw, const std::array<const float*, 2>& maps,
                const std::array<Pixel*, 2>& rectified) {
    const auto height = static_cast<std::size_t>(raw[0].height);
    const auto width = static_cast<std::size_t>(raw[0].width);
    parallel_ranges(default_thread_number(), height, REMAP_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t camera = 0; camera < 2; ++camera)
            for (std::size_t y = begin; y < end; ++y)
                remap_row(raw[camera], maps[camera] + 2 * y * width, rectified[camera] + y * width);
    });
}

template <class RemapRow, class Pixel>
bool remap_checked_pair(const CaliParReadIn& calibration, RemapRow remap_row, const unsigned char* pImgL,
                        const unsigned char* pImgR, Pixel* pRemapImgL, Pixel* pRemapImgR) {
    if (pImgL == nullptr || pImgR == nullptr || pRemapImgL == nullptr || pRemapImgR == nullptr) {
        print_line("!pImgL || !pImgR || !pRemapImgL || !pRemapImgR ");
        return false;
    }
    if (!calibration.is_ini_success()) {
        print_line("remap_image_LR fail because the calibration is not initialised");
        return false;
    }
    const Vector2i size = calibration.get_image_size();
    remap_pair<RemapRow, Pixel>(remap_row, {{{pImgL, size.x(), size.y()}, {pImgR, size.x(), size.y()}}},
                                {{calibration.get_left_map(), calibration.get_right_map()}},
                                {{pRemapImgL, pRemapImgR}});
    return true;
}

bool has_size(const IplImage* image, const Vector2i& size) {
    return CV_IS_IMAGE(image) && image->width == size.x() && image->height == size.y() && image->roi == nullptr;
}

bool is_pair(const IplImage* raw, const IplImage* rectified, const Vector2i& size) {
    return has_size(raw, size) && has_size(rectified, size) && raw->depth == rectified->depth &&
           raw->nChannels == rectified->nChannels;
}

/// Depths that OpenCV's remap interpolates.
bool is_interpolated_depth(const IplImage* image) {
    const int depth = CV_MAT_DEPTH(cv::cvarrToMat(image).type());
    return depth == CV_8U || depth == CV_16U || depth == CV_16S || depth == CV_32F || depth == CV_64F;
}

PixelRectangle rectangle(const cv::Rect& rect) {
    return {rect.x, rect.y, rect.width, rect.height};
}

}  // namespace

CaliParReadIn::CaliParReadIn() noexcept {
    guarded("CaliParReadIn", [&] { _state = std::make_unique<State>(); });
}

CaliParReadIn::CaliParReadIn(const CaliParReadIn& other) noexcept {
    guarded("CaliParReadIn", [&] {
        if (other._state) _state = std::make_unique<State>(*other._state);
    });
}

CaliParReadIn& CaliParReadIn::operator=(const CaliParReadIn& other) noexcept {
    if (this == &other) return *this;
    guarded("CaliParReadIn", [&] { _state = other._state ? std::make_unique<State>(*other._state) : nullptr; });
    return *this;
}

CaliParReadIn::~CaliParReadIn() = default;

CaliParReadIn::CaliParReadIn(const std::string& leftPath, const std::string& rightPath,
                             const Vector2i& imageSize) noexcept {
    ini(leftPath, rightPath, imageSize);
}

CaliParReadIn::CaliParReadIn(const std::vector<float>& leftPar, const std::vector<float>& rightPar,
                             const std::vector<float>& colorPar, const Vector2i& imageSize,
                             const Vector2i& colorImageSize) noexcept
    : CaliParReadIn() {
    if (leftPar.size() != CameraVectorSize || rightPar.size() != CameraVectorSize) {
        guarded("CaliParReadIn",
                [] { print_line("CaliParReadIn ini fail because leftPar.size() != 22 || rightPar.size() != 22"); });
        return;
    }
    ini(leftPar, rightPar, colorPar, imageSize, colorImageSize);
}

template <class Read>
void CaliParReadIn::ini_with(const Vector2i& imageSize, const Vector2i& colorImageSize, const Read& read_cameras) {
    _state = std::make_unique<State>();
    if (!cvmemery_ini(imageSize, colorImageSize)) return;
    if (!read_cameras()) {
        print_line("read camera para fail");
        return;
    }
    if (!rectify()) return;
    _state->deviceMaps.clear();
    _state->isIniSuccess = true;
}

void CaliParReadIn::ini(const std::string& leftPath, const std::string& rightPath, const Vector2i& imageSize) noexcept {
    guarded("CaliParReadIn ini",
            [&] { ini_with(imageSize, Vector2i::Zero(), [&] { return Read_Camera_Para(leftPath, rightPath); }); });
}

void CaliParReadIn::ini(const std::vector<float>& leftPar, const std::vector<float>& rightPar,
                        const std::vector<float>& colorPar, const Vector2i& imageSize,
                        const Vector2i& colorImageSize) noexcept {
    guarded("CaliParReadIn ini", [&] {
        ini_with(imageSize, colorImageSize, [&] { return Read_Camera_Para(leftPar, rightPar); });
        if (!_state->isIniSuccess) return;
        print_line(color_cali_read(colorPar) ? "color camera par read success" : "color camera par read fail");
    });
}

bool CaliParReadIn::is_ini_success() const noexcept {
    return _state && _state->isIniSuccess;
}

bool CaliParReadIn::cvmemery_ini(const Vector2i& imageSize, const Vector2i& colorImageSize) noexcept {
    return guarded<bool>("cvmemery_ini", false, [&] {
        if (!is_usable(imageSize)) {
            print_line("cvmemery_ini fail because the image size " + size_text(imageSize) + " is not usable");
            return false;
        }
        auto state = std::make_unique<State>();
        for (OwnedCvMat* map : {&state->leftMapX, &state->leftMapY, &state->rightMapX, &state->rightMapY})
            *map = OwnedCvMat(imageSize.y(), imageSize.x(), CV_32FC1);
        const std::size_t pixels = static_cast<std::size_t>(imageSize.x()) * static_cast<std::size_t>(imageSize.y());
        state->leftMap.resize(2 * pixels);
        state->rightMap.resize(2 * pixels);
        state->imageSize = imageSize;
        state->colorImageSize = colorImageSize;
        if (is_usable(colorImageSize)) {
            state->colorMapX = OwnedCvMat(colorImageSize.y(), colorImageSize.x(), CV_32FC1);
            state->colorMapY = OwnedCvMat(colorImageSize.y(), colorImageSize.x(), CV_32FC1);
        }
        _state = std::move(state);
        return true;
    });
}

template <class Source>
bool CaliParReadIn::read_both_cameras(const Source& leftSource, const Source& rightSource) {
    const std::optional<CameraCalibration> left = read_camera(leftSource);
    if (!left) return false;
    const std::optional<CameraCalibration> right = read_camera(rightSource);
    if (!right) return false;
    if (!_state) _state = std::make_unique<State>();
    State& state = *_state;
    store_camera(*left, state.K_L.slot(), state.D_L.slot(), state.R_L.slot(), state.T_L.slot());
    store_camera(*right, state.K_R.slot(), state.D_R.slot(), state.R_R.slot(), state.T_R.slot());
    const Matrix3d R = right->R * left->R.transpose();
    const Vector3d T = right->T - R * left->T;
    fill(state.R.slot(), R);
    fill(state.T.slot(), T);
    state.leftToRight = RigidMatrix(R, T);
    return true;
}

bool CaliParReadIn::Read_Camera_Para(const std::string& leftPath, const std::string& rightPath) noexcept {
    return guarded<bool>("Read_Camera_Para", false, [&] { return read_both_cameras(leftPath, rightPath); });
}

bool CaliParReadIn::Read_Camera_Para(const std::vector<float>& leftPar, const std::vector<float>& rightPar) noexcept {
    return guarded<bool>("Read_Camera_Para", false, [&] { return read_both_cameras(leftPar, rightPar); });
}

bool CaliParReadIn::read_calibrate_para_single(CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T,
                                               const std::string& path) noexcept {
    return guarded<bool>("read_calibrate_para_single", false, [&] { return read_into_matrices(path, K, D, R, T); });
}

bool CaliParReadIn::read_calibrate_para_single(CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T,
                                               const std::vector<float>& par) noexcept {
    return guarded<bool>("read_calibrate_para_single", false, [&] { return read_into_matrices(par, K, D, R, T); });
}

bool CaliParReadIn::rectify() noexcept {
    return guarded<bool>("rectify", false, [&] {
        const auto refuse = [](const std::string& reason) {
            print_line("rectify fail because " + reason);
            return false;
        };
        if (!_state || _state->leftMap.empty() || _state->R.get() == nullptr)
            return refuse("no cameras have been read");
        State& state = *_state;
        const char* fault = fault_of_pair(eigen_matrix<3, 3>(state.K_L), eigen_matrix<3, 3>(state.K_R), state.D_L.mat(),
                                          state.D_R.mat(), state.leftToRight);
        if (fault != nullptr) return refuse(fault);

        constexpr double DEFAULT_SCALING = -1.0;
        const cv::Size size(state.imageSize.x(), state.imageSize.y());
        cv::Mat R1 = state.R1.mat(), R2 = state.R2.mat(), P1 = state.P1.mat(), P2 = state.P2.mat(), Q = state.Q.mat();
        cv::stereoRectify(state.K_L.mat(), state.D_L.mat(), state.K_R.mat(), state.D_R.mat(), size, state.R.mat(),
                          state.T.mat(), R1, R2, P1, P2, Q, /*flags*/ 0, DEFAULT_SCALING, cv::Size(0, 0),
                          &state.validRoiLeft, &state.validRoiRight);
        for (const cv::Mat& result : {R1, R2, P1, P2})
            if (!cv::checkRange(result)) return refuse("the rectified cameras are not finite");
        if (P1.at<double>(0, 0) <= 0.0) return refuse("the rectified focal length is not positive");
        if (is_turned_away(eigen_matrix<3, 3>(state.R1)) || is_turned_away(eigen_matrix<3, 3>(state.R2)))
            return refuse("the cameras look along the line that joins them");

        if (!get_rectify_map(state.K_L.get(), state.D_L.get(), state.R1.get(), state.P1.get(), state.leftMapX.get(),
                             state.leftMapY.get()) ||
            !get_rectify_map(state.K_R.get(), state.D_R.get(), state.R2.get(), state.P2.get(), state.rightMapX.get(),
                             state.rightMapY.get()))
            return false;

        state.fxRect = static_cast<float>(P1.at<double>(0, 0));
        state.fyRect = static_cast<float>(P1.at<double>(1, 1));
        state.cxRect = static_cast<float>(P1.at<double>(0, 2));
        state.cyRect = static_cast<float>(P1.at<double>(1, 2));
        print_line(rectified_camera_text(state.fxRect, state.fyRect, state.cxRect, state.cyRect));

        state.rectifiedToRaw.set_identity();
        state.rectifiedToRaw.set_rotation(eigen_matrix<3, 3>(state.R1).inverse());
        interleave(state.leftMapX, state.leftMapY, state.leftMap);
        interleave(state.rightMapX, state.rightMapY, state.rightMap);
        return true;
    });
}

bool CaliParReadIn::get_rectify_map(const CvMat* K, const CvMat* D, const CvMat* R, const CvMat* P, CvMat* mapx,
                                    CvMat* mapy) noexcept {
    return guarded<bool>("get_rectify_map", false, [&] {
        for (const CvMat* matrix : {K, D, R, P, static_cast<const CvMat*>(mapx), static_cast<const CvMat*>(mapy)}) {
            if (matrix != nullptr && CV_IS_MAT(matrix)) continue;
            print_line("get_rectify_map fail because a matrix is missing");
            return false;
        }
        const cv::Mat mapx0 = cv::cvarrToMat(mapx), mapy0 = cv::cvarrToMat(mapy);
        if (mapx0.type() != CV_32FC1 || mapy0.type() != CV_32FC1 || mapx0.size() != mapy0.size()) {
            print_line("get_rectify_map fail because the maps are not CV_32FC1 or differ in size");
            return false;
        }
        cv::Mat mapX = mapx0, mapY = mapy0;
        if (!compute_rectify_map(cv::cvarrToMat(K), cv::cvarrToMat(D), cv::cvarrToMat(R), cv::cvarrToMat(P),
                                 mapx0.size(), CV_32FC1, mapX, mapY))
            return false;
        if (mapx0.data == mapX.data && mapy0.data == mapY.data) return true;
        print_line("mapx0.data == mapx.data && mapy0.data == mapy.data");
        return false;
    });
}

bool CaliParReadIn::get_rectify_map_run(const cv::_InputArray& K, const cv::_InputArray& D, const cv::_InputArray& R,
                                        const cv::_InputArray& P, cv::Size_<int> size, int m1type,
                                        const cv::_OutputArray& map1, const cv::_OutputArray& map2) noexcept {
    return guarded<bool>("get_rectify_map_run", false, [&] {
        return compute_rectify_map(K.getMat(), D.getMat(), R.getMat(), P.getMat(), size, m1type, map1, map2);
    });
}

bool CaliParReadIn::color_cali_read(const std::vector<float>& colorPar) noexcept {
    return guarded<bool>("color_cali_read", false, [&] {
        if (colorPar.size() != CameraVectorSize) {
            print_line("can not read color camera ,because colorCCF.size() != 22");
            return false;
        }
        const CameraCalibration color = *calibration_from_vector(colorPar);
        if (!_state || _state->R_L.get() == nullptr || _state->colorMapX.get() == nullptr) {
            print_line("can not read color camera ,because there is no stereo pair or no color image size");
            return false;
        }
        if (!color.K.allFinite() || !color.D.allFinite() || !color.T.allFinite() || !color.R.allFinite() ||
            color.K(0, 0) <= 0.0 || color.K(1, 1) <= 0.0 || !is_rotation(color.R)) {
            print_line("can not read color camera ,because its values describe no camera");
            return false;
        }
        State& state = *_state;
        store_camera(color, state.colorK.slot(), state.colorD.slot(), state.colorR.slot(), state.colorT.slot());
        const OwnedCvMat noRotation(3, 3, CV_64FC1);
        cvSetIdentity(noRotation.get());
        if (!get_rectify_map(state.colorK.get(), state.colorD.get(), noRotation.get(), state.colorK.get(),
                             state.colorMapX.get(), state.colorMapY.get()))
            return false;

        const Matrix3d R = color.R * eigen_matrix<3, 3>(state.R_L).transpose();
        state.leftToColor = RigidMatrix(R, color.T - R * eigen_matrix<3, 1>(state.T_L));
        state.rectifiedToColor = state.leftToColor * state.rectifiedToRaw;
        state.hasColor = true;
        return true;
    });
}

bool CaliParReadIn::remap_image_LR(const unsigned char* pImgL, const unsigned char* pImgR, unsigned char* pRemapImgL,
                                   unsigned char* pRemapImgR) const noexcept {
    return guarded<bool>("remap_image_LR", false, [&] {
        static const RemapRowToBytes remap_row = best_remap_row_to_bytes();
        return remap_checked_pair(*this, remap_row, pImgL, pImgR, pRemapImgL, pRemapImgR);
    });
}

bool CaliParReadIn::remap_image_LR(const unsigned char* pImgL, const unsigned char* pImgR, float* pRemapImgL,
                                   float* pRemapImgR) const noexcept {
    return guarded<bool>("remap_image_LR", false, [&] {
        static const RemapRowToFloats remap_row = best_remap_row_to_floats();
        return remap_checked_pair(*this, remap_row, pImgL, pImgR, pRemapImgL, pRemapImgR);
    });
}

bool CaliParReadIn::rectify_image(const IplImage* rawL, const IplImage* rawR, IplImage* rectL,
                                  IplImage* rectR) const noexcept {
    return guarded<bool>("rectify_image", false, [&] {
        if (!is_ini_success()) {
            print_line("rectify_image fail because the calibration is not initialised");
            return false;
        }
        if (!is_pair(rawL, rectL, _state->imageSize) || !is_pair(rawR, rectR, _state->imageSize) ||
            !is_interpolated_depth(rawL) || !is_interpolated_depth(rawR)) {
            print_line("rectify_image fail because an image is missing or has another size or type");
            return false;
        }
        cv::Mat left = cv::cvarrToMat(rectL), right = cv::cvarrToMat(rectR);
        cv::remap(cv::cvarrToMat(rawL), left, _state->leftMapX.mat(), _state->leftMapY.mat(), cv::INTER_LINEAR);
        cv::remap(cv::cvarrToMat(rawR), right, _state->rightMapX.mat(), _state->rightMapY.mat(), cv::INTER_LINEAR);
        return true;
    });
}

bool CaliParReadIn::gpu_rect_mat_upload() noexcept {
    return guarded<bool>("gpu_rect_mat_upload", false, [&] {
        if (!is_ini_success()) {
            print_line("gpu_rect_mat_upload fail because the calibration is not initialised");
            return false;
        }
        return _state->deviceMaps.upload(_state->leftMapX.mat(), _state->leftMapY.mat(), _state->rightMapX.mat(),
                                         _state->rightMapY.mat());
    });
}

bool CaliParReadIn::gpu_rectify_image(const IplImage* rawL, const IplImage* rawR, cv::cuda::GpuMat& rectL,
                                      cv::cuda::GpuMat& rectR) const noexcept {
    return guarded<bool>("gpu_rectify_image", false, [&] {
        if (!_state || !_state->deviceMaps.is_uploaded()) {
            print_line("please upload Gpu Memery first");
            return false;
        }
        if (!has_size(rawL, _state->imageSize) || !has_size(rawR, _state->imageSize)) {
            print_line("gpu_rectify_image fail because an image is missing or has another size");
            return false;
        }
        return _state->deviceMaps.remap(cv::cvarrToMat(rawL), cv::cvarrToMat(rawR), rectL, rectR);
    });
}

Vector2i CaliParReadIn::get_image_size() const noexcept {
    return _state ? _state->imageSize : Vector2i::Zero().eval();
}

Vector2i CaliParReadIn::get_color_image_size() const noexcept {
    return _state ? _state->colorImageSize : Vector2i::Zero().eval();
}

float CaliParReadIn::get_fxRect() const noexcept {
    return _state ? _state->fxRect : 0.0F;
}

float CaliParReadIn::get_fyRect() const noexcept {
    return _state ? _state->fyRect : 0.0F;
}

float CaliParReadIn::get_cxRect() const noexcept {
    return _state ? _state->cxRect : 0.0F;
}

float CaliParReadIn::get_cyRect() const noexcept {
    return _state ? _state->cyRect : 0.0F;
}

CameraInParam CaliParReadIn::get_rectified_camera() const noexcept {
    return {get_fxRect(), get_fyRect(), get_cxRect(), get_cyRect()};
}

Eigen::Matrix<double, 3, 4> CaliParReadIn::get_left_projection() const noexcept {
    return is_ini_success() ? eigen_matrix<3, 4>(_state->P1) : Eigen::Matrix<double, 3, 4>::Zero().eval();
}

Eigen::Matrix<double, 3, 4> CaliParReadIn::get_right_projection() const noexcept {
    return is_ini_success() ? eigen_matrix<3, 4>(_state->P2) : Eigen::Matrix<double, 3, 4>::Zero().eval();
}

Matrix4d CaliParReadIn::get_Q() const noexcept {
    return is_ini_success() ? eigen_matrix<4, 4>(_state->Q) : Matrix4d::Zero().eval();
}

Matrix3d CaliParReadIn::get_R1() const noexcept {
    return is_ini_success() ? eigen_matrix<3, 3>(_state->R1) : Matrix3d::Zero().eval();
}

Matrix3d CaliParReadIn::get_R2() const noexcept {
    return is_ini_success() ? eigen_matrix<3, 3>(_state->R2) : Matrix3d::Zero().eval();
}

RigidMatrix CaliParReadIn::get_left_to_right() const noexcept {
    return _state ? _state->leftToRight : RigidMatrix();
}

RigidMatrix CaliParReadIn::get_rectified_to_raw() const noexcept {
    return _state ? _state->rectifiedToRaw : RigidMatrix();
}

RigidMatrix CaliParReadIn::get_left_to_color() const noexcept {
    return _state ? _state->leftToColor : RigidMatrix();
}

RigidMatrix CaliParReadIn::get_rectified_to_color() const noexcept {
    return _state ? _state->rectifiedToColor : RigidMatrix();
}

bool CaliParReadIn::has_color_camera() const noexcept {
    return _state && _state->hasColor;
}

Matrix3d CaliParReadIn::get_color_K() const noexcept {
    return has_color_camera() ? eigen_matrix<3, 3>(_state->colorK) : Matrix3d::Zero().eval();
}

PixelRectangle CaliParReadIn::get_valid_rectangle_left() const noexcept {
    return is_ini_success() ? rectangle(_state->validRoiLeft) : PixelRectangle();
}

PixelRectangle CaliParReadIn::get_valid_rectangle_right() const noexcept {
    return is_ini_success() ? rectangle(_state->validRoiRight) : PixelRectangle();
}

const float* CaliParReadIn::get_left_map() const noexcept {
    return is_ini_success() ? _state->leftMap.data() : nullptr;
}

const float* CaliParReadIn::get_right_map() const noexcept {
    return is_ini_success() ? _state->rightMap.data() : nullptr;
}

}  // namespace Rebuild
}  // namespace VexelAlgorithm
