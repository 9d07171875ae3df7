// Calibration files: what a formatted read takes and what it does not.
#include <opencv2/core/core_c.h>

#include <clocale>
#include <cstdio>
#include <locale>

#include "readCaliData/CaliParReadIn.h"
#include "tests/calibration/stereoRig.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace VexelAlgorithm::Rebuild {
namespace {

using namespace VexelTest;
using namespace VexelTrial;

constexpr const char* READ_FAIL = "read camera para fail\n";

struct Matrices {
    CvMat *K = nullptr, *D = nullptr, *R = nullptr, *T = nullptr;
    ~Matrices() {
        for (CvMat** matrix : {&K, &D, &R, &T})
            if (*matrix != nullptr) cvReleaseMat(matrix);
    }
    std::vector<double> values() const {
        std::vector<double> all;
        for (const CvMat* matrix : {K, D, R, T})
            all.insert(all.end(), matrix->data.db, matrix->data.db + matrix->rows * matrix->cols);
        return all;
    }
};

class CalibrationFile : public testing::Test {
protected:
    std::string put(const std::string& name, const std::string& text) {
        const std::filesystem::path path = folder.path() / name;
        put_bytes(path, text);
        return path.string();
    }
    bool read(const std::string& text, Matrices& out) {
        return reader.read_calibrate_para_single(out.K, out.D, out.R, out.T, put("camera.txt", text));
    }

    TemporaryFolder folder;
    CaliParReadIn reader;
    Rig rig;
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

std::string with_carriage_returns(const std::string& text) {
    std::string result;
    for (const char c : text) result += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return result;
}

/// The file as the C library reads it: 22 values, or none.
std::vector<double> read_by_c_library(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    double v[40];
    constexpr int uncertainty = 22;  // these are left out
    const std::tuple<const char*, int, int> lines[] = {
        {"Focal Length:          fc = [%lf %lf]\n", 0, 2},
        {"                            [%lf %lf]\n", uncertainty, 2},
        {"Principal point:       cc = [%lf %lf]\n", 2, 2},
        {"                            [%lf %lf\n\n]", uncertainty, 2},
        {"alpha:              alpha = [%lf] [%lf]\n", 4, 2},
        {"Distortion:            kc = [%lf %lf %lf %lf %lf]\n", 5, 5},
        {"                            [%lf %lf %lf %lf %lf]\n", uncertainty, 5},
        {"Translation vector:     T = [%lf %lf %lf]\n", 10, 3},
        {"Rotation Matrix:        R = [%lf %lf %lf %lf %lf %lf %lf %lf %lf]\n", 13, 9},
        {"Standard Error:     error = [%lf]\n", uncertainty, 1}};
    bool whole = true;
    for (const auto& [format, at, count] : lines) {
        double* p = v + at;
        whole = whole && std::fscanf(file, format, p, p + 1, p + 2, p + 3, p + 4, p + 5, p + 6, p + 7, p + 8) == count;
    }
    std::fclose(file);
    return whole ? std::vector<double>(v, v + 22) : std::vector<double>();
}

TEST_F(CalibrationFile, FillsTheMatrices) {
    rig.left.alpha = 0.01;
    Matrices file, vector;
    ASSERT_TRUE(read(rig.left.text(), file));
    ASSERT_TRUE(reader.read_calibrate_para_single(vector.K, vector.D, vector.R, vector.T, rig.left.vector()));
    const Matrix3d K = rig.left.K().transpose(), R = rig.left.worldToCamera.get_rotation().transpose();  // row by row
    const Vector3d& T = rig.left.worldToCamera.get_translation();
    std::vector<double> expected(K.data(), K.data() + 9);
    expected.insert(expected.end(), rig.left.k, rig.left.k + 5);
    expected.insert(expected.end(), R.data(), R.data() + 9);
    expected.insert(expected.end(), T.data(), T.data() + 3);
    ASSERT_EQ(file.D->rows, 5);
    ASSERT_EQ(file.values().size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_DOUBLE_EQ(file.values()[i], expected[i]) << i;
        EXPECT_NEAR(vector.values()[i], expected[i], 1e-6 * std::abs(expected[i])) << i;
    }
}

/// The text cut short before each line, without each line, and with each line behind the next one.
std::vector<std::string> with_lines_missing(const std::string& good) {
    std::vector<std::string> texts;
    std::size_t next = 0, afterNext = 0;
    for (std::size_t line = 0; line < good.size(); line = next) {
        next = good.find('\n', line) + 1;
        afterNext = next < good.size() ? good.find('\n', next) + 1 : next;
        const std::string before = good.substr(0, line), after = good.substr(afterNext);
        const std::string first = good.substr(line, next - line), second = good.substr(next, afterNext - next);
        for (const std::string& text : {before, before + second + after, before + second + first + after})
            texts.push_back(text);
    }
    return texts;
}

TEST_F(CalibrationFile, AgreesWithTheCLibraryOnDamagedFiles) {
    const std::string good = rig.left.text();
    std::vector<std::string> texts{good, std::string("\0\0\0", 3) + good, with_carriage_returns(good)};
    for (const char* number : {"410,0", "+410", "4.1e2", "nan", "inf", "1e999", "1e-999", "--410"})
        texts.push_back(replaced(good, "410", number));
    for (const char* end : {"]\nalpha", "]alpha"}) texts.push_back(replaced(good, "\n\n]alpha", end));
    for (const char* end : {"0.125", "\t 0.125] more"}) texts.push_back(replaced(good, "0.125]\n", end));
    for (const char* label : {"Focal Length: fc", "\nFocal Length:          fc"})
        texts.push_back(replaced(good, "Focal Length:          fc", label));
    for (const std::string& text : with_lines_missing(good)) texts.push_back(text);
    std::mt19937 random(7);
    const std::string alphabet = " \n\t[]=:.-+,0159eKRfα";
    for (int i = 0; i < 400; ++i) {
        std::string text = good;
        const std::size_t at = random() % text.size();
        const unsigned kind = random() % 3;  // something is missing, is added, is another
        if (kind == 0) text.erase(at, 1 + random() % 3);
        if (kind > 0) text.replace(at, kind - 1, 1, alphabet[random() % alphabet.size()]);
        texts.push_back(text);
    }
    int whole = 0;
    for (const std::string& text : texts) {
        Matrices out;
        const bool read_here = read(text, out);
        const std::vector<double> expected = read_by_c_library((folder.path() / "camera.txt").string());
        ASSERT_EQ(read_here, !expected.empty()) << text;
        if (!read_here) continue;
        ++whole;
        const std::pair<double, std::size_t> values[] = {{out.K->data.db[0], 0},
                                                         {out.K->data.db[4], 1},
                                                         {out.D->data.db[4], 9},
                                                         {out.T->data.db[2], 12},
                                                         {out.R->data.db[8], 21}};
        for (const auto& [value, i] : values) EXPECT_TRUE(value == expected[i] || std::isnan(value)) << text;
    }
    EXPECT_GT(whole, 50);
    EXPECT_LT(whole, 380);
}

TEST_F(CalibrationFile, FormsThatCannotBeInitialised) {
    const std::string left = put("left.txt", rig.left.text()), right = put("right.txt", rig.right.text());
    const std::string broken =
        put("broken.txt", replaced(rig.left.text(), "                            [0.5 0.25\n\n]", ""));
    const auto expect_failure = [](const std::function<bool()>& is_success, const std::string& lines) {
        EXPECT_EQ(outcome(is_success), std::pair(false, lines));
    };
    const std::vector<float> good = rig.right.vector();
    expect_failure([&] { return CaliParReadIn(broken, right, RIG_SIZE).is_ini_success(); }, READ_FAIL);
    for (const std::string& path : {broken, folder.path().string(), (folder.path() / "none").string(), std::string()})
        expect_failure([&] { return CaliParReadIn(left, path, RIG_SIZE).is_ini_success(); }, READ_FAIL);
    for (const std::size_t count : {0, 21, 23}) {
        const std::vector<float> wrong(count, 1.0F);
        const std::string line = "CaliParReadIn ini fail because leftPar.size() != 22 || rightPar.size() != 22\n";
        expect_failure([&] { return CaliParReadIn(wrong, good, {}, RIG_SIZE, {0, 0}).is_ini_success(); }, line);
        expect_failure([&] { return CaliParReadIn(good, wrong, {}, RIG_SIZE, {0, 0}).is_ini_success(); }, line);
        CaliParReadIn direct;
        expect_failure(
            [&] {
                return direct.ini(wrong, good, {}, RIG_SIZE, {0, 0}), direct.is_ini_success();
            },
            READ_FAIL);
    }
    for (const Vector2i& size :
         {Vector2i(0, 10), Vector2i(10, -1), Vector2i(40000, 10), Vector2i(INT32_MAX, INT32_MAX)})
        EXPECT_EQ(printed([&] {
                      EXPECT_FALSE(CaliParReadIn(left, right, size).is_ini_success());
                  }).find("cvmemery_ini fail because the image size"),
                  0U);
    Matrices wrongShape;
    wrongShape.D = cvCreateMat(1, 4, CV_64FC1);
    expect_failure(
        [&] { return reader.read_calibrate_para_single(wrongShape.K, wrongShape.D, wrongShape.R, wrongShape.T, left); },
        "read_calibrate_para_single fail because a matrix is not CV_64FC1 or has another shape\n");
    EXPECT_EQ(wrongShape.K, nullptr);
}

struct DecimalComma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST_F(CalibrationFile, ReadsAndPrintsTheSameInEveryLocale) {
    const std::string left = put("left.txt", rig.left.text());
    const std::string right = put("right.txt", rig.right.text());
    const auto load = [&] {
        return outcome([&] { return CaliParReadIn(left, right, RIG_SIZE).get_left_projection(); });
    };
    const auto [projection, text] = load();
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new DecimalComma));
    for (const char* name : {"de_DE.UTF-8", "German_Germany.1252", "C"}) {
        if (std::setlocale(LC_ALL, name) == nullptr) continue;
        const auto [otherProjection, otherText] = load();
        EXPECT_EQ(otherText, text) << name;
        EXPECT_EQ(otherProjection, projection) << name;
    }
    std::locale::global(before);
}

}  // namespace
}  // namespace VexelAlgorithm::Rebuild
