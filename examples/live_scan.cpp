// Live scanning: one thread takes frames from a camera and hands them to the session, whose worker tracks and fuses
// them and tells through callbacks what became of each. The camera here is a virtual one.
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include "examples/virtualScanner.h"

using namespace VexelAlgorithm;

namespace {

constexpr int FrameCount = 20;
constexpr std::chrono::milliseconds FrameTime(33);

/// What the callbacks know of the application; every frame carries a pointer to it.
struct Application {
    int accepted = 0, rejected = 0;  // of the worker's thread until `isDone`
    std::size_t shownPoints = 0;
    std::promise<void> isDone;

    void count(int& counter) {
        ++counter;
        if (accepted + rejected == FrameCount) isDone.set_value();
    }
};

Application& application_of(const FusionparallelInputData* data) {
    return *static_cast<Application*>(data->user);
}

// A real application copies the points it draws to its window here, and returns soon: the next frame waits.
void on_success(const Cloud& shown, const std::vector<int>&, int, const Cloud&, const RigidMatrix&,
                const RigidMatrix& pose, FusionparallelInputData* data, int) {
    Application& application = application_of(data);
    application.shownPoints = shown.get_vn();
    std::printf("frame %2d at x = %7.2f mm, waited %5.1f ms, took %5.1f ms, %zu points to show\n",
                static_cast<int>(data->frameId), pose.get_translation().x(), 1e-3 * data->queuedMicroseconds,
                1e-3 * data->elapsedMicroseconds, shown.get_vn());
    application.count(application.accepted);
}

// The scan goes on as soon as a frame sees again what was seen last; until then tell the user to go back.
void on_fail(const Cloud&, FusionparallelInputData* data) {
    std::printf("frame %2d is lost, outcome %d\n", static_cast<int>(data->frameId), static_cast<int>(data->outcome));
    application_of(data).count(application_of(data).rejected);
}

void on_illegal_input(FusionparallelInputData* data) {
    application_of(data).count(application_of(data).rejected);
}

/// The thread of the camera. A camera that cannot wait would leave `waitMilliseconds` at 0 and look at the result: a
/// frame that is refused is simply not part of the scan.
bool scan(void* session, const Simulation::Sequence& camera, Application& application) {
    for (int i = 0; i < FrameCount; ++i) {
        FusionparallelInputData data;
        data.frameId = i;
        data.user = &application;
        data.maxQueued = 3;
        data.waitMilliseconds = 60000;
        if (fusion_and_track_parallel(session, Simulation::frame_of(camera, i), data) != RET_SUCCESS) return false;
        std::this_thread::sleep_for(FrameTime);
    }
    return true;
}

}  // namespace

int main() {
    const auto camera = virtual_scanner();
    if (!camera) return 1;
    void* session = fusion_and_track_ini(common_parameter(*camera), TrackParmeter(), fusion_parameter());
    if (session == nullptr) return 1;
    set_fusion_success_call_back(session, on_success);
    set_fusion_fail_call_back(session, on_fail);
    set_illegal_input_call_back(session, on_illegal_input);

    Application application;
    bool isScanned = false;
    std::thread cameraThread([&] { isScanned = scan(session, *camera, application); });
    cameraThread.join();
    if (isScanned) application.isDone.get_future().wait();

    BaseTriMesh mesh;
    const bool isMeshed = get_fusion_result_tbb(session, 0.0F, mesh) == RET_SUCCESS;
    fusiontrack_release(session);
    std::printf("%d frames accepted, %d rejected, %zu triangles\n", application.accepted, application.rejected,
                mesh.get_fn());
    return isScanned && isMeshed && application.accepted == FrameCount && mesh.get_fn() > 0 ? 0 : 1;
}
