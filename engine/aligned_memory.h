#pragma once

// The one allocation rule for tensor and image data. A buffer starts on a 64-byte boundary, and at
// least `spareBytes` bytes lie behind its payload: kernels may read and write there, which is what
// lets them finish a row with a whole vector.

#include <cstddef>
#include <memory>

namespace TavroRTC::FDModule {

inline constexpr size_t bufferAlignment = 64;
inline constexpr size_t spareBytes = 64;

/// Null if there is no memory. The contents are not initialised.
void* alignedAlloc(size_t size) noexcept;

/// Frees what alignedAlloc returned; null is allowed.
void alignedFree(void* address) noexcept;

struct AlignedDeleter {
  void operator()(void* address) const noexcept { alignedFree(address); }
};

/// An aligned buffer that frees itself, for the scratch of one call.
template <typename T>
using AlignedBuffer = std::unique_ptr<T[], AlignedDeleter>;

/// `count` elements, not initialised; empty if there is no memory.
template <typename T>
AlignedBuffer<T> allocateAligned(size_t count) noexcept {
  if (count > static_cast<size_t>(-1) / sizeof(T))
    return nullptr;
  return AlignedBuffer<T>(static_cast<T*>(alignedAlloc(count * sizeof(T))));
}

}  // namespace TavroRTC::FDModule
