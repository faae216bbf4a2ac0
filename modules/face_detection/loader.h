#pragma once

// What differs between platforms about loading and linking: symbol export and import, and code
// that must run before a library's other static initialisers.

#if defined(_WIN32)
#define TAVRO_EXPORT __declspec(dllexport)
#define TAVRO_IMPORT __declspec(dllimport)
#else
#define TAVRO_EXPORT __attribute__((visibility("default")))
#define TAVRO_IMPORT __attribute__((visibility("default")))
#endif

/// Marks what libtavro-core offers to modules and applications.
#if defined(TAVRO_BUILDING_HOST_CORE)
#define TAVRO_HOST_API TAVRO_EXPORT
#else
#define TAVRO_HOST_API TAVRO_IMPORT
#endif

/// A function with this attribute runs when its library is loaded, before the library's static
/// objects are set up; lower positions run first. Positions below 101 belong to the compiler.
#define TAVRO_RUN_AT_LOAD(position) __attribute__((constructor(101 + (position))))
