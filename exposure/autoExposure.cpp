#include "exposure/autoExposure.h"

#include <utility>

#include "foundation/handle.h"

namespace VexelAlgorithm {
namespace {

using autoExposureFoot::autoExposureC;

constexpr FailureValues<RetVal> FAILURE{RET_INI_ERROR, RET_RUN_FAIL};
const Vector4i WholeImage(1, 0, 1, 0);  // inverted

constexpr ExportedFunction exported(std::string_view name) {
    return {name, null_text::UTILITY};
}

template <class Pixel>
RetVal choose(autoExposureC& calculator, std::vector<Pixel*> images, int& bestIndex) {
    const RetVal measured = calculator.exposure_parameter_calculation(std::move(images));
    bestIndex = calculator.best_exposure_index();
    return measured;
}

template <class Pixel>
RetVal choose_on(void* handle, std::vector<Pixel*> images, int& bestIndex) noexcept {
    return on_handle<autoExposureC, RetVal>(
        handle, exported("exposureparameter_claculation"), FAILURE,
        [&](autoExposureC& calculator) { return choose(calculator, std::move(images), bestIndex); });
}

}  // namespace

void* autoexposure_ini(const unsigned char* refImage, Vector2i& size, const Vector4i& roi,
                       std::string debugPath) noexcept {
    return guarded<void*>("autoexposure_ini", nullptr, [&]() -> void* {
        auto calculator = std::make_unique<autoExposureC>(refImage, size, roi, std::move(debugPath));
        return calculator->is_ready() ? calculator.release() : nullptr;
    });
}

RetVal exposureparameter_claculation(void* handle, std::vector<unsigned char*> images, int& bestIndex) noexcept {
    return choose_on(handle, std::move(images), bestIndex);
}

RetVal exposureparameter_claculation(void* handle, std::vector<char*> images, int& bestIndex) noexcept {
    return choose_on(handle, std::move(images), bestIndex);
}

RetVal bestexposureindex(void* handle, int& bestIndex) noexcept {
    return on_handle<autoExposureC, RetVal>(handle, exported("bestexposureindex"), FAILURE,
                                            [&](autoExposureC& calculator) {
                                                if (!calculator.has_series()) {
                                                    print_line("bestexposureindex fail because there is no series");
                                                    return RET_STATE_ERROR;
                                                }
                                                bestIndex = calculator.best_exposure_index();
                                                return bestIndex < 0 ? RET_INPUT_ERROR : RET_SUCCESS;
                                            });
}

RetVal autoexposure_debug_mode(void* handle, bool isDebug) noexcept {
    return on_handle<autoExposureC, RetVal>(handle, exported("autoexposure_debug_mode"), FAILURE,
                                            [&](autoExposureC& calculator) {
                                                calculator.debug_mode(isDebug);
                                                return RET_SUCCESS;
                                            });
}

RetVal autoexposure_release(void*& handle) noexcept {
    return release_handle<autoExposureC>(handle, exported("autoexposure_release"), RET_INI_ERROR);
}

RetVal autoexposure(const std::vector<char*>& images, int& bestIndex, Vector2i& size, const Vector4i& roi,
                    char* refImage, bool isDebug, bool isWholeImage, const std::string& debugPath) noexcept {
    return guarded<RetVal>("autoexposure", RET_RUN_FAIL, [&] {
        autoExposureC calculator(reinterpret_cast<const unsigned char*>(refImage), size,
                                 isWholeImage ? WholeImage : roi, debugPath);
        bestIndex = -1;
        if (!calculator.is_ready()) return RET_INPUT_ERROR;
        calculator.debug_mode(isDebug);
        return choose(calculator, images, bestIndex);
    });
}

}  // namespace VexelAlgorithm
