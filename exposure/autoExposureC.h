// Chooses the best exposed image of a series.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "exposure/exposureQuality.h"
#include "foundation/RetVal.h"
#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {
namespace autoExposureFoot {

/// What the calculator saw in one image, reduced by 4 in each direction; rows without padding, in memory of the
/// calculator until its next image.
struct ExposureView {
    int width = 0;
    int height = 0;
    const unsigned char* grey = nullptr;
    const unsigned char* mask = nullptr;     ///< 1 where there is pattern
    const unsigned char* cluster = nullptr;  ///< 1 where enough of it hangs together
    Vector4i region{0, 0, 0, 0};             ///< xBegin, xEnd, yBegin, yEnd: where it is counted
};

/// Measures 8-bit grey images of one scene under a projected pattern, taken at different exposures, and tells which one
/// lets a stereo matcher find most. Images are rows of the given size without padding.
///
/// An image is smoothed (3 x 3) and reduced by 4. A reduced pixel shows pattern when the absolute differences of its 20
/// pairs of neighbours (3 x 3 pixels) sum to more than 40, and their mean is at most 255 - 40: no light and too much of
/// it both hide the pattern. Places with pattern that hang together over 2 % of the reduced image count; `P0` to `P3`
/// sum them up over the region. How these rules were found, and what they achieve, is told in docs/exposure.md.
///
/// Threads: images are measured on all processors, with the same result for any number. A call must be alone on its
/// object. Copies are deep.
class VEXEL_API autoExposureC {
public:
    /// Without a size: refuses every image.
    autoExposureC();
    autoExposureC(const autoExposureC& other);
    autoExposureC& operator=(const autoExposureC& other);
    ~autoExposureC();

    /// `size`: width and height, 1 to 32767 each; other sizes print a line and make an object that refuses every image.
    /// `roi`: xBegin, xEnd, yBegin, yEnd, pixels. Inverted in x or y: all but a margin of 10 pixels. Otherwise begins
    /// below 10 become 10 and a yEnd beyond height - 10 that, but an xEnd beyond width - 10 becomes 10, so that nothing
    /// of the region is left. `refImage`: the image to be equalled, null for built-in statistics, which serve well;
    /// it should show the same scene. `debugPath`: folder of the debug images.
    autoExposureC(const unsigned char* refImage, Vector2i size, const Vector4i& roi, std::string debugPath);
    /// Reads the PNG or JPEG files and measures them as a series: the size is that of the first that can be read, the
    /// region all but a margin of 10 pixels. Files that cannot be read or are of another size print a line and keep
    /// their place as images that could not be measured.
    explicit autoExposureC(const std::vector<std::string>& imagePaths);

    /// The statistics of one image. RET_INPUT_ERROR for null, RET_INI_ERROR without a usable size, RET_RUN_FAIL when
    /// memory runs out, with a line; the statistics are then those of a dark image.
    RetVal exposure_parameter_calculation(const unsigned char* image);
    /// A series: forgets the one before, measures each image and keeps record of it. Images that cannot be measured
    /// print a line, keep their place and are not chosen while there is another. The failure counter starts at 0,
    /// counts them, and one more when there is no other image at all. RET_INPUT_ERROR when it exceeds the series
    /// length.
    RetVal exposure_parameter_calculation(std::vector<unsigned char*> images);
    RetVal exposure_parameter_calculation(std::vector<char*> images);
    /// Puts the statistics of the last image on record as the next image of the series, which grows where needed.
    void image_qfactor_calculation();
    /// The chosen image, counted from 0; 0 for a series without any pattern, and when there was no series. -1 when the
    /// failure counter exceeds the series length.
    int best_exposure_index() const;
    /// In debug mode each image prints the times of its stages and leaves "smoothImg%d.jpg", "maskImg%d.jpg" and
    /// "clusterImg%d.jpg" in the debug path, counted within the series; the choice prints a line. At first off.
    void debug_mode(bool isDebug);

    // ---- what it saw ------------------------------------------------------------------------------------

    bool is_ready() const;                      ///< whether there is a size
    bool has_series() const;                    ///< whether anything is on record, or was meant to be
    ExposureStatistics get_statistics() const;  ///< of the last image
    ExposureStatistics get_reference() const;
    std::vector<ExposureRecord> get_records() const;  ///< of the series
    ExposureView get_view() const;                    ///< of the last image; null pointers before
    Vector4i get_region() const;                      ///< xBegin, xEnd, yBegin, yEnd, pixels, as it is used

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
