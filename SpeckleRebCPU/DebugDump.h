// Files that show what the stages of a reconstruction did.
#pragma once

#include <string>
#include <string_view>

#include "SpeckleRebCPU/DepthRange.h"
#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

/// Writes nothing unless it is switched on. A file that cannot be opened is reported by a line. Stages without a name
/// are not dumped.
class DebugDump {
public:
    /// PATH is what all file names begin with, folder and prefix: "dumps/first_". Behind the name of a folder that
    /// exists a slash is added, so that "dumps" is the folder as "dumps/" is.
    void set_path(const std::string& path) { _path = path; }
    void enable(bool isOn) { _isOn = isOn; }
    /// Which kinds are written, and of which frame; a negative number stands for all frames.
    void select(bool images, bool points, int frame);
    void set_frame(int frame) { _frame = frame; }

    /// PATH + "NAME_L_FRAME.bmp" and "..._R_...", 8-bit grey bitmaps. Values of a mask are spread over black and white.
    void images(std::string_view name, const GreyImage& left, const GreyImage& right) const;
    void masks(std::string_view name, const Mask& left, const Mask& right) const;
    void image(std::string_view name, const GreyImage& image) const;
    /// PATH + "NAME_FRAME.asc": lines of x y z nx ny nz (mm).
    void points(std::string_view name, const DepthRange& store) const;
    /// PATH + "NAME_FRAME.asc": lines of column, row, parallax (sampled pixels).
    void parallaxes(std::string_view name, const Raster<float>& parallax) const;

    bool is_on() const { return _isOn && (_onlyFrame < 0 || _onlyFrame == _frame); }

private:
    std::string file_name(std::string_view name, std::string_view side, std::string_view extension) const;
    void bitmap(const std::string& path, const GreyImage& image, int factor) const;

    std::string _path;
    bool _isOn = false;
    bool _images = true;
    bool _points = true;
    int _onlyFrame = -1;
    int _frame = 0;
};

}  // namespace VexelAlgorithm
