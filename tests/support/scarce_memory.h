#pragma once

// Counts what the program takes from the heap, and makes allocations fail on purpose. In a program
// that links scarce_memory.cpp, with the linker's --wrap options (the target tavro_scarce_memory
// brings both), every form of `operator new` and the malloc family come here; they behave as usual
// until a ScarceMemory exists. Shared libraries that the program loads allocate through its
// `operator new`, too, but with a malloc of their own. For programs of one thread.

#include <cstdint>

namespace tavro::test {

/// Blocks that the program has taken and given back.
struct HeapTraffic {
  int64_t taken = 0;
  int64_t returned = 0;

  int64_t kept() const { return taken - returned; }
};
HeapTraffic heapTraffic();

/// While it lives, `allowed` allocations succeed; then one fails, or all that follow do. There is
/// one at a time.
class ScarceMemory {
 public:
  enum class Failing { once, forGood };

  explicit ScarceMemory(int64_t allowed = 0, Failing failing = Failing::forGood);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// Whether an allocation has failed.
  static bool hasFailed();
};

}  // namespace tavro::test
