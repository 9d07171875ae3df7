// What every speckle reconstruction begins with: rectified images, sampled images, valid masks.
#pragma once

#include <string>

#include "SpeckleRebCPU/DebugDump.h"
#include "SpeckleRebCPU/Raster.h"
#include "SpeckleRebCPU/RebParam.h"
#include "SpeckleRebCPU/StereoGeometry.h"
#include "SpeckleRebCPU/fineImages.h"
#include "readCaliData/CaliParReadIn.h"

namespace VexelAlgorithm {

/// Left and right of anything.
template <class Type>
struct Both {
    Type left;
    Type right;
};

class CommonSpeReb {
public:
    explicit CommonSpeReb(const RebParam& param);

    const RebParam& get_param() const { return _param; }
    const Rebuild::CaliParReadIn& get_calibration() const { return _calibration; }
    DebugDump& debug() { return _debug; }

protected:
    /// Why nothing can be reconstructed with these settings; empty when they are fine.
    static std::string fault_of(const RebParam& param);

    /// Reads the calibration and prepares everything that does not change from frame to frame. Prints a line on
    /// failure.
    bool ini_common();
    void print_param() const;
    void print_calibration() const;

    // ---- stages; each returns false, with a line, when it fails -----------------------------------------

    bool remap(const unsigned char* left, const unsigned char* right);
    /// For sub-pixel matching. Cannot fail where `remap` did not.
    void remap_fine(const unsigned char* left, const unsigned char* right);
    void build_pyramid();
    bool compute_valid_mask();

    void copy_raw(const unsigned char* left, const unsigned char* right);

    const RebParam _param;
    const int _threads;
    int _widthSample = 0;
    int _heightSample = 0;
    PixelRange _sampledRange;  ///< imageRange in sampled pixels
    Rebuild::CaliParReadIn _calibration;
    StereoGeometry _geometry;
    double _baseLineD = 0.0;  ///< mm
    DebugDump _debug;

    Both<GreyImage> _raw;    ///< filled for dumps only
    Both<GreyImage> _remap;  ///< rectified, full size
    FinePair _fine;          ///< rectified for sub-pixel matching
    Both<GreyImage> _pyramid;
    Both<GreyImage> _gradient;
    Both<Mask> _mask;         ///< sampled pixels that can be matched
    Both<Mask> _cover;        ///< rectified pixels that show anything
    Both<Mask> _windowCover;  ///< sampled pixels whose matching window is covered as a whole

private:
    void find_cover();

    FineRectification _fineRectification;
    FineImage _fineRight;  ///< rectified, before it becomes a spline
};

}  // namespace VexelAlgorithm
