// A matrix of OpenCV's C interface with value semantics.
#pragma once

#include <opencv2/core/core_c.h>

#include <utility>

namespace VexelAlgorithm {
namespace Rebuild {

/// Owns a `CvMat`, or none. Copies are deep.
class OwnedCvMat {
public:
    OwnedCvMat() = default;
    OwnedCvMat(int rows, int columns, int type) : _matrix(cvCreateMat(rows, columns, type)) {}
    OwnedCvMat(const OwnedCvMat& other) : _matrix(other._matrix != nullptr ? cvCloneMat(other._matrix) : nullptr) {}
    OwnedCvMat(OwnedCvMat&& other) noexcept : _matrix(std::exchange(other._matrix, nullptr)) {}
    OwnedCvMat& operator=(OwnedCvMat other) noexcept {
        std::swap(_matrix, other._matrix);
        return *this;
    }
    ~OwnedCvMat() {
        if (_matrix != nullptr) cvReleaseMat(&_matrix);
    }

    CvMat* get() const { return _matrix; }
    /// For functions that create the matrix when there is none.
    CvMat*& slot() { return _matrix; }
    /// A view of the same numbers.
    cv::Mat mat() const { return cv::cvarrToMat(_matrix); }

private:
    CvMat* _matrix = nullptr;
};

}  // namespace Rebuild
}  // namespace VexelAlgorithm
