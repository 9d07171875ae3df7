#include "SpeckleRebCPU/speckleRebuild.h"

#include "SpeckleRebCPU/SpeckleRebCpu.h"
#include "foundation/handle.h"

namespace VexelAlgorithm {
namespace {

constexpr ExportedFunction RUN{"run_speckle_rebuild_cpu", {"hSpecReb = NULL in run_speckle_rebuild_cpu function !!! "}};
constexpr ExportedFunction RUN_PIX{"run_speckle_rebuild_pixMatch_cpu",
                                   {"hSpecReb = NULL in run_speckle_rebuild_pixMatch_cpu function !!! "}};
constexpr ExportedFunction RUN_SUB{"run_speckle_rebuild_subPix_cpu",
                                   {"hSpecReb = NULL in run_speckle_rebuild_subPix_cpu function !!! "}};
constexpr ExportedFunction RELEASE{"speckle_rebuild_cpu_release",
                                   {"hSpecReb = NULL in speckle_rebuild_release function !!! "}};
constexpr FailureValues<RetVal> FAILURE{RET_INPUT_ERROR, RET_RUN_FAIL};

}  // namespace

void* speckle_rebuild_cpu_ini(const RebParam& param) noexcept {
    return guarded<void*>("speckle_rebuild_cpu_ini", nullptr, [&] { return SpeckleRebCpu::create(param).release(); });
}

RetVal run_speckle_rebuild_cpu(void* handle, const unsigned char* left, const unsigned char* right, PointImage& result,
                               int& timeMs) noexcept {
    return on_handle<SpeckleRebCpu, RetVal>(
        handle, RUN, FAILURE, [&](SpeckleRebCpu& rebuild) { return rebuild.run(left, right, result, timeMs); });
}

RetVal run_speckle_rebuild_pixMatch_cpu(void* handle, const unsigned char* left, const unsigned char* right,
                                        int& timeMs) noexcept {
    return on_handle<SpeckleRebCpu, RetVal>(
        handle, RUN_PIX, FAILURE, [&](SpeckleRebCpu& rebuild) { return rebuild.run_pixMatch(left, right, timeMs); });
}

RetVal run_speckle_rebuild_subPix_cpu(void* handle, const unsigned char* left, const unsigned char* right,
                                      PointImage& result, int& timeMs) noexcept {
    return on_handle<SpeckleRebCpu, RetVal>(handle, RUN_SUB, FAILURE, [&](SpeckleRebCpu& rebuild) {
        return rebuild.run_subPix(left, right, result, timeMs);
    });
}

RetVal speckle_rebuild_cpu_release(void* handle) noexcept {
    return release_handle<SpeckleRebCpu>(handle, RELEASE, RET_INPUT_ERROR);
}

RetVal should_we_debug(void* handle, bool isDebug, bool images, int frame, bool points) noexcept {
    return on_handle<SpeckleRebCpu, RetVal>(handle, {"should_we_debug", null_text::ALGORITHM},
                                            {RET_INI_ERROR, RET_RUN_FAIL}, [&](SpeckleRebCpu& rebuild) {
                                                rebuild.should_we_debug(isDebug, images, frame, points);
                                                return RET_SUCCESS;
                                            });
}

void should_we_debug_seq(void* handle, bool isDebug, bool images, int frame, bool points) noexcept {
    on_handle<SpeckleRebCpu>(handle, {"should_we_debug_seq", null_text::DEBUG_SEQ},
                             [&](SpeckleRebCpu& rebuild) { rebuild.should_we_debug(isDebug, images, frame, points); });
}

void is_debug_seq(void* handle, bool isDebug, int frame) noexcept {
    on_handle<SpeckleRebCpu>(handle, {"is_debug_seq", null_text::SHOW_DEBUG_FILE},
                             [&](SpeckleRebCpu& rebuild) { rebuild.should_we_debug(isDebug, true, frame, true); });
}

}  // namespace VexelAlgorithm
