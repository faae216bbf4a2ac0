#pragma once

// The platform's loader, for tests that look at a library from beside the host: opening a file
// without the host's knowledge, whether it is in memory, whose code lies at an address, and which
// functions the loader runs first.

#include <string>
#include <vector>

namespace tavro::test {

using Initialiser = const void*;

/// Opens the file as a host would; null if that fails.
void* openLibrary(const std::string& path);
void closeLibrary(void* handle);

bool isLibraryOpen(const std::string& path);

/// The file that holds the code at an address, empty if none does.
std::string libraryFileAt(const void* code);

/// The library's initialisers in the order in which the loader runs them. `known` is one of them.
std::vector<Initialiser> initialisersOf(void* handle, Initialiser known);

/// Runs an initialiser once more.
void runInitialiser(Initialiser function);

/// How many initialisers the compiler's own runtime may run before the library's first.
extern const int runtimeInitialisers;

}  // namespace tavro::test
