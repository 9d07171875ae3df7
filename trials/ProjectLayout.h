// Where things are in a project file, by a reader that knows nothing of the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace VexelTrial {

template <class Number>
Number number_at(const std::string& bytes, std::size_t at) {
    Number number{};
    if (at + sizeof(number) <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof(number));
    return number;
}

template <class Number>
void put_number(std::string& bytes, std::size_t at, Number number) {
    std::memcpy(&bytes[at], &number, sizeof(number));
}

/// Where the sections of a project file begin.
struct ProjectLayout {
    explicit ProjectLayout(const std::string& bytes) {
        const auto count_at = [&](std::size_t at) {
            return static_cast<std::size_t>(number_at<std::int32_t>(bytes, at));
        };
        volume = poses + 4 + 96 * count_at(poses);
        top = volume + 8 + 12;
        std::size_t at = top + 12 + 8 * count_at(top + 8);
        for (int level = 0; level < number_at<std::int32_t>(bytes, volume) - 9; ++level) {
            levels.push_back(at);
            at += 8 + 4 * count_at(at + 4);
        }
        leaves = at;
        used = count_at(leaves + 4);
        records = leaves + 8;
        ids = records + 40 * used;
        display = ids + 4 * used;
        shown = count_at(display + 4);
        end = display + 8 + (4 + 12 + 12 + 12) * shown;
    }
    std::size_t poses = 18, volume, top;
    std::vector<std::size_t> levels;
    std::size_t leaves, used, records, ids, display, shown, end;
};

}  // namespace VexelTrial
