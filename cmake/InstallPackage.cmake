# Installs the library, its headers and the package that find_package(VexelAlgorithm) reads.
include(CMakePackageConfigHelpers)

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/VexelAlgorithm)
set(headerDir ${CMAKE_INSTALL_INCLUDEDIR}/VexelAlgorithm)

install(TARGETS VexelAlgorithm EXPORT VexelAlgorithmTargets COMPONENT VexelAlgorithm)
install(EXPORT VexelAlgorithmTargets NAMESPACE VexelAlgorithm:: DESTINATION ${packageDir} COMPONENT VexelAlgorithm)

foreach(header IN LISTS VEXEL_PUBLIC_HEADERS)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${headerDir}/${folder} COMPONENT VexelAlgorithm)
endforeach()

configure_package_config_file(cmake/VexelAlgorithmConfig.cmake.in ${PROJECT_BINARY_DIR}/VexelAlgorithmConfig.cmake
                              INSTALL_DESTINATION ${packageDir})
# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VexelAlgorithmConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VexelAlgorithmConfig.cmake ${PROJECT_BINARY_DIR}/VexelAlgorithmConfigVersion.cmake
              cmake/OpenMeshTarget.cmake
        DESTINATION ${packageDir} COMPONENT VexelAlgorithm)
