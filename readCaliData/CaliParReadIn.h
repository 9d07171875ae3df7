// The calibration of a stereo scanner: reading, rectification, remapping of raw images.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "foundation/CameraInParam.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"
#include "foundation/types.h"

// OpenCV's types as far as the interface names them. Applications that call those functions include OpenCV themselves.
struct CvMat;
struct _IplImage;
typedef struct _IplImage IplImage;
namespace cv {
class _InputArray;
class _OutputArray;
template <typename Scalar>
class Size_;
namespace cuda {
class GpuMat;
}
}  // namespace cv

namespace VexelAlgorithm {
namespace Rebuild {

/// A rectangle of pixels.
struct PixelRectangle {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

/// Reads the calibration of a left and a right camera (and of a colour camera, if there is one), rectifies the pair
/// and remaps raw images into the rectified geometry, in which both cameras are pinholes of one focal length whose
/// rows match.
///
/// A camera is given by a calibration text file or by a vector of 22 floats: fx, fy, cx, cy, alpha (the skew
/// K(0,1) is alpha * fx), k1, k2, p1, p2, k3, translation (mm) and rotation row by row; rotation and translation
/// take calibration world coordinates to camera coordinates.
///
/// Frames of reference: raw left camera, rectified left camera (the raw one turned by R1), rectified right camera.
///
/// Failures print one line. An object whose initialisation failed answers false to everything else.
///
/// Thread-safety: once initialised, the remap functions only read and may run at once on several threads. Copies are
/// deep.
class VEXEL_API CaliParReadIn {
public:
    CaliParReadIn() noexcept;
    CaliParReadIn(const CaliParReadIn& other) noexcept;
    CaliParReadIn& operator=(const CaliParReadIn& other) noexcept;
    ~CaliParReadIn();

    /// From two calibration files; `imageSize` is width, height of the raw images.
    CaliParReadIn(const std::string& leftPath, const std::string& rightPath, const Vector2i& imageSize) noexcept;
    /// From camera vectors. An empty colour vector means no colour camera; it is reported like any other that has
    /// not 22 values, and leaves the stereo part initialised.
    CaliParReadIn(const std::vector<float>& leftPar, const std::vector<float>& rightPar,
                  const std::vector<float>& colorPar, const Vector2i& imageSize,
                  const Vector2i& colorImageSize) noexcept;

    /// Read, rectify, set the initialised flag. What the object held before is lost, also when this fails.
    void ini(const std::string& leftPath, const std::string& rightPath, const Vector2i& imageSize) noexcept;
    void ini(const std::vector<float>& leftPar, const std::vector<float>& rightPar, const std::vector<float>& colorPar,
             const Vector2i& imageSize, const Vector2i& colorImageSize) noexcept;
    bool is_ini_success() const noexcept;

    // ---- the steps of the initialisation ---------------------------------------------------------------

    /// Allocates the maps. Sides must be 1 to 32767 pixels; a colour image of size (0, 0) means none.
    bool cvmemery_ini(const Vector2i& imageSize, const Vector2i& colorImageSize) noexcept;
    /// Reads both cameras and forms the pose of the right camera relative to the left one. Prints nothing; on failure
    /// the object stays as it was.
    bool Read_Camera_Para(const std::string& leftPath, const std::string& rightPath) noexcept;
    bool Read_Camera_Para(const std::vector<float>& leftPar, const std::vector<float>& rightPar) noexcept;
    /// One camera into K (3 x 3), D (5 x 1), R (3 x 3) and T (3 x 1), all CV_64FC1. Those that are null are created
    /// and then belong to the caller (`cvReleaseMat`). On failure nothing is created or written, and nothing is
    /// printed but for matrices of another shape.
    bool read_calibrate_para_single(CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T, const std::string& path) noexcept;
    bool read_calibrate_para_single(CvMat*& K, CvMat*& D, CvMat*& R, CvMat*& T, const std::vector<float>& par) noexcept;
    /// Bouguet's stereo rectification with principal points left where they are, and the maps of both cameras.
    /// Refuses with a line what cannot be rectified: values that are not finite, focal lengths that are not positive,
    /// matrices that are not rotations, cameras in one place, cameras that look away from each other or along the
    /// line that joins them.
    bool rectify() noexcept;
    /// Maps from rectified pixels to raw ones: P * R inverted, distortion, K with its skew. `mapx` and `mapy` are
    /// CV_32FC1 of one size; they are written in place.
    bool get_rectify_map(const CvMat* K, const CvMat* D, const CvMat* R, const CvMat* P, CvMat* mapx,
                         CvMat* mapy) noexcept;
    /// The same for a size and a map type, CV_16SC2, CV_32FC1 or CV_32FC2. P is 3 x 3 or 3 x 4.
    bool get_rectify_map_run(const cv::_InputArray& K, const cv::_InputArray& D, const cv::_InputArray& R,
                             const cv::_InputArray& P, cv::Size_<int> size, int m1type, const cv::_OutputArray& map1,
                             const cv::_OutputArray& map2) noexcept;
    /// The colour camera, after `rectify`: its undistortion maps and the transform from rectified-left coordinates.
    bool color_cali_read(const std::vector<float>& colorPar) noexcept;

    // ---- remapping -------------------------------------------------------------------------------------

    /// Raw 8-bit images in, rectified images out, all width * height pixels without padding, in different memory.
    /// Bilinear; 0 where the truncated raw coordinates do not satisfy 2 < ix < width - 2 and 2 < iy < height - 2, so
    /// that later stages may read windows around each pixel. The byte form truncates. Runs on the library's default
    /// thread number and gives the same values for any.
    bool remap_image_LR(const unsigned char* pImgL, const unsigned char* pImgR, unsigned char* pRemapImgL,
                        unsigned char* pRemapImgR) const noexcept;
    bool remap_image_LR(const unsigned char* pImgL, const unsigned char* pImgR, float* pRemapImgL,
                        float* pRemapImgR) const noexcept;
    /// The same through OpenCV's remap: rounded, without the margin, 0 outside the raw image. Images of the size of
    /// the calibration and of one type each with its result.
    bool rectify_image(const IplImage* rawL, const IplImage* rawR, IplImage* rectL, IplImage* rectR) const noexcept;
    /// Uploads the maps to the device. Refused with a line where OpenCV has no CUDA modules.
    bool gpu_rect_mat_upload() noexcept;
    /// Uploads both images and remaps them on the device.
    bool gpu_rectify_image(const IplImage* rawL, const IplImage* rawR, cv::cuda::GpuMat& rectL,
                           cv::cuda::GpuMat& rectR) const noexcept;

    // ---- results, meaningful once initialised ------------------------------------------------------------

    Vector2i get_image_size() const noexcept;
    Vector2i get_color_image_size() const noexcept;
    float get_fxRect() const noexcept;  ///< rectified left intrinsics, pixels
    float get_fyRect() const noexcept;
    float get_cxRect() const noexcept;
    float get_cyRect() const noexcept;
    CameraInParam get_rectified_camera() const noexcept;  ///< the same four values
    /// Projection matrices from rectified-left coordinates to pixels of the rectified images.
    Eigen::Matrix<double, 3, 4> get_left_projection() const noexcept;
    Eigen::Matrix<double, 3, 4> get_right_projection() const noexcept;
    Matrix4d get_Q() const noexcept;                      ///< pixel and disparity to point
    Matrix3d get_R1() const noexcept;                     ///< raw left to rectified left
    Matrix3d get_R2() const noexcept;                     ///< raw right to rectified right
    RigidMatrix get_left_to_right() const noexcept;       ///< raw left to raw right camera coordinates
    RigidMatrix get_rectified_to_raw() const noexcept;    ///< rectified left to raw left: the inverse of R1
    RigidMatrix get_left_to_color() const noexcept;       ///< raw left to colour camera coordinates
    RigidMatrix get_rectified_to_color() const noexcept;  ///< rectified left to colour camera coordinates
    bool has_color_camera() const noexcept;
    Matrix3d get_color_K() const noexcept;
    PixelRectangle get_valid_rectangle_left() const noexcept;  ///< where all rectified pixels have a raw one
    PixelRectangle get_valid_rectangle_right() const noexcept;
    /// Raw coordinates (x, y) of every rectified pixel, row by row; null before initialisation.
    const float* get_left_map() const noexcept;
    const float* get_right_map() const noexcept;

private:
    struct State;

    template <class Read>
    void ini_with(const Vector2i& imageSize, const Vector2i& colorImageSize, const Read& read_cameras);
    template <class Source>
    bool read_both_cameras(const Source& leftSource, const Source& rightSource);

    std::unique_ptr<State> _state;
};

}  // namespace Rebuild
}  // namespace VexelAlgorithm
