#include "engine/cpu_info.h"

#include <cpuid.h>

#include <algorithm>
#include <atomic>
#include <iterator>

namespace TavroRTC::FDModule {
namespace {

enum Register : uint8_t { eax, ebx, ecx, edx };

constexpr uint32_t firstExtendedLeaf = 0x80000000;
constexpr uint32_t brandLeaves[] = {0x80000002, 0x80000003, 0x80000004};

std::atomic<const CpuInfo*> overriddenInfo = nullptr;

CpuidRegisters processorCpuid(uint32_t leaf, uint32_t subleaf) {
  CpuidRegisters words{};
  __cpuid_count(leaf, subleaf, words[eax], words[ebx], words[ecx], words[edx]);
  return words;
}

// XGETBV, in the assembler's words: the intrinsic needs a compiler switch. Volatile, or the
// compiler could run it ahead of the test that the processor knows it.
uint64_t processorSavedStates() {
  uint32_t low = 0;
  uint32_t high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return uint64_t{high} << 32 | low;
}

std::string readVendor(const CpuidRegisters& words) {
  const uint32_t letters[] = {words[ebx], words[edx], words[ecx]};
  return {reinterpret_cast<const char*>(letters), sizeof(letters)};
}

void readBrand(const CpuWords& words, CpuInfo& info) {
  static_assert(sizeof(CpuInfo::brand) > std::size(brandLeaves) * sizeof(CpuidRegisters));
  char* letters = info.brand;
  for (const uint32_t leaf : brandLeaves) {
    const CpuidRegisters registers = words.cpuid(leaf, 0);
    letters = std::copy_n(reinterpret_cast<const char*>(&registers), sizeof(registers), letters);
  }
}

}  // namespace

CpuInfo readCpuInfo(const CpuWords& words) {
  CpuInfo info;
  const CpuidRegisters leaf0 = words.cpuid(0, 0);
  info.maxLeaf = static_cast<int32_t>(leaf0[eax]);
  info.vendor = readVendor(leaf0);
  info.isIntel = info.vendor == "GenuineIntel";
  info.isAmd = info.vendor == "AuthenticAMD";
  if (info.maxLeaf >= 1) {
    const CpuidRegisters leaf1 = words.cpuid(1, 0);
    info.leaf1Ecx = leaf1[ecx];
    info.leaf1Edx = leaf1[edx];
  }
  if ((info.leaf1Ecx & CpuInfo::systemSaves) != 0)
    info.savedStates = words.savedStates();
  if (info.maxLeaf >= 7) {
    const CpuidRegisters leaf7 = words.cpuid(7, 0);
    info.leaf7Ebx = leaf7[ebx];
    info.leaf7Ecx = leaf7[ecx];
  }
  info.maxExtendedLeaf = words.cpuid(firstExtendedLeaf, 0)[eax];
  if (info.maxExtendedLeaf >= firstExtendedLeaf + 1) {
    const CpuidRegisters extended = words.cpuid(firstExtendedLeaf + 1, 0);
    info.extendedEcx = extended[ecx];
    info.extendedEdx = extended[edx];
  }
  if (info.maxExtendedLeaf >= std::end(brandLeaves)[-1])
    readBrand(words, info);
  return info;
}

const CpuInfo& cpuInfo() {
  static const CpuInfo processor = readCpuInfo({processorCpuid, processorSavedStates});
  const CpuInfo* overridden = overriddenInfo.load(std::memory_order_acquire);
  return overridden != nullptr ? *overridden : processor;
}

const CpuInfo* overrideCpuInfo(const CpuInfo* info) {
  return overriddenInfo.exchange(info, std::memory_order_acq_rel);
}

}  // namespace TavroRTC::FDModule
