#include "foundation/CloudWithWeight.h"

#include <utility>

#include "foundation/compaction.h"

namespace VexelAlgorithm {

CloudWithWeight::CloudWithWeight() {
    CloudWithWeight::reset_type();
}

CloudWithWeight::CloudWithWeight(const CloudWithWeight& other)
    : Cloud(other), _weights(other._weights), _hasWeights(other._hasWeights) {
    CloudWithWeight::reset_type();
}

CloudWithWeight::CloudWithWeight(CloudWithWeight&& other) noexcept : CloudWithWeight() {
    swap_content(other);
}

CloudWithWeight& CloudWithWeight::operator=(const CloudWithWeight& other) {
    Cloud::operator=(other);
    _weights = other._weights;
    _hasWeights = other._hasWeights;
    return *this;
}

CloudWithWeight& CloudWithWeight::operator=(CloudWithWeight&& other) noexcept {
    CloudWithWeight taken(std::move(other));
    swap_content(taken);
    return *this;
}

CloudWithWeight::~CloudWithWeight() = default;

void CloudWithWeight::swap_content(CloudWithWeight& other) noexcept {
    Cloud::swap_content(other);
    _weights.swap(other._weights);
    std::swap(_hasWeights, other._hasWeights);
}

void CloudWithWeight::enable_vWeight() {
    _weights.resize(get_vn(), 0.0f);
    _hasWeights = true;
}

void CloudWithWeight::disable_vWeight() {
    _weights = {};
    _hasWeights = false;
}

void CloudWithWeight::set_vWeights(std::vector<float> weights) {
    _weights = std::move(weights);
    _hasWeights = true;
}

void CloudWithWeight::clear() {
    Cloud::clear();
    _weights.clear();
}

void CloudWithWeight::reserve_vn(std::size_t count) {
    Cloud::reserve_vn(count);
    if (_hasWeights) _weights.reserve(count);
}

void CloudWithWeight::resize_vn(std::size_t count) {
    Cloud::resize_vn(count);
    if (_hasWeights) _weights.resize(count, 0.0f);
}

std::size_t CloudWithWeight::add_vCoord(const Vector3f& point) {
    const std::size_t index = Cloud::add_vCoord(point);
    if (_hasWeights) _weights.push_back(0.0f);
    return index;
}

void CloudWithWeight::set_vCoords(const std::vector<Vector3f>& coords) {
    set_vCoords(std::vector<Vector3f>(coords));
}

void CloudWithWeight::set_vCoords(std::vector<Vector3f>&& coords) {
    Cloud::set_vCoords(std::move(coords));
    CloudWithWeight::repair_illegal();
}

bool CloudWithWeight::get_boundBox(Vector3f& low, Vector3f& high) const {
    return Cloud::get_boundBox(low, high);
}

bool CloudWithWeight::is_legal() const {
    return Cloud::is_legal() && _weights.size() == (_hasWeights ? get_vn() : 0);
}

void CloudWithWeight::repair_illegal() {
    Cloud::repair_illegal();
    if (_hasWeights) _weights.resize(get_vn(), 0.0f);
}

void CloudWithWeight::reset_type() {
    set_type(DataType::CloudWithWeight);
}

void CloudWithWeight::squeeze(bool releaseMemory) {
    CloudWithWeight::repair_illegal();
    keep_entries(_weights, [this](std::size_t i) { return !get_vDeleted(i); });
    if (releaseMemory) _weights.shrink_to_fit();
    Cloud::squeeze(releaseMemory);
}

int CloudWithWeight::swap_out_data() {
    return Cloud::swap_out_data();
}

int CloudWithWeight::swap_in_data() {
    return Cloud::swap_in_data();
}

void CloudWithWeight::rigid_transformation(const RigidMatrix& rt) {
    Cloud::rigid_transformation(rt);
}

bool CloudWithWeight::write_archive(std::ostream& out) const {
    try {
        return write_vertices(out, _hasWeights ? &_weights : nullptr);
    } catch (...) {
        return false;
    }
}

bool CloudWithWeight::read_archive(std::istream& in) {
    try {
        CloudWithWeight read;
        if (!read.read_vertices(in, &read._weights, &read._hasWeights)) return false;
        *this = std::move(read);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace VexelAlgorithm
