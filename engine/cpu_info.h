#pragma once

// What the processor offers, read once from CPUID. The layers ask `hasAvxAndFma` on each forward
// pass to choose between the 256-bit and the 128-bit kernels; the number conversion asks `hasF16c`.
// Whether the operating system saves the wide registers is not asked: every system that runs this
// module does.

#include <array>
#include <cstdint>
#include <string>

namespace TavroRTC::FDModule {

struct CpuInfo {
  int32_t maxLeaf = 0;
  uint32_t maxExtendedLeaf = 0;
  std::string vendor;
  std::string brand;
  bool isIntel = false;
  bool isAmd = false;
  uint32_t leaf1Ecx = 0;
  uint32_t leaf1Edx = 0;
  uint32_t leaf7Ebx = 0;
  uint32_t leaf7Ecx = 0;
  uint32_t extendedEcx = 0;
  uint32_t extendedEdx = 0;

  bool hasSsse3() const { return (leaf1Ecx & (1U << 9)) != 0; }
  bool hasAvx512F() const { return (leaf7Ebx & (1U << 16)) != 0; }
  bool hasAvx2() const { return (leaf7Ebx & (1U << 5)) != 0; }
  bool hasAvx() const { return (leaf1Ecx & (1U << 28)) != 0; }
  bool hasF16c() const { return (leaf1Ecx & (1U << 29)) != 0; }
  bool hasAvxAndFma() const { return (leaf1Ecx & avxAndFma) == avxAndFma; }

  static constexpr uint32_t avxAndFma = (1U << 28) | (1U << 12);
};

/// EAX, EBX, ECX, EDX of one CPUID leaf.
using CpuidRegisters = std::array<uint32_t, 4>;
using CpuidFunction = CpuidRegisters (*)(uint32_t leaf, uint32_t subleaf);

/// Fills a record from the given source of CPUID words, so that any processor can be imitated.
CpuInfo readCpuInfo(CpuidFunction cpuid);

/// The record of this processor, made on first use; safe against concurrent first use.
const CpuInfo& cpuInfo();

/// Makes cpuInfo() answer with `info`, which must outlive its use, until called with null. Gives
/// what was set before. For tests and benches, which run the narrower paths on a wide machine.
const CpuInfo* overrideCpuInfo(const CpuInfo* info);

}  // namespace TavroRTC::FDModule
