#include "engine/aligned_memory.h"

#include <cstdint>
#include <cstdlib>

namespace TavroRTC::FDModule {
namespace {

// The address that the process allocator returned is in the word in front of the buffer. The buffer
// is the first aligned address that leaves room for that word: 9 to 72 bytes further on.
constexpr size_t linkBytes = sizeof(void*);
constexpr size_t overhead = linkBytes + bufferAlignment + spareBytes;
static_assert(overhead == 136);

}  // namespace

void* alignedAlloc(size_t size) noexcept {
  if (size > SIZE_MAX - overhead)
    return nullptr;
  void* block = std::malloc(size + overhead);
  if (block == nullptr)
    return nullptr;
  const auto start = reinterpret_cast<uintptr_t>(block);
  auto* buffer =
      static_cast<std::byte*>(block) + (((start + linkBytes) | (bufferAlignment - 1)) + 1 - start);
  reinterpret_cast<void**>(buffer)[-1] = block;
  return buffer;
}

void alignedFree(void* address) noexcept {
  if (address != nullptr)
    std::free(static_cast<void**>(address)[-1]);
}

}  // namespace TavroRTC::FDModule
