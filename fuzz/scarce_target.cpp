#include "fuzz/scarce_target.h"

#include <cstddef>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for the two ends of a wrap
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size);

namespace tavro::fuzz {
namespace {

constexpr size_t limit = size_t{1} << 18;
bool isLimited = false;

}  // namespace

ScarceTarget::ScarceTarget() {
  isLimited = true;
}
ScarceTarget::~ScarceTarget() {
  isLimited = false;
}

}  // namespace tavro::fuzz

void* __wrap_malloc(size_t size) {
  return tavro::fuzz::isLimited && size > tavro::fuzz::limit ? nullptr : __real_malloc(size);
}
// NOLINTEND(bugprone-reserved-identifier)
