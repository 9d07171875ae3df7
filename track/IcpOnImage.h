// Registration of two images of marks or outlines by a rotation and a shift in the image plane.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/RetVal.h"
#include "foundation/export.h"
#include "foundation/types.h"
#include "track/RigidMatrix2D.h"

namespace VexelAlgorithm {
namespace Track {

/// Point-to-point ICP (P. J. Besl, N. D. McKay, "A method for registration of 3-D shapes", PAMI 14, 1992) between the
/// non-zero pixels of two 8-bit images of the same size: every non-zero pixel of the moving image looks for the nearest
/// non-zero pixel of the fixed one within a window.
///
/// Positions in the images are in pixels; pixel (c, r) covers [c, c + 1) x [r, r + 1). A moving pixel counts as the
/// point (c, r), its corner, a fixed one as its centre (c + 0.5, r + 0.5). The pose found therefore is that of marks at
/// whole-numbered positions in the moving image, each drawn into the pixel of the fixed image that contains it; an
/// image registered with itself gives the shift (0.5, 0.5). For the motion between the things seen, where both images
/// were drawn alike, subtract rotation * (0.5, 0.5) from the shift.
///
/// How exact it is, over 200 random motions of 1 to 2 degrees and 4 pixels each (pixels: root mean square over the
/// image; median, 95 % and all below). Marks further apart than the window err by their rounding to pixels, spread over
/// n marks: 0.04, 0.07, 0.11 pixels and 0.002, 0.006, 0.013 degrees for 160 marks in 1280 x 1024; 0.05, 0.10, 0.11
/// pixels and 0.006, 0.016, 0.025 degrees for 90 marks in 640 x 480. Outlines slide along themselves, and their pixels
/// do not correspond: 0.09, 0.19, 0.24 pixels and 0.012, 0.041, 0.057 degrees for five closed curves of 3200 pixels in
/// 640 x 480, less the half pixel above.
///
/// Threads: searches of many thousand points run in parallel inside, on all processors, and the result does not depend
/// on their number. A call must be alone on its object.
class VEXEL_API IcpOnImage {
public:
    static constexpr int CoarseStep = 12;  ///< coarse iterations take every so many-th moving point

    /// `iterNum` iterations, the first `iterNumFixed` of them coarse. `searchWindows`: full width of the square window
    /// (pixels) of the coarse and of the fine iterations; an even width counts as the next odd one. `disAvgPix`:
    /// largest accepted mean of the squared distances, pixels^2. `imageSize`: width and height. `debugPath`: kept for
    /// dumps, of which there are none. Nothing is checked: a size below 1 is an image without pixels, a window
    /// below -1 finds nothing. An object that could not get its working memory refuses every registration.
    ///
    /// What serves well: a coarse window of twice the largest displacement of a mark, but below their distance from
    /// each other; a fine one of half of that; 10 coarse iterations for marks and 20 for outlines, and as many fine
    /// ones.
    IcpOnImage(int iterNum, int iterNumFixed, const Vector2i& searchWindows, float disAvgPix, const Vector2i& imageSize,
               const std::string& debugPath);
    ~IcpOnImage();
    IcpOnImage(const IcpOnImage&) = delete;
    IcpOnImage& operator=(const IcpOnImage&) = delete;

    /// The pose that takes points of the moving image to the fixed one, from the identity as start. Images are rows of
    /// the constructor's size without padding.
    ///
    /// RET_SUCCESS with the pose in the outputs. RET_SUCCESS with the outputs as they were, and two lines from "image
    /// icp false because thisDisError > _disAvgPix" on, when the mean squared distance is too large; with the outputs
    /// as they were and no line when there are no iterations. RET_NOT_CONVERGED with "icp False correspondNum = 0 "
    /// when no moving pixel finds a fixed one. RET_INPUT_ERROR for null images, RET_INI_ERROR for an object without
    /// memory, a line each.
    RetVal real_time_image_icp(const unsigned char* fixImage, const unsigned char* moveImage, Eigen::Matrix2d& rotation,
                               Vector2d& translation);

    // ---- its steps --------------------------------------------------------------------------------------

    /// The non-zero pixels as points (column, row), row by row. Null image: no points.
    void compact_move_image(const unsigned char* moveImage, std::vector<Vector2f>& points,
                            const Vector2i& imageSize) const;
    /// For every `step`-th point (below 1 counts as 1), carried by `pose` and rounded to float, the nearest non-zero
    /// fixed pixel of the window: (fixed x, fixed y, moved x, moved y) and the squared distance, in the order of the
    /// points, those without one left out. Of equally near pixels the first in the order of rows, then columns, counts.
    void find_correspond(const unsigned char* fixImage, const std::vector<Vector2f>& points, int step, int window,
                         const RigidMatrix2D& pose, std::vector<Vector4f>& correspondences,
                         std::vector<float>& distances) const;
    /// The motion that takes the moved points nearest to the fixed ones, linearised in the angle: least squares of
    /// fixed - moved = angle (-y, x) + shift. Without correspondences the identity; where they do not tell the angle
    /// (all in one place) it is 0.
    void get_mat(const std::vector<Vector4f>& correspondences, RigidMatrix2D& increment) const;

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace Track
}  // namespace VexelAlgorithm
