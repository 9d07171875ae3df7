// A point set with optional attributes.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <vector>

#include "foundation/BaseData.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"
#include "foundation/flags.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// Points (mm) with optional normals, colours and flags, held as parallel arrays of one length.
/// A value type: copies are deep. Indices are not range-checked, and an attribute may only be read or set
/// while it is enabled. Reading from several threads is safe; writing different vertices is safe while
/// nobody resizes. Operations that need memory throw std::bad_alloc as std::vector does; archives and
/// swapping catch it and report failure.
class VEXEL_API Cloud : public BaseData {
public:
    Cloud();
    Cloud(const Cloud& other);
    Cloud(Cloud&& other) noexcept;
    Cloud& operator=(const Cloud& other);
    Cloud& operator=(Cloud&& other) noexcept;
    ~Cloud() override;

    std::size_t get_vn() const { return _coords.size(); }

    const Vector3f& get_vCoord(std::size_t i) const { return _coords[i]; }
    void set_vCoord(std::size_t i, const Vector3f& point) { _coords[i] = point; }
    const std::vector<Vector3f>& get_vCoords() const { return _coords; }

    bool is_enable_vNormal() const { return _hasNormals; }
    void enable_vNormal();
    void disable_vNormal();
    const Vector3f& get_vNrv(std::size_t i) const { return _normals[i]; }
    void set_vNrv(std::size_t i, const Vector3f& normal) { _normals[i] = normal; }
    /// Enables normals and takes over the array; `is_legal` tells when its length is wrong.
    void set_vNrvs(std::vector<Vector3f> normals);
    const std::vector<Vector3f>& get_vNrvs() const { return _normals; }

    bool is_enable_vColor() const { return _hasColors; }
    void enable_vColor();
    void disable_vColor();
    const Vector3f& get_vColor(std::size_t i) const { return _colors[i]; }
    void set_vColor(std::size_t i, const Vector3f& color) { _colors[i] = color; }

    bool is_enable_vFlag() const { return _hasFlags; }
    void enable_vFlag();
    void disable_vFlag();
    VertexFlag& get_vFlag(std::size_t i) { return _flags[i]; }
    const VertexFlag& get_vFlag(std::size_t i) const { return _flags[i]; }
    /// False for every vertex while flags are disabled.
    bool get_vDeleted(std::size_t i) const { return _hasFlags && _flags[i].test(VertexFlag::Deleted); }
    /// Enables flags when needed, so not to be called from several threads before they are enabled.
    void set_vDeleted(std::size_t i, bool deleted);

    /// Drops all vertices, swapped-out ones too; the set of enabled attributes stays.
    virtual void clear();
    virtual void reserve_vn(std::size_t count);
    /// New vertices are zero in every attribute.
    virtual void resize_vn(std::size_t count);
    /// Appends a vertex whose other attributes are zero; returns its index.
    virtual std::size_t add_vCoord(const Vector3f& point);
    /// Replaces the coordinates; attribute arrays follow to the new length.
    virtual void set_vCoords(const std::vector<Vector3f>& coords);
    virtual void set_vCoords(std::vector<Vector3f>&& coords);
    /// Corners of the axis-parallel box around the vertices that are finite and not deleted. False, and both
    /// corners zero, when there is none.
    virtual bool get_boundBox(Vector3f& low, Vector3f& high) const;
    /// Whether every enabled attribute array has as many entries as there are vertices.
    virtual bool is_legal() const;
    /// Brings attribute arrays back to the vertex count: cuts the surplus, fills with zeros.
    virtual void repair_illegal();
    /// Sets the type tag to this class's own.
    virtual void reset_type();
    /// Drops the vertices marked deleted, keeping the order; with `releaseMemory` spare capacity is given back.
    virtual void squeeze(bool releaseMemory);
    /// Moves the arrays to the file `get_temp_full_name` and frees their memory; until `swap_in_data` the
    /// cloud is empty. 0 on success; non-zero, the cloud being as it was, when it is swapped out already, not
    /// legal, or the file cannot be written. The file lives no longer than the object: a copy of a
    /// swapped-out cloud is an empty cloud, a move takes the file along, and `clear`, assignment,
    /// `read_archive` and destruction remove it. The file holds the archive form of the class.
    virtual int swap_out_data();
    /// Brings the arrays back, in place of vertices added meanwhile, and removes the file. 0 on success;
    /// non-zero when nothing was swapped out or the file is gone or damaged, the cloud then being unchanged.
    virtual int swap_in_data();
    /// Moves points by the transform, normals by its rotation.
    virtual void rigid_transformation(const RigidMatrix& rt);

    /// Machine byte order, no padding: int32 type tag (`DataType`), uint32 attributes (1 normals, 2 colours,
    /// 4 flags, 8 weights), uint64 vn, then the coordinates (12 bytes a vertex) and the enabled ones of
    /// normals (12), colours (12), flags (1) and weights (4). False when the cloud is not legal or the stream
    /// fails.
    virtual bool write_archive(std::ostream& out) const;
    /// Reads what `write_archive` of the same type wrote. Counts are not trusted: memory grows only with the
    /// bytes really read. On failure returns false and leaves the object as it was.
    virtual bool read_archive(std::istream& in);

protected:
    /// Exchanges everything but the type tag.
    void swap_content(Cloud& other) noexcept;
    /// Forgets swapped-out data and removes its file.
    void discard_swapped_out() noexcept;
    /// The archive form; a class with weights passes its array and the switch of it.
    bool write_vertices(std::ostream& out, const std::vector<float>* weights) const;
    bool read_vertices(std::istream& in, std::vector<float>* weights, bool* hasWeights);

    std::vector<Vector3f> _coords;
    std::vector<Vector3f> _normals;
    std::vector<Vector3f> _colors;
    std::vector<VertexFlag> _flags;
    bool _hasNormals = false;
    bool _hasColors = false;
    bool _hasFlags = false;
    bool _isSwappedOut = false;
};

}  // namespace VexelAlgorithm
