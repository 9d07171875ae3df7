// An indexed triangle mesh.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "foundation/Cloud.h"

namespace VexelAlgorithm {

/// Three vertex indices; counter-clockwise seen from outside.
struct BaseTriFace {
    std::int32_t v[3] = {0, 0, 0};

    std::int32_t& operator[](int corner) { return v[corner]; }
    std::int32_t operator[](int corner) const { return v[corner]; }
};

/// A cloud's vertices plus triangles. Faces keep the values that the caller sets; operations that look up
/// vertices skip faces whose indices do not exist.
class VEXEL_API BaseTriMesh : public Cloud {
public:
    BaseTriMesh();
    BaseTriMesh(const BaseTriMesh& other);
    BaseTriMesh(BaseTriMesh&& other) noexcept;
    BaseTriMesh& operator=(const BaseTriMesh& other);
    BaseTriMesh& operator=(BaseTriMesh&& other) noexcept;
    ~BaseTriMesh() override;

    std::size_t get_fn() const { return _faces.size(); }
    const BaseTriFace& get_face(std::size_t i) const { return _faces[i]; }
    void set_face(std::size_t i, const BaseTriFace& face) { _faces[i] = face; }
    const std::vector<BaseTriFace>& get_faces() const { return _faces; }
    /// Takes over the array; face attributes follow to the new length.
    void set_faces(std::vector<BaseTriFace> faces);
    virtual void resize_fn(std::size_t count);

    bool is_enable_fNormal() const { return _hasFaceNormals; }
    void enable_fNormal();
    const Vector3f& get_fNrv(std::size_t i) const { return _faceNormals[i]; }
    void set_fNrv(std::size_t i, const Vector3f& normal) { _faceNormals[i] = normal; }

    bool is_enable_fFlag() const { return _hasFaceFlags; }
    void enable_fFlag();
    FaceFlag& get_fFlag(std::size_t i) { return _faceFlags[i]; }
    const FaceFlag& get_fFlag(std::size_t i) const { return _faceFlags[i]; }
    bool get_fDeleted(std::size_t i) const { return _hasFaceFlags && _faceFlags[i].test(FaceFlag::Deleted); }
    void set_fDeleted(std::size_t i, bool deleted);

    /// Texture: three texture positions in [0, 1] a face, and the name of the image.
    bool is_enable_texture() const { return _hasTexture; }
    void enable_texture();
    const std::array<Vector2f, 3>& get_fTexCoord(std::size_t i) const { return _faceTexCoords[i]; }
    void set_fTexCoord(std::size_t i, const std::array<Vector2f, 3>& coords) { _faceTexCoords[i] = coords; }
    const std::string& get_texture_name() const { return _textureName; }
    void set_texture_name(const std::string& name) { _textureName = name; }

    /// Recomputes the vertex normals from the faces, each weighted by its area; enables them when needed.
    /// Vertices without a face get a zero normal. Also fills the face normals when they are enabled.
    void update_VNrv();

    /// Drops vertices, faces and the name of the texture image; enabled attributes stay.
    void clear() override;
    void reset_type() override;
    bool is_legal() const override;
    void repair_illegal() override;
    /// Drops deleted faces and vertices, and faces that use a dropped or non-existing vertex.
    void squeeze(bool releaseMemory) override;
    int swap_out_data() override;
    int swap_in_data() override;
    void rigid_transformation(const RigidMatrix& rt) override;
    /// The form of `Cloud`, then uint32 face attributes (1 normals, 2 flags, 4 texture), uint64 fn, the faces
    /// (12 bytes a face) and the enabled ones of face normals (12), face flags (1) and texture positions (24),
    /// at last the image name as uint64 length and bytes.
    bool write_archive(std::ostream& out) const override;
    bool read_archive(std::istream& in) override;

private:
    void swap_content(BaseTriMesh& other) noexcept;
    bool has_all_corners(std::size_t i) const;
    bool read_faces(std::istream& in);

    std::vector<BaseTriFace> _faces;
    std::vector<Vector3f> _faceNormals;
    std::vector<FaceFlag> _faceFlags;
    std::vector<std::array<Vector2f, 3>> _faceTexCoords;
    std::string _textureName;
    bool _hasFaceNormals = false;
    bool _hasFaceFlags = false;
    bool _hasTexture = false;
};

}  // namespace VexelAlgorithm
