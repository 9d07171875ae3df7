#include "apps/AccuracyTest.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <utility>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "apps/Rig.h"
#include "apps/calibrated.h"
#include "apps/surfaceFit.h"
#include "simulation/stereoImages.h"

namespace VexelAlgorithm::Apps {

namespace {

constexpr double radians = 3.14159265358979323846 / 180.0;
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t fewestPoints = 50;

/// The library's reconstruction behind its handle.
struct Reconstruction {
    explicit Reconstruction(const RebParam& param) : handle(speckle_rebuild_cpu_ini(param)) {}
    Reconstruction(const Reconstruction&) = delete;
    Reconstruction& operator=(const Reconstruction&) = delete;
    ~Reconstruction() {
        if (handle != nullptr) speckle_rebuild_cpu_release(handle);
    }
    void* handle;
};

/// Where the surface is to be evaluated, and what was measured there.
struct RegionPoints {
    std::vector<Vector3d> points;     ///< rig coordinates
    std::vector<std::size_t> places;  ///< slots of these points
    std::vector<std::size_t> all;     ///< slots of the region
};

bool counts(const ArtefactSurface& surface, const Simulation::Ray& ray) {
    const std::optional<Simulation::Hit> hit = surface.region->hit(ray);
    if (!hit) return false;
    const bool isRightSide = surface.facing.isZero() || hit->normal.dot(surface.facing) > 0.9;
    return isRightSide && -hit->normal.dot(ray.direction) >= std::cos(steepestIncidence * radians);
}

RegionPoints points_on(const ArtefactSurface& surface, const PointImage& frame, const RigidMatrix& frameToRig) {
    RegionPoints region;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        const Vector3d view = frameToRig.get_rotation() * frame.get_ray_direct(i).cast<double>();
        if (!counts(surface, {frameToRig.get_translation(), view.normalized()})) continue;
        region.all.push_back(i);
        if (!frame.has_point(i)) continue;
        region.points.push_back(frameToRig * Vector3d(frame.get_vCoord(i).cast<double>()));
        region.places.push_back(i);
    }
    return region;
}

/// The box of the regions' slots.
class MapPainter {
public:
    MapPainter(const std::vector<RegionPoints>& regions, int frameWidth) : _frameWidth(frameWidth) {
        int right = -1, bottom = -1;
        _left = _top = std::numeric_limits<int>::max();
        for (const RegionPoints& region : regions)
            for (const std::size_t slot : region.all) {
                _left = std::min(_left, column(slot)), right = std::max(right, column(slot));
                _top = std::min(_top, row(slot)), bottom = std::max(bottom, row(slot));
            }
        if (right < 0) return;
        _map.width = right - _left + 1;
        _map.height = bottom - _top + 1;
        _map.deviations.assign(static_cast<std::size_t>(_map.width) * static_cast<std::size_t>(_map.height),
                               std::numeric_limits<float>::quiet_NaN());
    }

    template <class Surface>
    void paint(const RegionPoints& region, const TrimmedFit<Surface>& fit) {
        for (std::size_t i = 0; i < region.points.size(); ++i) {
            const int x = column(region.places[i]) - _left, y = row(region.places[i]) - _top;
            _map.deviations[static_cast<std::size_t>(y * _map.width + x)] =
                fit.isKept[i] != 0 ? static_cast<float>(fit.surface.deviation(region.points[i]))
                                   : std::numeric_limits<float>::infinity();
        }
    }
    DeviationMap take() { return std::move(_map); }

private:
    int column(std::size_t slot) const { return static_cast<int>(slot) % _frameWidth; }
    int row(std::size_t slot) const { return static_cast<int>(slot) / _frameWidth; }

    int _frameWidth;
    int _left = 0;
    int _top = 0;
    DeviationMap _map;
};

template <class Surface>
void note(ArtefactMeasurement& measurement, const TrimmedFit<Surface>& fit) {
    measurement.leftOut += fit.leftOut;
    measurement.formError = std::max(measurement.formError, fit.form_error());
    measurement.rms = std::max(measurement.rms, fit.rms);
}

void give_up(ArtefactMeasurement& measurement) {
    measurement.formError = measurement.rms = measurement.sizeError = notANumber;
}

void evaluate_plane(const RegionPoints& region, double leftOut, MapPainter& painter, ArtefactMeasurement& measurement) {
    const auto fit = fit_plane_without_worst(region.points, leftOut);
    if (!fit) return give_up(measurement);
    note(measurement, *fit);
    painter.paint(region, *fit);
}

void evaluate_balls(const std::vector<RegionPoints>& regions, double leftOut, MapPainter& painter,
                    ArtefactMeasurement& measurement) {
    std::vector<FittedSphere> balls;
    for (const RegionPoints& region : regions) {
        const auto fit = fit_sphere_without_worst(region.points, leftOut);
        if (!fit) return give_up(measurement);
        note(measurement, *fit);
        painter.paint(region, *fit);
        balls.push_back(fit->surface);
    }
    measurement.sizeError = balls.size() == 2 ? (balls[1].centre - balls[0].centre).norm() - ballSpacing
                                              : 2.0 * (balls[0].radius - sphereRadius);
}

}  // namespace

struct AccuracyTest::State {
    State(const AccuracySettings& given, Rig&& readyRig, int threads)
        : settings(given), rig(std::move(readyRig)), camera(given.rig, threads), reconstruction(rig.param) {}

    AccuracySettings settings;
    Rig rig;
    Simulation::StereoCamera camera;
    Reconstruction reconstruction;
};

AccuracyTest::AccuracyTest(std::unique_ptr<State> state) : _state(std::move(state)) {}
AccuracyTest::AccuracyTest(AccuracyTest&&) noexcept = default;
AccuracyTest& AccuracyTest::operator=(AccuracyTest&&) noexcept = default;
AccuracyTest::~AccuracyTest() = default;

Outcome<AccuracyTest> AccuracyTest::prepare(const AccuracySettings& settings, int threads) {
    ScanSettings scan = settings.scan;
    scan.rig.rebuild.leftCalib = camera_values(calibrated(settings.rig.left));
    scan.rig.rebuild.rightCalib = camera_values(calibrated(settings.rig.right));
    Outcome<Rig> rig = make_rig(scan, {}, {settings.rig.left.width, settings.rig.left.height});
    if (!rig) return rig.failure();
    auto state = std::make_unique<State>(settings, std::move(*rig), threads);
    if (state->reconstruction.handle == nullptr)
        return Failure{"the reconstruction cannot be made; the line above says why"};
    return AccuracyTest(std::move(state));
}

Outcome<ArtefactMeasurement> AccuracyTest::measure(const Artefact& artefact, std::uint64_t number) const {
    const RigidMatrix leftToRig = _state->settings.rig.left.rigToCamera.inverse();
    const Simulation::StereoPair pair = _state->camera.take(*artefact.body, leftToRig, number);
    const RebParam& param = _state->rig.param;
    PointImage frame;
    frame.ini(pair.left.width / param.sampleRatio, pair.left.height / param.sampleRatio);
    int milliseconds = 0;
    if (run_speckle_rebuild_cpu(_state->reconstruction.handle, pair.left.pixels.data(), pair.right.pixels.data(), frame,
                                milliseconds) != RET_SUCCESS)
        return Failure{"an artefact cannot be reconstructed; the line above says why"};

    const RigidMatrix frameToRig = leftToRig * _state->rig.rectified_to_raw();
    ArtefactMeasurement measurement;
    measurement.artefact = artefact;
    std::vector<RegionPoints> regions;
    bool isEnough = true;
    for (const ArtefactSurface& surface : artefact.surfaces) {
        regions.push_back(points_on(surface, frame, frameToRig));
        measurement.slots += regions.back().all.size();
        measurement.points += regions.back().points.size();
        isEnough = isEnough && regions.back().points.size() >= fewestPoints;
    }
    MapPainter painter(regions, frame.get_image_width());
    const double leftOut = _state->settings.leftOut;
    if (!isEnough)
        give_up(measurement);
    else if (artefact.kind == ArtefactKind::Plane)
        evaluate_plane(regions.front(), leftOut, painter, measurement);
    else
        evaluate_balls(regions, leftOut, painter, measurement);
    measurement.map = painter.take();
    return measurement;
}

}  // namespace VexelAlgorithm::Apps
