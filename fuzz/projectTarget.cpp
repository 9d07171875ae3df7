// A project file is read into a session, which must be usable afterwards whatever the file said.
#include "fuzz/target.h"
#include "trials/DomeScene.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

class Subject {
public:
    Subject() {
        VexelFuzz::stay_silent();
        _session = fusion_and_track_ini(_scene.records.common, _scene.records.track, _scene.records.fusion);
        require(_session != nullptr, "there is a session");
    }
    ~Subject() { fusiontrack_release(_session); }
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    void take(std::string_view bytes) {
        std::ifstream in(_file.hold(bytes), std::ios::binary);
        if (read_project(_session, in)) {
            use();
        } else {
            require(get_show_data(_session).get_vn() == 0, "a refused project shows nothing");
        }
        require(fusion_reset(_session) == RET_SUCCESS, "a session can be reset");
        scan_anew();
        require(fusion_reset(_session) == RET_SUCCESS, "a session can be reset again");
    }

private:
    /// What was loaded need not make sense, only do no harm.
    void use() {
        get_show_data(_session);
        require(get_fusion_result_tbb(_session, 0.0F, _mesh) == RET_SUCCESS, "what was loaded has a mesh");
        require(_mesh.is_legal(), "the mesh is a mesh");
        save();
        int microseconds = 0;
        fusion_and_track(_session, _frame, microseconds);
        fusion(_session, _frame, RigidMatrix(), microseconds);
        get_show_data(_session);
    }

    void save() {
        std::ofstream out(_savedFile.hold({}), std::ios::binary);
        save_project(_session, out);
    }

    void scan_anew() {
        int microseconds = 0;
        require(fusion(_session, _frame, RigidMatrix(), microseconds), "the session takes a frame");
        require(get_show_data(_session).get_vn() > 0, "the session shows what it was given");
    }

    VexelTrial::DomeScene _scene;
    PointImage _frame = _scene.frame();
    BaseTriMesh _mesh;
    VexelFuzz::InputFile _file{".project"};
    VexelFuzz::InputFile _savedFile{".saved"};
    void* _session = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Subject subject;
    subject.take(VexelFuzz::text_of(data, size));
    return 0;
}
