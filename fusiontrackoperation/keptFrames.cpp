#include "fusiontrackoperation/keptFrames.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "fusion/integratePoint.h"

namespace VexelAlgorithm {

void KeptFrames::keep(const PointImage& frame, const KeptIntegration& integration) noexcept {
    try {
        KeptFrame kept;
        kept._integration = integration;
        if (!pack(frame, kept)) return give_back(kept);
        _frames.push_back(std::move(kept));
    } catch (const std::exception&) {
        // Pieces that go with the exception count no longer.
        _pieceCount = _spare.size();
        for (const KeptFrame& each : _frames) _pieceCount += each._pieces.size();
    }
}

bool KeptFrames::pack(const PointImage& frame, KeptFrame& kept) {
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        const float weight = frame.get_vWeight(i);
        if (!(weight >= 1e-6F) || !std::isfinite(weight)) continue;
        if (!Fusion::is_usable_point(frame.get_vCoord(i), frame.get_vNrv(i))) continue;
        if (kept._size == kept._pieces.size() * KeptFrame::PieceSize && !take_piece(kept)) return false;
        kept.at(kept._size++) = {frame.get_vCoord(i), frame.get_vNrv(i), weight, static_cast<std::int32_t>(i)};
    }
    return kept._size > 0;
}

bool KeptFrames::take_piece(KeptFrame& kept) {
    while (_spare.empty() && _pieceCount >= _pieceLimit && !_frames.empty()) forget(_frames.front()._integration.index);
    if (_spare.empty()) {
        if (_pieceCount >= _pieceLimit) return false;
        kept._pieces.push_back(std::unique_ptr<Piece>(new Piece));
        ++_pieceCount;
        return true;
    }
    kept._pieces.push_back(std::move(_spare.back()));
    _spare.pop_back();
    return true;
}

void KeptFrames::give_back(KeptFrame& kept) {
    for (auto& piece : kept._pieces) _spare.push_back(std::move(piece));
    kept._pieces.clear();
}

std::deque<KeptFrame>::iterator KeptFrames::position_of(int index) {
    return std::find_if(_frames.begin(), _frames.end(),
                        [=](const KeptFrame& frame) { return frame._integration.index == index; });
}

KeptFrame* KeptFrames::find_mutable(int index) {
    const auto at = position_of(index);
    return at == _frames.end() ? nullptr : &*at;
}

const KeptFrame* KeptFrames::find(int index) const {
    return const_cast<KeptFrames*>(this)->find_mutable(index);
}

void KeptFrames::forget(int index) {
    const auto at = position_of(index);
    if (at == _frames.end()) return;
    give_back(*at);
    _frames.erase(at);
}

void KeptFrames::clear() {
    _frames.clear();
    _spare.clear();
    _pieceCount = 0;
}

void KeptFrames::set_limit(std::size_t bytes) {
    _pieceLimit = bytes / sizeof(Piece);
    while (_pieceCount - _spare.size() > _pieceLimit) forget(_frames.front()._integration.index);
    while (_pieceCount > _pieceLimit) {
        _spare.pop_back();
        --_pieceCount;
    }
}

}  // namespace VexelAlgorithm
