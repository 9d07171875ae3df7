// A cloud whose vertices carry a weight.
#pragma once

#include "foundation/Cloud.h"

namespace VexelAlgorithm {

/// A `Cloud` with a further optional float per vertex that follows every operation on the vertices.
class VEXEL_API CloudWithWeight : public Cloud {
public:
    CloudWithWeight();
    CloudWithWeight(const CloudWithWeight& other);
    CloudWithWeight(CloudWithWeight&& other) noexcept;
    CloudWithWeight& operator=(const CloudWithWeight& other);
    CloudWithWeight& operator=(CloudWithWeight&& other) noexcept;
    ~CloudWithWeight() override;

    bool is_enable_vWeight() const { return _hasWeights; }
    void enable_vWeight();
    void disable_vWeight();
    float get_vWeight(std::size_t i) const { return _weights[i]; }
    void set_vWeight(std::size_t i, float weight) { _weights[i] = weight; }
    /// Enables weights and takes over the array; `is_legal` tells when its length is wrong.
    void set_vWeights(std::vector<float> weights);
    const std::vector<float>& get_vWeights() const { return _weights; }

    void clear() override;
    void reserve_vn(std::size_t count) override;
    void resize_vn(std::size_t count) override;
    std::size_t add_vCoord(const Vector3f& point) override;
    void set_vCoords(const std::vector<Vector3f>& coords) override;
    void set_vCoords(std::vector<Vector3f>&& coords) override;
    bool get_boundBox(Vector3f& low, Vector3f& high) const override;
    bool is_legal() const override;
    void repair_illegal() override;
    void reset_type() override;
    void squeeze(bool releaseMemory) override;
    int swap_out_data() override;
    int swap_in_data() override;
    void rigid_transformation(const RigidMatrix& rt) override;
    bool write_archive(std::ostream& out) const override;
    bool read_archive(std::istream& in) override;

protected:
    void swap_content(CloudWithWeight& other) noexcept;

    std::vector<float> _weights;
    bool _hasWeights = false;
};

}  // namespace VexelAlgorithm
