#pragma once

/// TESSEL_EXPORT marks what the shared library offers to its callers. The library is built with
/// everything else hidden. Define TESSEL_STATIC when the library is linked statically on Windows.
#if defined(_WIN32)
#if defined(TESSEL_STATIC)
#define TESSEL_EXPORT
#elif defined(TESSEL_BUILDING_LIBRARY)
#define TESSEL_EXPORT __declspec(dllexport)
#else
#define TESSEL_EXPORT __declspec(dllimport)
#endif
#else
#define TESSEL_EXPORT __attribute__((visibility("default")))
#endif
