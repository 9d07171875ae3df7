#include "apps/threadLimit.h"

#include <opencv2/core.hpp>

#include "foundation/parallel.h"

namespace VexelAlgorithm::Apps {

ThreadLimit::ThreadLimit(int threads)
    : _count(threads > 0 ? threads : default_thread_number()),
      _limit(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(_count)) {
    cv::setNumThreads(_count);
}

}  // namespace VexelAlgorithm::Apps
