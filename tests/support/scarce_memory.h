#pragma once

// Makes allocations fail on purpose. In a program that links scarce_memory.cpp, with the linker
// option --wrap=malloc (the target tavro_scarce_memory brings both), `operator new` and `malloc`
// behave as usual until a ScarceMemory exists.

#include <cstdint>

namespace tavro::test {

/// While it lives, `allowed` allocations of this thread succeed; then one fails, or all that follow
/// do. There is one at a time.
class ScarceMemory {
 public:
  enum class Failing { once, forGood };

  ScarceMemory(int64_t allowed, Failing failing);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// Whether an allocation of this thread has failed.
  static bool hasFailed();
};

}  // namespace tavro::test
