#include "impl_x86/twins.h"

#include <atomic>

#include "engine/cpu_info.h"

namespace TavroRTC::FDModule::x86 {
namespace {

std::atomic<int32_t> mostBits = 512;

bool mayRun(const Twin& twin) {
  return twin.bits <= mostBits.load(std::memory_order_relaxed) && twin.isAvailable();
}

const Twin* widestTwin(const ConvKernel& kernel) {
  for (const Twin& twin : twins())
    if (twin.kernel == &kernel && mayRun(twin))
      return &twin;
  return nullptr;
}

}  // namespace

#ifndef TAVRO_TWINS
std::span<const Twin> twins() {
  return {};
}
#endif

ConvRun* widestRun(const ConvKernel& kernel) {
  const Twin* twin = widestTwin(kernel);
  return twin != nullptr ? twin->run : kernel.run;
}

std::string nameOfRun(const ConvKernel* kernel) {
  if (kernel == nullptr)
    return {};
  const Twin* twin = widestTwin(*kernel);
  return kernel->name +
         (twin != nullptr ? " on " + std::to_string(twin->bits) + " bits" : std::string());
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
