# Gives one target of this project its warnings, floating-point rules and sanitizers.

set(VEXEL_SANITIZE "" CACHE STRING "Sanitizers for every target: address,undefined or thread; empty for none")
set(VEXEL_SANITIZE_WITHOUT "" CACHE STRING "Checks of these sanitizers that are left out: alignment,null,object-size")

function(vexel_compiler_options target)
    set_target_properties(${target} PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
    # Products of matrices stand inside loops that run on the configured threads already.
    target_compile_definitions(${target} PRIVATE EIGEN_DONT_PARALLELIZE)
    if(MSVC)
        # 4251 and 4275: exported classes have standard containers, Eigen's matrices and OpenMesh's kernel inside.
        target_compile_options(${target} PRIVATE /W4 /wd4251 /wd4275 /permissive- /utf-8 /fp:precise /bigobj)
        target_compile_definitions(${target} PRIVATE NOMINMAX _CRT_SECURE_NO_WARNINGS)
    else()
        # No contraction: the same source gives the same numbers on every x86-64 processor.
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -ffp-contract=off)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # Half a gigabyte before it looks for garbage: that search is a sixth of the time of compiling with Eigen.
            target_compile_options(${target} PRIVATE "SHELL:--param ggc-min-heapsize=500000")
        endif()
        if(VEXEL_SANITIZE)
            # Little optimisation and line tables only: half the compile time of -O2 -g.
            target_compile_options(${target} PRIVATE -fsanitize=${VEXEL_SANITIZE} -fno-omit-frame-pointer
                                                     -fno-sanitize-recover=all -O1 -g1)
            if(VEXEL_SANITIZE_WITHOUT)
                target_compile_options(${target} PRIVATE -fno-sanitize=${VEXEL_SANITIZE_WITHOUT})
            endif()
            target_link_options(${target} PRIVATE -fsanitize=${VEXEL_SANITIZE})
        endif()
        if(VEXEL_FUZZ)
            # What inputs reach is counted in the same build.
            target_compile_options(${target} PRIVATE -fprofile-instr-generate -fcoverage-mapping)
            target_link_options(${target} PRIVATE -fprofile-instr-generate)
            # Vectors of one width: readers have none, and the others cost most of the time of the build. Without any,
            # Highway's stand-in would convert NaN to integers.
            target_compile_definitions(${target} PRIVATE
                "HWY_DISABLED_TARGETS=(HWY_SSSE3|HWY_SSE4|HWY_AVX3|HWY_AVX3_DL)")
        endif()
    endif()
endfunction()
