// Symbol visibility of the shared library on each platform.
#pragma once

#if defined(_WIN32)
#  if defined(VEXEL_BUILDING_LIBRARY)
#    define VEXEL_API __declspec(dllexport)
#  else
#    define VEXEL_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define VEXEL_API __attribute__((visibility("default")))
#else
#  define VEXEL_API
#endif
