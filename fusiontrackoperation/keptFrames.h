// The fused frames of a session, so that they can be taken out of the model again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "fusion/removeFrame.h"

namespace VexelAlgorithm {

/// A measurement with the floats that integration used: rounded ones would fall into other voxels.
struct KeptPoint {
    Vector3f point;  ///< mm, camera coordinates
    Vector3f normal;
    float weight;
    std::int32_t slot;  ///< of the image
};
static_assert(sizeof(KeptPoint) == 32, "the memory of kept frames is counted in these records");

/// What is known of a frame's integration beside its points.
struct KeptIntegration {
    int index = 0;           ///< in the pose list
    int times = 1;           ///< how often it was integrated
    std::uint16_t edit = 0;  ///< number of the last edit before it
    RigidMatrix pose;        ///< camera to model, as it was integrated
    std::shared_ptr<const Fusion::FrameSettings> settings;
};

/// The points that were integrated, in the order of their slots, in pieces of 64 KiB.
class KeptFrame {
public:
    const KeptIntegration& integration() const { return _integration; }
    std::size_t size() const { return _size; }
    /// Fills the image with the points for which `wanted(slot)`, and empties all other slots; it must have the frame's
    /// size, normals and weights. Returns their number.
    template <class Wanted>
    std::size_t unpack(PointImage& image, const Wanted& wanted) const {
        image.setZero();
        std::size_t count = 0;
        for (std::size_t i = 0; i < _size; ++i) {
            const KeptPoint& kept = at(i);
            if (!wanted(kept.slot)) continue;
            const auto slot = static_cast<std::size_t>(kept.slot);
            image.set_vCoord(slot, kept.point);
            image.set_vNrv(slot, kept.normal);
            image.set_vWeight(slot, kept.weight);
            ++count;
        }
        return count;
    }
    template <class Visit>
    void for_each(const Visit& visit) const {
        for (std::size_t i = 0; i < _size; ++i) visit(at(i));
    }

private:
    friend class KeptFrames;
    static constexpr std::size_t PieceSize = 2048;
    using Piece = std::array<KeptPoint, PieceSize>;

    const KeptPoint& at(std::size_t i) const { return (*_pieces[i / PieceSize])[i % PieceSize]; }
    KeptPoint& at(std::size_t i) { return (*_pieces[i / PieceSize])[i % PieceSize]; }

    KeptIntegration _integration;
    std::vector<std::unique_ptr<Piece>> _pieces;
    std::size_t _size = 0;
};

/// Keeps frames as far as its memory goes; then the oldest ones make room. Not for several threads at once.
class KeptFrames {
public:
    static constexpr std::size_t UsualLimit = std::size_t{512} << 20;  ///< bytes

    /// Keeps a frame behind those that are kept. One that does not fit, or for which there is no memory, is not kept.
    void keep(const PointImage& frame, const KeptIntegration& integration) noexcept;
    /// Null when the frame of that index is not kept.
    const KeptFrame* find(int index) const;
    /// Forgets the points of a kept frame for which `gone(slot)`, and a frame without points.
    template <class Gone>
    void forget_points(int index, const Gone& gone) {
        KeptFrame* const frame = find_mutable(index);
        if (frame == nullptr) return;
        std::size_t left = 0;
        for (std::size_t i = 0; i < frame->_size; ++i) {
            if (!gone(frame->at(i).slot)) frame->at(left++) = frame->at(i);
        }
        frame->_size = left;
        if (left == 0) forget(index);
    }
    void forget(int index);
    void clear();
    /// Bytes for points, rounded down to pieces; 0 keeps nothing.
    void set_limit(std::size_t bytes);

private:
    using Piece = KeptFrame::Piece;

    std::deque<KeptFrame>::iterator position_of(int index);
    KeptFrame* find_mutable(int index);
    bool pack(const PointImage& frame, KeptFrame& kept);
    bool take_piece(KeptFrame& kept);
    void give_back(KeptFrame& kept);

    std::deque<KeptFrame> _frames;               // by index
    std::vector<std::unique_ptr<Piece>> _spare;  // for the next frames
    std::size_t _pieceCount = 0;                 // of all, the spare ones included
    std::size_t _pieceLimit = UsualLimit / sizeof(Piece);
};

}  // namespace VexelAlgorithm
