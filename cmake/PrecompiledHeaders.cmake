# Headers of other projects that most sources read, parsed once for all targets of the same options. Headers of this
# project stay out: a change of one of them compiles what includes it, and nothing else.

# ccache passes by what a precompiled header goes into, unless it is told to be sloppy, and knows small sources again
# more often than large ones.
set(isFirstBuild ON)
if(MSVC OR CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
    set(isFirstBuild OFF)
endif()
option(VEXEL_PRECOMPILED_HEADERS "Parse the headers of Eigen, TBB and the standard library once" ${isFirstBuild})
option(VEXEL_UNITY_TESTS "Compile the sources of each test program together" ${isFirstBuild})

set(VEXEL_COMMON_HEADERS
    <Eigen/Core> <Eigen/Geometry>
    <algorithm> <array> <atomic> <cmath> <cstddef> <cstdint> <cstring> <functional> <limits> <memory> <mutex> <optional>
    <sstream> <string> <thread> <utility> <vector>)

# vexel_precompile(TARGET HEADERS...): for this target alone.
function(vexel_precompile target)
    if(VEXEL_PRECOMPILED_HEADERS)
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()

# vexel_share_precompiled(GROUP HEADERS... [OPTIONS ...] [LIBS ...]): for the targets that vexel_use_precompiled names,
# which have these options beyond those of every target, and these libraries.
function(vexel_share_precompiled group)
    if(NOT VEXEL_PRECOMPILED_HEADERS)
        return()
    endif()
    cmake_parse_arguments(ARG "" "" "OPTIONS;LIBS" ${ARGN})
    set(holder vexel_precompiled_${group})
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${holder}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "// A target has to have a source.\n" @ONLY)
    add_library(${holder} OBJECT ${source})
    vexel_compiler_options(${holder})
    target_compile_options(${holder} PRIVATE ${ARG_OPTIONS})
    target_link_libraries(${holder} PRIVATE Eigen3::Eigen ${ARG_LIBS})
    vexel_precompile(${holder} ${ARG_UNPARSED_ARGUMENTS})
endfunction()

function(vexel_use_precompiled target group)
    if(VEXEL_PRECOMPILED_HEADERS)
        target_precompile_headers(${target} REUSE_FROM vexel_precompiled_${group})
    endif()
endfunction()
