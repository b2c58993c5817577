#pragma once

// The shared library hides every symbol by default; the public API is marked
// with ZEPTICK_API so that consumers link against exactly what is documented.
#if defined(_WIN32)
#if defined(ZEPTICK_BUILDING_LIBRARY)
#define ZEPTICK_API __declspec(dllexport)
#else
#define ZEPTICK_API __declspec(dllimport)
#endif
#else
#define ZEPTICK_API __attribute__((visibility("default")))
#endif
