// Images of recordings: depth and grey PNG files, and what the choice of exposure reads. Check sums would keep a fuzzer
// at the door, so half of the inputs have theirs mended first.
#include "exposure/greyFile.h"
#include "fuzz/pngChunks.h"
#include "fuzz/target.h"
#include "recording/DepthImage.h"
#include "recording/GreyPicture.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

std::size_t pixels(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

void take_depth(const std::filesystem::path& path) {
    inspect_depth_png(path);
    const Outcome<DepthImage> image = read_depth_png(path, 0.5);
    if (image) require(image->millimetres.size() == pixels(image->width, image->height), "each pixel has a depth");
}

void take_grey(const std::filesystem::path& path) {
    inspect_grey_picture(path);
    const Outcome<GreyPicture> image = read_grey_picture(path);
    if (image) require(image->pixels.size() == pixels(image->width, image->height), "each pixel has a value");
}

void take_exposure(const std::filesystem::path& path) {
    autoExposureFoot::ByteImage image;
    if (autoExposureFoot::read_grey_file(path.string(), image))
        require(image.pixels.size() == pixels(image.width, image.height), "each pixel has a brightness");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr void (*readers[])(const std::filesystem::path&) = {take_depth, take_grey, take_exposure};
    static VexelFuzz::InputFile file(".png");
    std::string_view input = VexelFuzz::text_of(data, size);
    const std::size_t choice = VexelFuzz::take_choice(input, 2 * std::size(readers));
    std::string bytes(input);
    if (choice >= std::size(readers)) VexelFuzz::mend_check_sums(bytes);
    readers[choice % std::size(readers)](file.hold(bytes));
    return 0;
}
