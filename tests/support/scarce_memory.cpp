#include "tests/support/scarce_memory.h"

#include <cstdlib>
#include <new>

namespace tavro::test {
namespace {

constexpr int64_t unlimited = -1;
thread_local int64_t allocationsLeft = unlimited;

void* allocate(size_t size) {
  if (allocationsLeft == 0)
    return nullptr;
  if (allocationsLeft > 0)
    --allocationsLeft;
  return std::malloc(size != 0 ? size : 1);
}

}  // namespace

ScarceMemory::ScarceMemory(int64_t allowed) {
  allocationsLeft = allowed;
}
ScarceMemory::~ScarceMemory() {
  allocationsLeft = unlimited;
}

}  // namespace tavro::test

void* operator new(size_t size) {
  if (void* block = tavro::test::allocate(size))
    return block;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return tavro::test::allocate(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
