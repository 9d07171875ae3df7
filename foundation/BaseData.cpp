#include "foundation/BaseData.h"

#include <atomic>
#include <filesystem>
#include <random>
#include <sstream>
#include <system_error>

namespace VexelAlgorithm {
namespace {

std::uint64_t next_object_id() {
    static std::atomic<std::uint64_t> counter{0};
    return ++counter;
}

// Tells the files of processes that run at the same time apart; the standard library knows no process number.
std::wstring process_token() {
    static const std::uint64_t token = [] {
        std::random_device device;
        return (static_cast<std::uint64_t>(device()) << 32) | device();
    }();
    std::wostringstream text;
    text << std::hex << token;
    return text.str();
}

// Asked once, so that a file written earlier is found again whatever the environment says by then.
const std::filesystem::path& temp_folder() {
    static const std::filesystem::path folder = [] {
        std::error_code error;
        const std::filesystem::path found = std::filesystem::temp_directory_path(error);
        return error ? std::filesystem::path(".") : found;
    }();
    return folder;
}

}  // namespace

BaseData::BaseData() : _id(next_object_id()) {}

BaseData::BaseData(const BaseData& other) : _type(other._type), _id(next_object_id()) {}

BaseData::BaseData(BaseData&& other) noexcept : _type(other._type), _id(next_object_id()) {
    swap_temp_name(other);
}

BaseData& BaseData::operator=(const BaseData&) {
    return *this;
}

BaseData& BaseData::operator=(BaseData&& other) noexcept {
    swap_temp_name(other);
    return *this;
}

BaseData::~BaseData() = default;

std::wstring BaseData::get_temp_full_name() const {
    return (temp_folder() / (L"vexel_" + process_token() + L"_" + std::to_wstring(_id) + L".swap")).wstring();
}

}  // namespace VexelAlgorithm
