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

/// The size up to which a buffer and its spare bytes are rounded where buffers lie side by side.
constexpr size_t alignedSize(size_t size) {
  return (size + spareBytes + bufferAlignment - 1) / bufferAlignment * bufferAlignment;
}

/// One block of memory for many buffers, on pages of 2 MiB as far as it fills them and the system
/// has them: it takes three faults to touch 6 MiB instead of 1536. Aligned like a buffer, filled
/// with zeros, freed with its last owner. Null if there is no memory, if the block wouldn't fill a
/// large page, and wherever there is no such call.
std::shared_ptr<std::byte> reserveMemory(size_t size) noexcept;

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
