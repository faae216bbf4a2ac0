#pragma once

// Aligned blocks for tests that replace the aligned operator new: Windows has them under names of
// its own, and wants to have them back by another function than free().

#include <cstddef>
#include <cstdlib>
#include <new>

namespace tavro::test {

inline void* alignedBlock(size_t size, std::align_val_t alignment) {
  const auto unit = static_cast<size_t>(alignment);
#if defined(_WIN32)
  return _aligned_malloc(size, unit);
#else
  return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
#endif
}

inline void freeAlignedBlock(void* block) {
#if defined(_WIN32)
  _aligned_free(block);
#else
  std::free(block);
#endif
}

}  // namespace tavro::test
