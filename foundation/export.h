// Symbol visibility of the shared library on each platform.
#pragma once

#if defined(_WIN32)
#    if defined(VEXEL_BUILDING_LIBRARY)
#        define VEXEL_API __declspec(dllexport)
#    else
#        define VEXEL_API __declspec(dllimport)
#    endif
#elif defined(__GNUC__)
#    define VEXEL_API __attribute__((visibility("default")))
#else
#    define VEXEL_API
#endif

// Templates that the library instantiates. Windows wants the export on the instantiation in the library and the import
// on its declaration in the header; the others take the visibility from the declaration.
#if defined(_WIN32) && defined(VEXEL_BUILDING_LIBRARY)
#    define VEXEL_API_TEMPLATE
#    define VEXEL_API_INSTANTIATION VEXEL_API
#else
#    define VEXEL_API_TEMPLATE VEXEL_API
#    define VEXEL_API_INSTANTIATION
#endif
