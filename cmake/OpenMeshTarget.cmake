# Makes Vexel::OpenMesh, one name for the half-edge mesh library whatever its package calls its target. Needs
# find_package(OpenMesh) before. Installed beside the package configuration, which uses it too.
if(NOT TARGET Vexel::OpenMesh)
    add_library(Vexel::OpenMesh INTERFACE IMPORTED)
    if(TARGET OpenMesh::OpenMeshCore)
        set_property(TARGET Vexel::OpenMesh PROPERTY INTERFACE_LINK_LIBRARIES OpenMesh::OpenMeshCore)
    elseif(TARGET OpenMeshCore)
        set_property(TARGET Vexel::OpenMesh PROPERTY INTERFACE_LINK_LIBRARIES OpenMeshCore)
    else()
        message(FATAL_ERROR "The OpenMesh package offers neither OpenMesh::OpenMeshCore nor OpenMeshCore")
    endif()
endif()
