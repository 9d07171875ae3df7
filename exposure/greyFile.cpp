#include "exposure/greyFile.h"

#include <png.h>

#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

// It needs FILE and size_t from before.
#include <jpeglib.h>

namespace VexelAlgorithm {
namespace autoExposureFoot {
namespace {

constexpr std::size_t MostPixelsPerByte = 1100;  // deflate packs 1032 bytes into one, and JPEG less
constexpr int JpegQuality = 90;

bool is_credible(std::size_t width, std::size_t height, std::size_t bytes) {
    return width > 0 && height > 0 && width <= LargestSide && height <= LargestSide &&
           width * height <= MostPixelsPerByte * bytes;
}

bool decode_png(const std::vector<unsigned char>& bytes, ByteImage& image) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&png, bytes.data(), bytes.size()) == 0) return false;
    if (!is_credible(png.width, png.height, bytes.size())) {
        png_image_free(&png);
        return false;
    }
    png.format = PNG_FORMAT_GRAY;
    const png_color black{0, 0, 0};
    image.assign(static_cast<int>(png.width), static_cast<int>(png.height));
    return png_image_finish_read(&png, &black, image.pixels.data(), 0, nullptr) != 0;
}

struct JpegFailure {
    jpeg_error_mgr manager;
    std::jmp_buf back;
};

void leave(j_common_ptr info) {
    std::longjmp(reinterpret_cast<JpegFailure*>(info->err)->back, 1);
}

void stay_silent(j_common_ptr) {}

/// Runs `code(jpeg)`, which tells whether it succeeded, and cleans up behind it. libjpeg reports errors by a function
/// that must not return: what `code` calls it from may hold plain data only, nothing that needs its destructor.
template <class Jpeg, class Code>
bool run(Jpeg& jpeg, const Code& code) {
    JpegFailure failure{};
    jpeg.err = jpeg_std_error(&failure.manager);
    failure.manager.error_exit = leave;
    failure.manager.output_message = stay_silent;
    bool isDone = false;
    if (setjmp(failure.back) == 0) isDone = code(jpeg);
    jpeg_destroy(reinterpret_cast<j_common_ptr>(&jpeg));
    return isDone;
}

unsigned char* allocate(ByteImage& image, int width, int height) {
    try {
        image.assign(width, height);
        return image.pixels.data();
    } catch (...) {
        return nullptr;
    }
}

bool decode_jpeg(const std::vector<unsigned char>& bytes, ByteImage& image) {
    jpeg_decompress_struct decoder{};
    return run(decoder, [&](jpeg_decompress_struct& jpeg) {
        jpeg_create_decompress(&jpeg);
        jpeg_mem_src(&jpeg, bytes.data(), static_cast<unsigned long>(bytes.size()));
        jpeg_read_header(&jpeg, TRUE);
        if (!is_credible(jpeg.image_width, jpeg.image_height, bytes.size())) return false;
        JSAMPROW row = allocate(image, static_cast<int>(jpeg.image_width), static_cast<int>(jpeg.image_height));
        if (row == nullptr) return false;
        jpeg.out_color_space = JCS_GRAYSCALE;
        jpeg_start_decompress(&jpeg);
        for (; jpeg.output_scanline < jpeg.output_height; row += jpeg.output_width) jpeg_read_scanlines(&jpeg, &row, 1);
        jpeg_finish_decompress(&jpeg);
        return true;
    });
}

/// `bytes` is to be freed, also after a failure.
bool encode_jpeg(const ByteImage& image, unsigned char** bytes, unsigned long* count) {
    jpeg_compress_struct encoder{};
    return run(encoder, [&](jpeg_compress_struct& jpeg) {
        jpeg_create_compress(&jpeg);
        jpeg_mem_dest(&jpeg, bytes, count);
        jpeg.image_width = static_cast<JDIMENSION>(image.width);
        jpeg.image_height = static_cast<JDIMENSION>(image.height);
        jpeg.input_components = 1;
        jpeg.in_color_space = JCS_GRAYSCALE;
        jpeg_set_defaults(&jpeg);
        jpeg_set_quality(&jpeg, JpegQuality, TRUE);
        jpeg_start_compress(&jpeg, TRUE);
        while (jpeg.next_scanline < jpeg.image_height) {
            JSAMPROW row = const_cast<JSAMPROW>(image.row(static_cast<int>(jpeg.next_scanline)));
            jpeg_write_scanlines(&jpeg, &row, 1);
        }
        jpeg_finish_compress(&jpeg);
        return true;
    });
}

}  // namespace

bool read_grey_file(const std::string& path, ByteImage& image) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (bytes.size() < 4) return false;
    return bytes[0] == 0xFF ? decode_jpeg(bytes, image) : decode_png(bytes, image);
}

bool write_jpeg(const std::string& path, const ByteImage& image) {
    unsigned char* bytes = nullptr;
    unsigned long count = 0;
    bool isWritten = encode_jpeg(image, &bytes, &count);
    if (isWritten) {
        std::ofstream file(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(count));
        isWritten = file.flush().good();
    }
    std::free(bytes);
    return isWritten;
}

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
