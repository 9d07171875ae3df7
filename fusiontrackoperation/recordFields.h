// The byte form of the values in debug records: machine byte order, no padding, as in project files. Internal to the
// library.
//
// A list of fields is written once, as a function of a visitor and a record; the visitors below take it in both
// directions.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "foundation/archive.h"
#include "fusiontrackoperation/debugRecords.h"

namespace VexelAlgorithm {

/// Appends fields to a string of bytes.
class FieldWriter {
public:
    explicit FieldWriter(std::string& bytes) : _bytes(bytes) {}

    template <class Value>
    std::enable_if_t<std::is_arithmetic_v<Value>> field(const Value& value) {
        append(&value, sizeof(value));
    }
    void field(bool value) { field(static_cast<std::int32_t>(value)); }
    void field(FrameOutcome value) { field(static_cast<std::int32_t>(value)); }
    template <class Scalar, int Rows, int Columns>
    void field(const Eigen::Matrix<Scalar, Rows, Columns>& matrix) {
        append(matrix.data(), sizeof(Scalar) * static_cast<std::size_t>(matrix.size()));
    }
    void field(const CameraInParam& camera) {
        field(Eigen::Vector4d(camera.get_fx(), camera.get_fy(), camera.get_cx(), camera.get_cy()));
    }
    void field(const RigidMatrix& rt) {
        field(rt.get_rotation());
        field(rt.get_translation());
    }
    template <class Value, std::size_t Count>
    void field(const std::array<Value, Count>& values) {
        append(values.data(), sizeof(values));
    }
    template <class Array>
    auto field(const Array& values) -> std::void_t<typename Array::value_type, decltype(values.data())> {
        field(static_cast<std::int32_t>(values.size()));
        entries(values);
    }
    /// The entries without their number.
    template <class Array>
    void entries(const Array& values) {
        append(values.data(), values.size() * sizeof(typename Array::value_type));
    }

private:
    void append(const void* data, std::size_t size) {
        if (size > 0) _bytes.append(static_cast<const char*>(data), size);
    }

    std::string& _bytes;
};

/// Takes fields from bytes. After the first one that is not there or not permitted, `is_good` is false and values stay
/// as they are. Memory for lists is taken only when their bytes are there.
class FieldReader {
public:
    explicit FieldReader(std::string_view bytes) : _bytes(bytes) {}

    bool is_good() const { return _isGood; }
    /// Whether all bytes were taken, none missing.
    bool is_done() const { return _isGood && _bytes.empty(); }
    void refuse() { _isGood = false; }

    template <class Value>
    std::enable_if_t<std::is_arithmetic_v<Value>> field(Value& value) {
        take(&value, sizeof(value));
    }
    void field(bool& value) {
        std::int32_t number = value ? 1 : 0;
        field(number);
        if (number != 0 && number != 1) return refuse();
        value = number == 1;
    }
    void field(FrameOutcome& value) {
        auto number = static_cast<std::int32_t>(value);
        field(number);
        if (number < 0 || number > static_cast<std::int32_t>(FrameOutcome::Failed)) return refuse();
        value = static_cast<FrameOutcome>(number);
    }
    template <class Scalar, int Rows, int Columns>
    void field(Eigen::Matrix<Scalar, Rows, Columns>& matrix) {
        take(matrix.data(), sizeof(Scalar) * static_cast<std::size_t>(matrix.size()));
    }
    void field(CameraInParam& camera) {
        Eigen::Vector4d values(camera.get_fx(), camera.get_fy(), camera.get_cx(), camera.get_cy());
        field(values);
        camera.set_param(values(0), values(1), values(2), values(3));
    }
    void field(RigidMatrix& rt) {
        Matrix3d rotation = rt.get_rotation();
        field(rotation);
        field(rt.get_translation());
        rt.set_rotation(rotation);
    }
    template <class Value, std::size_t Count>
    void field(std::array<Value, Count>& values) {
        take(values.data(), sizeof(values));
    }
    template <class Array>
    auto field(Array& values) -> std::void_t<typename Array::value_type, decltype(values.data())> {
        std::int32_t count = 0;
        field(count);
        entries(count, values);
    }
    template <class Array>
    void entries(std::int32_t count, Array& values) {
        constexpr std::size_t size = sizeof(typename Array::value_type);
        if (!_isGood || count < 0 || static_cast<std::size_t>(count) > _bytes.size() / size) return refuse();
        values.resize(static_cast<std::size_t>(count));
        take(values.data(), values.size() * size);
    }

private:
    void take(void* data, std::size_t size) {
        if (!_isGood || size > _bytes.size()) return refuse();
        if (size > 0) std::memcpy(data, _bytes.data(), size);
        _bytes.remove_prefix(size);
    }

    std::string_view _bytes;
    bool _isGood = true;
};

// ---- the lists of fields ----------------------------------------------------------------------------

template <class Fields, class Record>
void visit_common_parameter(Fields& fields, Record& record) {
    auto& [imageSize, colorImageSize, sample, rawPointDis, outputPath, deviceTag, scanType, campar] = record;
    fields.field(imageSize);
    fields.field(colorImageSize);
    fields.field(sample);
    fields.field(rawPointDis);
    fields.field(outputPath);
    fields.field(deviceTag);
    fields.field(scanType);
    fields.field(campar);
}

template <class Fields, class Record>
void visit_track_parmeter(Fields& fields, Record& record) {
    auto& [icpIterNum, icpInterNumFixed, icpDis, icpDisFeature, icpDisAvgThread, icpDisAvgFeatureThread, icpRataRay,
           icpRataRayFeature, icpParticleSize, disUniform] = record;
    fields.field(icpIterNum);
    fields.field(icpInterNumFixed);
    fields.field(icpDis);
    fields.field(icpDisFeature);
    fields.field(icpDisAvgThread);
    fields.field(icpDisAvgFeatureThread);
    fields.field(icpRataRay);
    fields.field(icpRataRayFeature);
    fields.field(icpParticleSize);
    fields.field(disUniform);
}

template <class Fields, class Record>
void visit_fusion_parameter(Fields& fields, Record& record) {
    auto& [treeDepth, pointDis, fusionDataSize, currPointOffsetShow, viewBox, fusionLimitNum, fusionLimitNumFeature,
           colorOnInvaildPoint, codeNumSet, colorImageRange, colorImagePar, tranLeftToColor, colorImageSize] = record;
    fields.field(treeDepth);
    fields.field(pointDis);
    fields.field(fusionDataSize);
    fields.field(currPointOffsetShow);
    fields.field(viewBox);
    fields.field(fusionLimitNum);
    fields.field(fusionLimitNumFeature);
    fields.field(colorOnInvaildPoint);
    fields.field(codeNumSet);
    fields.field(colorImageRange);
    fields.field(colorImagePar);
    fields.field(tranLeftToColor);
    fields.field(colorImageSize);
}

template <class Fields, class Setup>
void visit_texture_setup(Fields& fields, Setup& setup) {
    auto& [trackerSettings, camera, featureCount, trackerFlags, matchFlags, trackerToken] = setup.record;
    fields.field(trackerSettings);
    fields.field(camera);
    fields.field(featureCount);
    fields.field(trackerFlags);
    fields.field(matchFlags);
    fields.field(trackerToken);
    fields.field(setup.leftToTexture);
}

template <class Fields, class Arguments>
void visit_frame_arguments(Fields& fields, Arguments& arguments) {
    fields.field(arguments.fuseFlag);
    fields.field(arguments.contribution);
    fields.field(arguments.frameTimeGap);
    fields.field(arguments.speedState);
    fields.field(arguments.pose);
}

template <class Fields, class Result>
void visit_frame_result(Fields& fields, Result& result) {
    auto& [outcome, isStable, isLost, residual, correspondences, frameValid, predictionValid, acceptedFrames, relative,
           times] = result.state;
    auto& [prepare, particles, icp, contribution, integrate, predict, whole] = times;
    fields.field(outcome);
    fields.field(isStable);
    fields.field(isLost);
    fields.field(residual);
    fields.field(correspondences);
    fields.field(frameValid);
    fields.field(predictionValid);
    fields.field(acceptedFrames);
    fields.field(relative);
    fields.field(result.pose);
    fields.field(result.contribution);
    fields.field(result.speedState);
    for (auto* time : {&prepare, &particles, &icp, &contribution, &integrate, &predict, &whole}) fields.field(*time);
}

/// What stands before the slots of a frame.
template <class Fields, class Frame>
void visit_frame_header(Fields& fields, Frame& frame) {
    fields.field(frame.width);
    fields.field(frame.height);
    fields.field(frame.sample);
    fields.field(frame.viewRadial);
    fields.field(frame.camera);
    fields.field(frame.rt);
    fields.field(frame.isLegal);
    fields.field(frame.hasNormals);
    fields.field(frame.hasColors);
    fields.field(frame.hasFlags);
    fields.field(frame.hasWeights);
}

template <class Fields, class Datas>
void visit_edit_datas(Fields& fields, Datas& datas) {
    fields.field(datas.points);
    fields.field(datas.ids);
}

/// A list of poses is no list of plain values to the compiler.
inline void visit_poses(FieldWriter& fields, const std::vector<RigidMatrix>& poses) {
    fields.field(static_cast<std::int32_t>(poses.size()));
    for (const RigidMatrix& pose : poses) fields.field(pose);
}
inline void visit_poses(FieldReader& fields, std::vector<RigidMatrix>& poses) {
    std::int32_t count = 0;
    fields.field(count);
    if (count < 0) return fields.refuse();
    for (std::int32_t i = 0; i < count && fields.is_good(); ++i) {
        poses.emplace_back();
        fields.field(poses.back());
    }
}

}  // namespace VexelAlgorithm
