// What all geometry types have in common: a type tag and a place for swapped-out data.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "foundation/export.h"

namespace VexelAlgorithm {

enum class DataType : std::int32_t { Unknown = 0, Cloud = 1, CloudWithWeight = 2, PointImage = 3, BaseTriMesh = 4 };

/// Base of the geometry types. The type tag says which class an object is: copies and assignments from
/// another class of the family leave it alone.
class VEXEL_API BaseData {
public:
    BaseData();
    /// Copies have a temporary file name of their own; moving hands the name over.
    BaseData(const BaseData& other);
    BaseData(BaseData&& other) noexcept;
    BaseData& operator=(const BaseData& other);
    BaseData& operator=(BaseData&& other) noexcept;
    virtual ~BaseData();

    DataType get_type() const { return _type; }

    /// Full path of the file that `swap_out_data` writes: in the temporary folder of the user, unique to this
    /// object within the machine.
    std::wstring get_temp_full_name() const;

protected:
    void set_type(DataType type) { _type = type; }
    void swap_temp_name(BaseData& other) noexcept { std::swap(_id, other._id); }

private:
    DataType _type = DataType::Unknown;
    std::uint64_t _id;
};

}  // namespace VexelAlgorithm
