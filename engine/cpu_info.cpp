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

std::string readVendor(const CpuidRegisters& words) {
  const uint32_t letters[] = {words[ebx], words[edx], words[ecx]};
  return {reinterpret_cast<const char*>(letters), sizeof(letters)};
}

std::string readBrand(CpuidFunction cpuid) {
  CpuidRegisters letters[std::size(brandLeaves)];
  for (size_t i = 0; i < std::size(brandLeaves); ++i)
    letters[i] = cpuid(brandLeaves[i], 0);
  const auto* text = reinterpret_cast<const char*>(letters);
  return {text, std::find(text, text + sizeof(letters), '\0')};
}

}  // namespace

CpuInfo readCpuInfo(CpuidFunction cpuid) {
  CpuInfo info;
  const CpuidRegisters leaf0 = cpuid(0, 0);
  info.maxLeaf = static_cast<int32_t>(leaf0[eax]);
  info.vendor = readVendor(leaf0);
  info.isIntel = info.vendor == "GenuineIntel";
  info.isAmd = info.vendor == "AuthenticAMD";
  if (info.maxLeaf >= 1) {
    const CpuidRegisters words = cpuid(1, 0);
    info.leaf1Ecx = words[ecx];
    info.leaf1Edx = words[edx];
  }
  if (info.maxLeaf >= 7) {
    const CpuidRegisters words = cpuid(7, 0);
    info.leaf7Ebx = words[ebx];
    info.leaf7Ecx = words[ecx];
  }
  info.maxExtendedLeaf = cpuid(firstExtendedLeaf, 0)[eax];
  if (info.maxExtendedLeaf >= firstExtendedLeaf + 1) {
    const CpuidRegisters words = cpuid(firstExtendedLeaf + 1, 0);
    info.extendedEcx = words[ecx];
    info.extendedEdx = words[edx];
  }
  if (info.maxExtendedLeaf >= std::end(brandLeaves)[-1])
    info.brand = readBrand(cpuid);
  return info;
}

const CpuInfo& cpuInfo() {
  static const CpuInfo processor = readCpuInfo(processorCpuid);
  const CpuInfo* overridden = overriddenInfo.load(std::memory_order_acquire);
  return overridden != nullptr ? *overridden : processor;
}

const CpuInfo* overrideCpuInfo(const CpuInfo* info) {
  return overriddenInfo.exchange(info, std::memory_order_acq_rel);
}

}  // namespace TavroRTC::FDModule
