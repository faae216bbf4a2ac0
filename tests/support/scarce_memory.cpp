#include "tests/support/scarce_memory.h"

#include <cstdlib>
#include <new>
#include <thread>

#if defined(_WIN32)
#include <malloc.h>
#endif

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for the two ends of a wrap
extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void __real_free(void* block);
// Not hidden: under the sanitizers the linker takes what a shared library asks for as wrapped, too.
#pragma GCC visibility push(default)
extern "C" void* __wrap_malloc(size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size);
extern "C" void* __wrap_realloc(void* block, size_t size);
extern "C" void __wrap_free(void* block);
#pragma GCC visibility pop

namespace tavro::test {
namespace {

struct Budget {
  bool limited = false;
  std::thread::id owner;
  bool failsForGood = false;
  bool failed = false;
  int64_t left = 0;
};
// Not of each thread: a thread's own variable may itself come from the heap.
Budget budget;
HeapTraffic traffic;

bool mayAllocate() {
  if (!budget.limited || budget.owner != std::this_thread::get_id() ||
      (budget.failed && !budget.failsForGood))
    return true;
  if (budget.left > 0) {
    --budget.left;
    return true;
  }
  budget.failed = true;
  return false;
}

void* counted(void* block) {
  traffic.taken += block != nullptr ? 1 : 0;
  return block;
}

}  // namespace

HeapTraffic heapTraffic() {
  return traffic;
}

ScarceMemory::ScarceMemory(int64_t allowed, Failing failing) {
  budget = {.limited = true,
            .owner = std::this_thread::get_id(),
            .failsForGood = failing == Failing::forGood,
            .left = allowed};
}
ScarceMemory::~ScarceMemory() {
  budget = {};
}
bool ScarceMemory::hasFailed() {
  return budget.failed;
}

}  // namespace tavro::test

void* __wrap_malloc(size_t size) {
  using namespace tavro::test;
  return mayAllocate() ? counted(__real_malloc(size)) : nullptr;
}
void* __wrap_calloc(size_t count, size_t size) {
  using namespace tavro::test;
  return mayAllocate() ? counted(__real_calloc(count, size)) : nullptr;
}
void* __wrap_realloc(void* block, size_t size) {
  using namespace tavro::test;
  if (!mayAllocate())
    return nullptr;
  return block == nullptr ? counted(__real_realloc(block, size)) : __real_realloc(block, size);
}
void __wrap_free(void* block) {
  tavro::test::traffic.returned += block != nullptr ? 1 : 0;
  __real_free(block);
}
// NOLINTEND(bugprone-reserved-identifier)

// The forms for arrays call these. The code under test asks for no boundary in the form that
// throws.
void* operator new(size_t size) {
  if (void* block = std::malloc(size != 0 ? size : 1))
    return block;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size != 0 ? size : 1);
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  using namespace tavro::test;
  if (!mayAllocate())
    return nullptr;
  const auto unit = static_cast<size_t>(alignment);
#if defined(_WIN32)
  return counted(_aligned_malloc(size, unit));
#else
  return counted(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
#endif
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
#if defined(_WIN32)
  tavro::test::traffic.returned += block != nullptr ? 1 : 0;
  _aligned_free(block);
#else
  std::free(block);
#endif
}
void operator delete(void* block, size_t, std::align_val_t alignment) noexcept {
  operator delete(block, alignment);
}
