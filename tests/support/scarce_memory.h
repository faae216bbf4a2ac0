#pragma once

// Makes `operator new` fail on purpose. A program that links scarce_memory.cpp has its allocation
// functions replaced; they behave as usual until a ScarceMemory exists.

#include <cstdint>

namespace tavro::test {

/// While it lives, `allowed` allocations of this thread succeed and all later ones fail.
class ScarceMemory {
 public:
  explicit ScarceMemory(int64_t allowed);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;
};

}  // namespace tavro::test
