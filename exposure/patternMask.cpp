#include "exposure/patternMask.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace autoExposureFoot {
namespace {

constexpr std::size_t RowGrain = 32;
constexpr int Brightest = 255;

template <class Body>
void for_rows(int threads, int height, const Body& body) {
    parallel_ranges(threads, static_cast<std::size_t>(height), RowGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) body(static_cast<int>(y));
    });
}

struct RawImage {
    const std::uint8_t* pixels;
    int width, height;

    const std::uint8_t* row(int y) const {
        return pixels + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
    }
    bool is_interior(int x, int y) const { return x > 0 && y > 0 && x < width - 1 && y < height - 1; }
};

std::uint8_t filtered(const RawImage& image, int x, int y, const GaussianKernel& kernel) {
    if (!image.is_interior(x, y)) return image.row(y)[x];
    float sum = 0.0F;
    const float* weight = kernel.data();
    for (int dy = -1; dy <= 1; ++dy) {
        const std::uint8_t* row = image.row(y + dy) + x;
        for (int dx = -1; dx <= 1; ++dx) sum += *weight++ * static_cast<float>(row[dx]);
    }
    return static_cast<std::uint8_t>(sum);
}

/// What the columns of three rows add to the sums over 3 x 3 pixels. Columns are counted from the repeated one on.
class ThreeRows {
public:
    explicit ThreeRows(int width) : _values(width), _vertical(width), _across(width) {}

    void load(const ByteImage& image, int y) {
        const std::uint8_t* above = image.row(std::max(y - 1, 0));
        const std::uint8_t* middle = image.row(y);
        const std::uint8_t* below = image.row(std::min(y + 1, image.height - 1));
        const int width = image.width;
        for (int x = 0; x < width; ++x) {
            _values[x] = above[x] + middle[x] + below[x];
            _vertical[x] = std::abs(above[x] - middle[x]) + std::abs(middle[x] - below[x]);
        }
        for (int x = 0; x + 1 < width; ++x) _across[x] = differences(above, middle, below, x, x + 1);
        _beforeFirst = differences(above, middle, below, 0, 0);
        _behindLast = differences(above, middle, below, width - 1, width - 1);
    }

    int contrast(int x) const {
        const int last = static_cast<int>(_values.size()) - 1;
        return _vertical[std::max(x - 1, 0)] + _vertical[x] + _vertical[std::min(x + 1, last)] +
               (x > 0 ? _across[x - 1] : _beforeFirst) + (x < last ? _across[x] : _behindLast);
    }
    int sum(int x) const {
        const int last = static_cast<int>(_values.size()) - 1;
        return _values[std::max(x - 1, 0)] + _values[x] + _values[std::min(x + 1, last)];
    }

private:
    struct Columns : std::vector<int> {
        explicit Columns(int width) : std::vector<int>(static_cast<std::size_t>(width)) {}
        int& operator[](int i) { return data()[i]; }
        int operator[](int i) const { return data()[i]; }
    };

    /// Of the seven pairs that have one pixel in column `l` and the other one in column `r`.
    static int differences(const std::uint8_t* above, const std::uint8_t* middle, const std::uint8_t* below, int l,
                           int r) {
        return std::abs(above[l] - above[r]) + std::abs(middle[l] - middle[r]) + std::abs(below[l] - below[r]) +
               std::abs(above[l] - middle[r]) + std::abs(middle[l] - above[r]) + std::abs(middle[l] - below[r]) +
               std::abs(below[l] - middle[r]);
    }

    Columns _values, _vertical, _across;
    int _beforeFirst = 0, _behindLast = 0;
};

}  // namespace

GaussianKernel gaussian_kernel() {
    GaussianKernel kernel{};
    auto entry = kernel.begin();
    for (int i = -1; i <= 1; ++i) {
        for (int j = -1; j <= 1; ++j) {
            const float scaled = std::exp(-static_cast<float>(i * i + j * j) / 1.2800001F) * 0.2486796F;
            *entry++ = static_cast<float>(static_cast<double>(scaled) / 0.913);
        }
    }
    return kernel;
}

void smooth(const std::uint8_t* image, int width, int height, const GaussianKernel& kernel, int threads,
            ByteImage& smoothed) {
    const RawImage raw{image, width, height};
    smoothed.assign(width, height);
    for_rows(threads, height, [&](int y) {
        for (int x = 0; x < width; ++x) smoothed.row(y)[x] = filtered(raw, x, y, kernel);
    });
}

void sample_smoothed(const std::uint8_t* image, int width, int height, const GaussianKernel& kernel, int step,
                     int threads, ByteImage& sampled) {
    const RawImage raw{image, width, height};
    sampled.assign(width / step, height / step);
    for_rows(threads, sampled.height, [&](int y) {
        std::uint8_t* row = sampled.row(y);
        for (int x = 0; x < sampled.width; ++x) row[x] = filtered(raw, x * step, y * step, kernel);
    });
}

void mask_pattern(const ByteImage& sampled, const PatternLimits& limits, int threads, ByteImage& mask) {
    mask.assign(sampled.width, sampled.height);
    if (mask.pixels.empty()) return;
    const int largestSum = 9 * (Brightest - limits.headroom);
    parallel_ranges(threads, static_cast<std::size_t>(mask.height), RowGrain, [&](std::size_t begin, std::size_t end) {
        ThreeRows rows(mask.width);
        for (std::size_t i = begin; i < end; ++i) {
            const int y = static_cast<int>(i);
            rows.load(sampled, y);
            std::uint8_t* row = mask.row(y);
            for (int x = 0; x < mask.width; ++x)
                row[x] = rows.contrast(x) > limits.contrast && rows.sum(x) <= largestSum ? 1 : 0;
        }
    });
}

void keep_clusters(const ByteImage& mask, double least, ByteImage& clustered) {
    clustered.assign(mask.width, mask.height);
    std::vector<bool> isVisited(mask.pixels.size());
    std::vector<std::size_t> cluster;  // as queue: pixels whose neighbours are not yet looked at follow `next`
    const auto width = static_cast<std::size_t>(mask.width);
    const auto visit = [&](std::size_t pixel) {
        if (mask.pixels[pixel] == 0 || isVisited[pixel]) return;
        isVisited[pixel] = true;
        cluster.push_back(pixel);
    };
    for (std::size_t seed = 0; seed < mask.pixels.size(); ++seed) {
        cluster.clear();
        visit(seed);
        for (std::size_t next = 0; next < cluster.size(); ++next) {
            const int x = static_cast<int>(cluster[next] % width), y = static_cast<int>(cluster[next] / width);
            for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, mask.height - 1); ++ny)
                for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, mask.width - 1); ++nx)
                    visit(static_cast<std::size_t>(ny) * width + static_cast<std::size_t>(nx));
        }
        if (static_cast<double>(cluster.size()) < least) continue;
        for (const std::size_t pixel : cluster) clustered.pixels[pixel] = 1;
    }
}

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
