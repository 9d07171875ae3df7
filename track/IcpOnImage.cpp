#include "track/IcpOnImage.h"

#include <algorithm>
#include <numeric>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "track/PixelMask.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

constexpr std::size_t SearchGrain = 8192;  // points; fewer take less time than to wake another thread
constexpr float NotFound = -1.0F;          // in place of a squared distance
constexpr double FarthestPosition = 1e9;   // pixels; no image is so large
constexpr double SmallestSpread = 1e-10;   // of points around their mean, relative to that around the origin

struct Correspondences {
    std::vector<Vector4f> pairs;   // fixed x, fixed y, moved x, moved y
    std::vector<float> distances;  // squared
};

void collect_points(const unsigned char* image, const Vector2i& size, std::vector<Vector2f>& points) {
    points.clear();
    for (int row = 0; row < size.y(); ++row, image += size.x()) {
        for (int column = 0; column < size.x(); ++column) {
            if (image[column] != 0) points.emplace_back(static_cast<float>(column), static_cast<float>(row));
        }
    }
}

void keep_found(Correspondences& all) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < all.distances.size(); ++i) {
        if (all.distances[i] == NotFound) continue;
        all.pairs[kept] = all.pairs[i];
        all.distances[kept++] = all.distances[i];
    }
    all.pairs.resize(kept);
    all.distances.resize(kept);
}

void search(const PixelMask& fixed, const std::vector<Vector2f>& points, std::size_t step, int window,
            const RigidMatrix2D& pose, Correspondences& found) {
    const std::size_t count = (points.size() + step - 1) / step;
    found.pairs.resize(count);
    found.distances.resize(count);
    const int threads = count < 2 * SearchGrain ? 1 : default_thread_number();
    parallel_ranges(threads, count, SearchGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            found.distances[i] = NotFound;
            const Vector2d exact = pose * points[i * step].cast<double>();
            if (!(exact.array().abs() < FarthestPosition).all()) continue;
            const Vector2f moved = exact.cast<float>();
            NearestPixel nearest;
            if (!fixed.find_nearest(moved.x(), moved.y(), window / 2, nearest)) continue;
            found.pairs[i] << static_cast<float>(nearest.column) + 0.5F, static_cast<float>(nearest.row) + 0.5F, moved;
            found.distances[i] = nearest.squaredDistance;
        }
    });
    keep_found(found);
}

double mean(const std::vector<float>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

/// The normal equations of the rows (-y, 1, 0) and (x, 0, 1) in the unknowns angle, shift x, shift y.
struct PlanarSystem {
    Matrix3d JTJ = Matrix3d::Zero();
    Vector3d JTb = Vector3d::Zero();

    void add(const Vector2d& fixed, const Vector2d& moved) {
        const Vector2d residual = fixed - moved;
        JTJ(0, 0) += moved.squaredNorm();
        JTJ(0, 1) -= moved.y();
        JTJ(0, 2) += moved.x();
        JTJ(1, 1) += 1.0;
        JTb += Vector3d(moved.x() * residual.y() - moved.y() * residual.x(), residual.x(), residual.y());
    }

    /// Eliminates the shift first, which always can be done; what is left for the angle is the spread of the points.
    Vector3d solve() const {
        const double count = JTJ(1, 1);
        const Vector2d coupling(JTJ(0, 1), JTJ(0, 2)), shifts = JTb.tail<2>();
        const double spread = JTJ(0, 0) - coupling.squaredNorm() / count;
        const double turn = JTb(0) - coupling.dot(shifts) / count;
        const double angle = spread > SmallestSpread * JTJ(0, 0) ? turn / spread : 0.0;
        const Vector2d shift = (shifts - angle * coupling) / count;
        return {angle, shift.x(), shift.y()};
    }
};

RigidMatrix2D best_step(const std::vector<Vector4f>& pairs) {
    if (pairs.empty()) return {};
    PlanarSystem system;
    for (const Vector4f& pair : pairs) system.add(pair.head<2>().cast<double>(), pair.tail<2>().cast<double>());
    const Vector3d step = system.solve();
    return {Eigen::Rotation2Dd(step(0)).toRotationMatrix(), step.tail<2>()};
}

}  // namespace

struct IcpOnImage::State {
    int iterNum;
    int iterNumFixed;
    Vector2i searchWindows;
    float _disAvgPix;
    Vector2i imageSize;
    std::string debugPath;
    bool isReady = false;

    PixelMask fixed = {};
    std::vector<Vector2f> points = {};
    Correspondences correspondences = {};
    RigidMatrix2D movingToFixed = {};

    /// Room for images without a zero, so that registrations need no memory.
    void reserve() {
        const auto pixels =
            static_cast<std::size_t>(std::max(imageSize.x(), 0)) * static_cast<std::size_t>(std::max(imageSize.y(), 0));
        points.reserve(pixels);
        correspondences.pairs.reserve(pixels);
        correspondences.distances.reserve(pixels);
    }

    bool find(int iteration) {
        const bool isCoarse = iteration < iterNumFixed;
        search(fixed, points, isCoarse ? CoarseStep : 1, searchWindows(isCoarse ? 0 : 1), movingToFixed,
               correspondences);
        if (!correspondences.distances.empty()) return true;
        print_line("icp False correspondNum = 0 ");
        return false;
    }

    bool is_accepted() const {
        const double thisDisError = mean(correspondences.distances);
        if (thisDisError <= static_cast<double>(_disAvgPix)) return true;
        print_line("image icp false because thisDisError > _disAvgPix");
        print_line(format_text("thisDisError = %g\t_disAvgPix = %g", thisDisError, static_cast<double>(_disAvgPix)));
        return false;
    }

    RetVal register_images(const unsigned char* fixImage, const unsigned char* moveImage, Eigen::Matrix2d& rotation,
                           Vector2d& translation) {
        if (!isReady) {
            print_line("please ini function first");
            return RET_INI_ERROR;
        }
        if (fixImage == nullptr || moveImage == nullptr) {
            print_line("!fixImage || !moveImage");
            return RET_INPUT_ERROR;
        }
        if (iterNum < 1) return RET_SUCCESS;
        fixed.assign(fixImage, imageSize);
        collect_points(moveImage, imageSize, points);
        movingToFixed = {};
        for (int iteration = 0; iteration < iterNum; ++iteration) {
            if (!find(iteration)) return RET_NOT_CONVERGED;
            movingToFixed = best_step(correspondences.pairs) * movingToFixed;
        }
        if (!find(iterNum - 1)) return RET_NOT_CONVERGED;
        if (is_accepted()) {
            rotation = movingToFixed.rotation;
            translation = movingToFixed.translation;
        }
        return RET_SUCCESS;
    }
};

IcpOnImage::IcpOnImage(int iterNum, int iterNumFixed, const Vector2i& searchWindows, float disAvgPix,
                       const Vector2i& imageSize, const std::string& debugPath)
    : _state(new State{iterNum, iterNumFixed, searchWindows, disAvgPix, imageSize, debugPath}) {
    _state->isReady = guarded<bool>("IcpOnImage", false, [this] {
        _state->reserve();
        return true;
    });
}

IcpOnImage::~IcpOnImage() = default;

RetVal IcpOnImage::real_time_image_icp(const unsigned char* fixImage, const unsigned char* moveImage,
                                       Eigen::Matrix2d& rotation, Vector2d& translation) {
    return guarded<RetVal>("real_time_image_icp", RET_RUN_FAIL,
                           [&] { return _state->register_images(fixImage, moveImage, rotation, translation); });
}

void IcpOnImage::compact_move_image(const unsigned char* moveImage, std::vector<Vector2f>& points,
                                    const Vector2i& imageSize) const {
    points.clear();
    guarded("compact_move_image", [&] {
        if (moveImage != nullptr) collect_points(moveImage, imageSize, points);
    });
}

void IcpOnImage::find_correspond(const unsigned char* fixImage, const std::vector<Vector2f>& points, int step,
                                 int window, const RigidMatrix2D& pose, std::vector<Vector4f>& correspondences,
                                 std::vector<float>& distances) const {
    correspondences.clear();
    distances.clear();
    guarded("find_correspond", [&] {
        if (fixImage == nullptr) return;
        PixelMask fixed;
        fixed.assign(fixImage, _state->imageSize);
        Correspondences found;
        search(fixed, points, static_cast<std::size_t>(std::max(step, 1)), window, pose, found);
        correspondences = std::move(found.pairs);
        distances = std::move(found.distances);
    });
}

void IcpOnImage::get_mat(const std::vector<Vector4f>& correspondences, RigidMatrix2D& increment) const {
    increment = best_step(correspondences);
}

}  // namespace Track
}  // namespace VexelAlgorithm
