// The text of a camera's calibration, then the rig that it makes with a second camera.
#include <opencv2/core/core_c.h>

#include <vector>

#include "fuzz/target.h"
#include "readCaliData/CaliParReadIn.h"
#include "recording/calibrationText.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

constexpr int width = 48;
constexpr int height = 32;

struct Matrices {
    CvMat *K = nullptr, *D = nullptr, *R = nullptr, *T = nullptr;
    Matrices() = default;
    Matrices(const Matrices&) = delete;
    Matrices& operator=(const Matrices&) = delete;
    ~Matrices() {
        for (CvMat** matrix : {&K, &D, &R, &T})
            if (*matrix != nullptr) cvReleaseMat(matrix);
    }
};

class Subject {
public:
    Subject() {
        VexelFuzz::stay_silent();
        CalibratedCamera right{60.0, 60.0, 23.5, 15.5, {}, {}};
        right.worldToCamera = RigidMatrix(Matrix3d::Identity(), Vector3d(-100.0, 0.0, 0.0));
        _right.hold(calibration_text(right));
    }

    void take(std::string_view text) {
        const std::string left = _left.hold(text).string();
        Matrices camera;
        Rebuild::CaliParReadIn reader;
        if (!reader.read_calibrate_para_single(camera.K, camera.D, camera.R, camera.T, left)) {
            require(camera.K == nullptr, "a camera that is not read is not made");
            require(!calibration_fault(text).empty(), "a refusal has a reason");
            return;
        }
        const Rebuild::CaliParReadIn rig(left, _right.path().string(), {width, height});
        if (rig.is_ini_success()) remap(rig);
    }

private:
    void remap(const Rebuild::CaliParReadIn& rig) {
        std::vector<unsigned char> raw(width * height, 100), left(raw.size()), right(raw.size());
        require(rig.remap_image_LR(raw.data(), raw.data(), left.data(), right.data()), "a rig remaps images");
    }

    VexelFuzz::InputFile _left{".left.txt"};
    VexelFuzz::InputFile _right{".right.txt"};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Subject subject;
    subject.take(VexelFuzz::text_of(data, size));
    return 0;
}
