// The stereo reconstruction of a speckle scanner on the processor.
#pragma once

#include <memory>
#include <string_view>

#include "SpeckleRebCPU/CommonSpeReb.h"
#include "SpeckleRebCPU/DepthRange.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/surfaceEdges.h"
#include "SpeckleRebCPU/wholeSurfaceFit.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"

namespace VexelAlgorithm {

/// From a raw image pair to a point and a normal per sampled pixel. One object reconstructs one frame at a time; the
/// result does not depend on the thread number.
class SpeckleRebCpu : public CommonSpeReb {
public:
    /// Null, with a line, when the settings or the calibration cannot be used.
    static std::unique_ptr<SpeckleRebCpu> create(const RebParam& param);

    /// The whole sequence.
    RetVal run(const unsigned char* left, const unsigned char* right, PointImage& result, int& timeMs);
    /// Up to the depth range, which stays in the object.
    RetVal run_pixMatch(const unsigned char* left, const unsigned char* right, int& timeMs);
    /// From the depth range on that the last pixel stage left. Dumps of the noise removal and of the result belong to
    /// `run` alone.
    RetVal run_subPix(const unsigned char* left, const unsigned char* right, PointImage& result, int& timeMs);

    /// Dumps on or off, of bitmaps and of points, for one frame (counted from 0) or, when negative, all.
    void should_we_debug(bool isOn, bool images, int frame, bool points);

private:
    struct StageNames;

    explicit SpeckleRebCpu(const RebParam& param) : CommonSpeReb(param) {}
    bool ini();

    bool can_take(const unsigned char* left, const unsigned char* right, const PointImage& result) const;
    bool prepare_images(const unsigned char* left, const unsigned char* right, const StageNames& names);
    bool match_to_depth_range(const StageNames& names);
    void refine(const unsigned char* left, const unsigned char* right, const StageNames& names);
    void remove_noise(const StageNames& names);
    void dump_points(std::string_view name);
    void dump_oriented_points(std::string_view name);
    void write_result(const StageNames& names, PointImage& result);

    bool match_pixels_by_zncc();
    void remove_noise_points();
    void fill_neigh_invalid_points();
    void save_invalid_points();
    void pre_subpixel_match();
    void iterate_subpixel_match();
    void fit_surface();
    SubPixelTask sub_pixel_task(const Mask& cover) const;
    void take_sub_pixel_step(float largestStep);
    void measure_scores();
    void move_parallaxes(float largestStep);
    void drop_uncorrelated();
    float median_score() const;
    void smooth_normals(float noise);
    EdgeTask edge_task() const;
    float region_step() const;  ///< pixels between neighbours of one surface
    int sub_pixel_window() const;
    std::size_t island_limit(std::size_t share) const;

    Raster<float> _match;  ///< parallax of the pixel stage, sampled pixels
    Raster<float> _matchScore;
    Raster<float> _weakMatch;   ///< matches that are not good enough to start from
    Mask _invalid;              ///< pixels that the pixel stage could not match
    DepthRange _pixDepthRange;  ///< kept between the stages
    DepthRange _objDepthRange;
    Raster<float> _unclippedShares;  ///< of the rectified left image
    Mask _subPixelCover;             ///< left pixels, as `SubPixelTask` has it
    WholeSurfaceFit _surfaceFit;
    Raster<float> _step;
    Raster<float> _score;       ///< scratch: those of the step before
    float _medianScore = 1.0F;  ///< of the frame's slots under the fitted surface
    int _frame = 0;
};

}  // namespace VexelAlgorithm
