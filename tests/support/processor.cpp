#include "tests/support/processor.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tavro::test {
namespace {

using TavroRTC::FDModule::CpuInfo;
using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::overrideCpuInfo;

constexpr uint32_t f16c = 1U << 29;

struct Path {
  std::string_view name;
  uint32_t hidden;  // bits of leaf 1, ECX
};
constexpr Path paths[] = {{"everything", 0},
                          {"no-avx-fma", CpuInfo::avxAndFma},
                          {"no-f16c", f16c},
                          {"neither", CpuInfo::avxAndFma | f16c}};

CpuInfo forcedProcessor() {
  const char* wanted = std::getenv("TAVRO_TEST_PROCESSOR");
  CpuInfo info = cpuInfo();
  if (wanted == nullptr)
    return info;
  for (const Path& path : paths)
    if (path.name == wanted) {
      info.leaf1Ecx &= ~path.hidden;
      return info;
    }
  std::fprintf(stderr, "TAVRO_TEST_PROCESSOR: no processor is called '%s'\n", wanted);
  std::exit(2);
}

const Processor forced(forcedProcessor());

CpuInfo withAvxAndFma(bool avxAndFma) {
  CpuInfo info = cpuInfo();
  info.leaf1Ecx &= ~CpuInfo::avxAndFma;
  if (avxAndFma) {
    info.leaf1Ecx |= CpuInfo::avxAndFma | CpuInfo::systemSaves;
    info.savedStates |= CpuInfo::vectorStates;
  }
  return info;
}

}  // namespace

Processor::Processor(bool avxAndFma) : Processor(withAvxAndFma(avxAndFma)) {}
Processor::Processor(const CpuInfo& info) : info_(info), before_(overrideCpuInfo(&info_)) {}
Processor::~Processor() {
  overrideCpuInfo(before_);
}

std::vector<bool> availableProcessors() {
  return cpuInfo().runsAvxAndFma() ? std::vector<bool>{true, false} : std::vector<bool>{false};
}

}  // namespace tavro::test
