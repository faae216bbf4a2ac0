#include "tests/support/scarce_memory.h"

#include <cstdlib>
#include <new>
#include <thread>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for the two ends of a wrap
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size);

namespace tavro::test {
namespace {

struct Budget {
  bool limited = false;
  std::thread::id owner;
  bool failsForGood = false;
  bool failed = false;
  int64_t left = 0;
};
Budget budget;  // not thread_local, which may itself take memory from the heap

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

}  // namespace

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
  return tavro::test::mayAllocate() ? __real_malloc(size) : nullptr;
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size) {
  if (void* block = std::malloc(size != 0 ? size : 1))
    return block;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size != 0 ? size : 1);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
