#include "engine/aligned_memory.h"

#include <cstdint>
#include <cstdlib>

#if defined(__linux__) && !defined(TAVRO_SANITIZED)
#include <sys/mman.h>

#include <new>
#endif

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

#if defined(__linux__) && !defined(TAVRO_SANITIZED)

std::shared_ptr<std::byte> reserveMemory(size_t size) noexcept {
  constexpr size_t page = 4096;
  constexpr size_t largePage = size_t{2} << 20;
  if (size < largePage || size > SIZE_MAX / 2)
    return nullptr;
  // The last large page is taken whole where little of it stays idle.
  const size_t idle = -size % largePage;
  const size_t wanted = size + (idle < largePage / 4 ? idle : -size % page);
  // A large page starts at a multiple of its size: more is mapped than wanted, and cut off again.
  void* mapped =
      mmap(nullptr, wanted + largePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED)
    return nullptr;
  const size_t before = -reinterpret_cast<uintptr_t>(mapped) % largePage;
  auto* start = static_cast<std::byte*>(mapped) + before;
  if (before != 0)
    munmap(mapped, before);
  if (before != largePage)
    munmap(start + wanted, largePage - before);
  madvise(start, wanted, MADV_HUGEPAGE);  // no failure: the pages are small then
  try {
    return {start, [wanted](std::byte* block) { munmap(block, wanted); }};
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

#else

// Sanitizers watch what malloc returns, each block by itself.
std::shared_ptr<std::byte> reserveMemory(size_t /*size*/) noexcept {
  return nullptr;
}

#endif

}  // namespace TavroRTC::FDModule
