#include "platform/poseConsensus.h"

#include <Eigen/SVD>
#include <algorithm>
#include <cmath>
#include <numeric>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t BLOCK = 64;  // object features whose likenesses are computed at once, whatever the threads
constexpr std::size_t GRAIN = 16;
constexpr int FITTING_ROUNDS = 3;
constexpr std::size_t LEAST_FITTED = 3;

struct Motion {
    Matrix3f rotation;
    Vector3f translation;

    Vector3f operator*(const Vector3f& point) const { return rotation * point + translation; }
};

/// The frames of both sides of every match, side by side.
struct FramePair {
    SurfaceFrame ref;
    SurfaceFrame obj;

    Motion motion() const {
        const Matrix3f rotation = ref.axes * obj.axes.transpose();
        return {rotation, ref.position - rotation * obj.position};
    }
};

class Agreement {
public:
    explicit Agreement(const ConsensusSettings& settings)
        : _distanceSquared(settings.positionTolerance * settings.positionTolerance),
          _cosine(std::cos(settings.axisTolerance)) {}

    bool operator()(const Motion& motion, const FramePair& pair) const {
        return (motion * pair.obj.position - pair.ref.position).squaredNorm() < _distanceSquared &&
               (motion.rotation * pair.obj.axes.col(2)).dot(pair.ref.axes.col(2)) > _cosine &&
               (motion.rotation * pair.obj.axes.col(0)).dot(pair.ref.axes.col(0)) > _cosine;
    }

    int count(const Motion& motion, const std::vector<FramePair>& pairs) const {
        return static_cast<int>(
            std::count_if(pairs.begin(), pairs.end(), [&](const FramePair& pair) { return (*this)(motion, pair); }));
    }

private:
    float _distanceSquared;
    float _cosine;
};

std::vector<FramePair> pair_frames(const SurfaceFeatures& ref, const SurfaceFeatures& obj,
                                   const std::vector<FeatureMatch>& matches) {
    std::vector<FramePair> pairs;
    pairs.reserve(matches.size());
    for (const FeatureMatch& match : matches) pairs.push_back({ref.frames[match.ref], obj.frames[match.obj]});
    return pairs;
}

std::vector<int> vote(const std::vector<FramePair>& pairs, const Agreement& agrees) {
    std::vector<int> votes(pairs.size());
    parallel_ranges(default_thread_number(), pairs.size(), GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) votes[i] = agrees.count(pairs[i].motion(), pairs);
    });
    return votes;
}

std::vector<FramePair> agreeing_pairs(const Motion& motion, const std::vector<FramePair>& pairs,
                                      const Agreement& agrees) {
    std::vector<FramePair> chosen;
    std::copy_if(pairs.begin(), pairs.end(), std::back_inserter(chosen),
                 [&](const FramePair& pair) { return agrees(motion, pair); });
    return chosen;
}

/// The rotation nearest to the sum of products of both sides' centred positions, to which the axes, as arms of
/// length `arm`, are added: a few neighbouring matches still fix the rotation.
Motion fitted_motion(const std::vector<FramePair>& pairs, float arm) {
    Vector3f refMean = Vector3f::Zero();
    Vector3f objMean = Vector3f::Zero();
    for (const FramePair& pair : pairs) {
        refMean += pair.ref.position;
        objMean += pair.obj.position;
    }
    refMean /= static_cast<float>(pairs.size());
    objMean /= static_cast<float>(pairs.size());

    Matrix3f products = Matrix3f::Zero();
    for (const FramePair& pair : pairs) {
        products += (pair.ref.position - refMean) * (pair.obj.position - objMean).transpose();
        products += arm * arm * pair.ref.axes * pair.obj.axes.transpose();
    }
    const Eigen::JacobiSVD<Matrix3f> svd(products, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Matrix3f rotation = svd.matrixU() * svd.matrixV().transpose();
    if (rotation.determinant() < 0.0F) {
        Matrix3f mirrored = svd.matrixU();
        mirrored.col(2) = -mirrored.col(2);
        rotation = mirrored * svd.matrixV().transpose();
    }
    return {rotation, refMean - rotation * objMean};
}

Motion refit(Motion motion, const std::vector<FramePair>& pairs, const Agreement& agrees, float arm) {
    for (int round = 0; round < FITTING_ROUNDS; ++round) {
        const std::vector<FramePair> chosen = agreeing_pairs(motion, pairs, agrees);
        if (chosen.size() < LEAST_FITTED) break;
        motion = fitted_motion(chosen, arm);
    }
    return motion;
}

/// Whether a motion carries the pair's own place to where the other motion does: then both tell of one pose.
bool is_known(const FramePair& pair, const std::vector<Motion>& known, const Agreement& agrees) {
    return std::any_of(known.begin(), known.end(), [&](const Motion& motion) { return agrees(motion, pair); });
}

RigidMatrix widened(const Motion& motion) {
    RigidMatrix result(motion.rotation.cast<double>(), motion.translation.cast<double>());
    rigidMatrix_regularization(result);
    return result;
}

}  // namespace

std::vector<FeatureMatch> match_features(const SurfaceFeatures& ref, const SurfaceFeatures& obj, int candidates) {
    const std::size_t wanted = std::min(static_cast<std::size_t>(candidates), ref.size());
    std::vector<FeatureMatch> matches(obj.size() * wanted);
    const std::size_t blocks = (obj.size() + BLOCK - 1) / BLOCK;
    parallel_ranges(default_thread_number(), blocks, 1, [&](std::size_t beginBlock, std::size_t endBlock) {
        Eigen::MatrixXf likeness;
        std::vector<std::size_t> order(ref.size());
        for (std::size_t block = beginBlock; block < endBlock; ++block) {
            const std::size_t begin = block * BLOCK;
            const std::size_t count = std::min(BLOCK, obj.size() - begin);
            likeness.noalias() =
                ref.descriptors.transpose() *
                obj.descriptors.middleCols(static_cast<Eigen::Index>(begin), static_cast<Eigen::Index>(count));
            for (std::size_t k = 0; k < count; ++k) {
                const auto column = likeness.col(static_cast<Eigen::Index>(k));
                const auto isNearer = [&](std::size_t a, std::size_t b) {
                    const float likeA = column[static_cast<Eigen::Index>(a)];
                    const float likeB = column[static_cast<Eigen::Index>(b)];
                    return likeA != likeB ? likeA > likeB : a < b;
                };
                std::iota(order.begin(), order.end(), std::size_t{0});
                std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(wanted), order.end(),
                                  isNearer);
                for (std::size_t c = 0; c < wanted; ++c) matches[(begin + k) * wanted + c] = {order[c], begin + k};
            }
        }
    });
    return matches;
}

std::vector<PoseHypothesis> agreed_poses(const SurfaceFeatures& ref, const SurfaceFeatures& obj,
                                         const std::vector<FeatureMatch>& matches, const ConsensusSettings& settings) {
    const std::vector<FramePair> pairs = pair_frames(ref, obj, matches);
    const Agreement agrees(settings);
    const std::vector<int> votes = vote(pairs, agrees);

    std::vector<std::size_t> order(pairs.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return votes[a] > votes[b]; });

    std::vector<Motion> known;
    std::vector<PoseHypothesis> poses;
    for (const std::size_t i : order) {
        if (poses.size() == settings.mostHypotheses) break;
        if (is_known(pairs[i], known, agrees)) continue;
        const Motion motion = refit(pairs[i].motion(), pairs, agrees, settings.positionTolerance);
        known.push_back(motion);
        poses.push_back({widened(motion), agrees.count(motion, pairs)});
    }
    std::stable_sort(poses.begin(), poses.end(),
                     [](const PoseHypothesis& a, const PoseHypothesis& b) { return a.agreeing > b.agreeing; });
    return poses;
}

}  // namespace VexelAlgorithm
