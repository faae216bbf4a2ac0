#include "impl_x86/twins.h"

#include <atomic>

#include "engine/cpu_info.h"

namespace TavroRTC::FDModule::x86 {
namespace {

std::atomic<int32_t> mostBits = 512;

bool mayRun(const Twin& twin) {
  return twin.bits <= mostBits.load(std::memory_order_relaxed) && twin.isAvailable();
}

}  // namespace

#ifndef TAVRO_TWINS
std::span<const Twin> twins() {
  return {};
}
#endif

ConvRun* widestRun(const ConvKernel& kernel) {
  for (const Twin& twin : twins())
    if (twin.kernel == &kernel && mayRun(twin))
      return twin.run;
  return kernel.run;
}

int32_t registerBits() {
  int32_t bits = cpuInfo().runsAvxAndFma() ? 256 : 128;
  for (const Twin& twin : twins())
    if (twin.bits > bits && mayRun(twin))
      bits = twin.bits;
  return bits;
}

void limitTwins(int32_t bits) {
  mostBits.store(bits, std::memory_order_relaxed);
}

}  // namespace TavroRTC::FDModule::x86
