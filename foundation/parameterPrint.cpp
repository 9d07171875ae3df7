#include "foundation/parameterPrint.h"

#include <locale>
#include <sstream>
#include <string>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"

namespace VexelAlgorithm {
namespace {

template <class Matrix>
void write_tabbed_row(std::ostream& out, const Matrix& values) {
    for (Eigen::Index i = 0; i < values.size(); ++i) out << (i > 0 ? "\t" : "") << values(i);
    out << '\n';
}

class RecordText {
public:
    explicit RecordText(const char* header) {
        _text.imbue(std::locale::classic());
        _text << "\n\n\n" << header << '\n';
    }

    template <class Value>
    RecordText& field(const char* label, const Value& value) {
        _text << label << value << '\n';
        return *this;
    }
    template <class Scalar, int Size>
    RecordText& field(const char* label, const Eigen::Matrix<Scalar, Size, 1>& values) {
        _text << label;
        write_tabbed_row(_text, values);
        return *this;
    }
    RecordText& field(const char* label, const CameraInParam& camera) {
        return field(label, Eigen::Vector4d(camera.get_fx(), camera.get_fy(), camera.get_cx(), camera.get_cy()));
    }
    RecordText& field(const char* label, const Matrix3d& matrix) {
        _text << label << '\n';
        rows(matrix);
        _text << '\n';
        return *this;
    }
    RecordText& field(const char* label, const RigidMatrix& transform) {
        _text << label << '\n';
        rows(transform.get_rotation());
        write_tabbed_row(_text, transform.get_translation());
        _text << '\n';
        return *this;
    }
    RecordText& color_image_range(const Vector4i& range) {
        for (int i = 0; i < 4; ++i) _text << "colorImageRange(" << i << ") = " << range(i) << '\t';
        _text << '\n';
        return *this;
    }
    RecordText& color_image_size(const Vector2i& size) {
        _text << "colorImageSize(0) =  " << size(0) << "\tcolorImageSize(1) =  " << size(1) << '\n';
        return *this;
    }

    void print() const { print_text(_text.str()); }

private:
    void rows(const Matrix3d& matrix) {
        for (int row = 0; row < 3; ++row) write_tabbed_row(_text, matrix.row(row));
    }

    std::ostringstream _text;
};

}  // namespace

void print_parameter(const CommonParameter& record) noexcept {
    guarded("print_parameter", [&] {
        RecordText("common parameter output")
            .field("imageSize = ", record.imageSize)
            .field("colorImageSize = ", record.colorImageSize)
            .field("sample = ", record.sample)
            .field("rawPointDis = ", record.rawPointDis)
            .field("outputPath = ", record.outputPath)
            .field("scanType = ", record.scanType)
            .field("campar = ", record.campar)
            .print();
    });
}

void print_parameter(const TrackParmeter& record) noexcept {
    guarded("print_parameter", [&] {
        RecordText("TrackParmeter output")
            .field("icpIterNum = ", record.icpIterNum)
            .field("icpInterNumFixed = ", record.icpInterNumFixed)
            .field("icpDis = ", record.icpDis)
            .field("icpDisFeature = ", record.icpDisFeature)
            .field("icpDisAvgThread = ", record.icpDisAvgThread)
            .field("icpDisAvgFeatureThread = ", record.icpDisAvgFeatureThread)
            .field("icpRataRay = ", record.icpRataRay)
            .field("icpRataRayFeature = ", record.icpRataRayFeature)
            .field("icpParticleSize = ", record.icpParticleSize)
            .field("disUniform = ", record.disUniform)
            .print();
    });
}

void print_parameter(const FusionParameter& record) noexcept {
    guarded("print_parameter", [&] {
        RecordText("FusionParameter output")
            .field("treeDepth = ", record.treeDepth)
            .field("pointDis = ", record.pointDis)
            .field("fusionDataSize = ", record.fusionDataSize)
            .field("currPointOffsetShow = ", record.currPointOffsetShow)
            .field("viewBox = ", record.viewBox)
            .field("fusionLimitNum = ", record.fusionLimitNum)
            .field("fusionLimitNumFeature = ", record.fusionLimitNumFeature)
            .field("color on Invaild Point = ", record.colorOnInvaildPoint)
            .field("codeNumSet = ", record.codeNumSet)
            .color_image_range(record.colorImageRange)
            .field("colorImagePar", record.colorImagePar)
            .field("tranLeftToColor ", record.tranLeftToColor)
            .color_image_size(record.colorImageSize)
            .print();
    });
}

}  // namespace VexelAlgorithm
