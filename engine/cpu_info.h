#pragma once

// What the processor offers, read once from CPUID, and which registers the system saves. The layers
// ask `runsAvxAndFma` on each forward pass to choose between the 256-bit and the 128-bit kernels
// and `runsAvx512` for a kernel's twin, the number conversion asks `runsF16c`, the image code
// `hasSsse3` and `runsAvx2`. This is a library of its own, which needs nothing else of the engine,
// so that image code can ask it, too.

#include <array>
#include <cstdint>
#include <string>

namespace TavroRTC::FDModule {

struct CpuInfo {
  int32_t maxLeaf = 0;
  uint32_t maxExtendedLeaf = 0;
  std::string vendor;   ///< 12 letters
  char brand[49] = {};  ///< up to 48 letters and a zero; nothing is allocated for it
  bool isIntel = false;
  bool isAmd = false;
  uint32_t leaf1Ecx = 0;
  uint32_t leaf1Edx = 0;
  uint32_t leaf7Ebx = 0;
  uint32_t leaf7Ecx = 0;
  uint32_t extendedEcx = 0;
  uint32_t extendedEdx = 0;
  uint64_t savedStates = 0;  ///< XCR0: what a task switch saves; 0 if the system doesn't say

  // What CPUID says.
  bool hasSsse3() const { return (leaf1Ecx & (1U << 9)) != 0; }
  bool hasAvx512F() const { return (leaf7Ebx & (1U << 16)) != 0; }
  bool hasAvx2() const { return (leaf7Ebx & (1U << 5)) != 0; }
  bool hasAvx() const { return (leaf1Ecx & (1U << 28)) != 0; }
  bool hasF16c() const { return (leaf1Ecx & (1U << 29)) != 0; }
  bool hasAvxAndFma() const { return (leaf1Ecx & avxAndFma) == avxAndFma; }

  // What a path may be chosen by. A wide register that isn't saved can't be used: the first
  // instruction would stop the host. That is so where a hypervisor hides them from the system.
  bool runsAvxAndFma() const { return hasAvxAndFma() && savesVectors(); }
  bool runsAvx2() const { return hasAvx() && hasAvx2() && savesVectors(); }
  /// The five sets of AVX-512 that the twins of 512 bits use. Processors that lower their clock for
  /// such code lack the last one.
  bool runsAvx512() const {
    return runsAvxAndFma() && (leaf7Ebx & avx512Ebx) == avx512Ebx &&
           (leaf7Ecx & avx512Vbmi2) != 0 && (savedStates & avx512States) == avx512States;
  }
  bool runsF16c() const { return hasF16c() && savesVectors(); }

  static constexpr uint32_t avxAndFma = (1U << 28) | (1U << 12);
  static constexpr uint32_t avx512Ebx =
      (1U << 16) | (1U << 17) | (1U << 30) | (1U << 31);  ///< F, DQ, BW, VL
  static constexpr uint32_t avx512Vbmi2 = 1U << 6;
  static constexpr uint64_t avx512States = 0xE0;     ///< masks, upper halves, registers 16 to 31
  static constexpr uint32_t systemSaves = 1U << 27;  ///< OSXSAVE: XCR0 can be read
  static constexpr uint64_t vectorStates = 6;        ///< bits 1 and 2: the 128 and the 256 bits

 private:
  bool savesVectors() const {
    return (leaf1Ecx & systemSaves) != 0 && (savedStates & vectorStates) == vectorStates;
  }
};

/// EAX, EBX, ECX, EDX of one CPUID leaf.
using CpuidRegisters = std::array<uint32_t, 4>;

/// Where a record's words come from, so that any processor can be imitated.
struct CpuWords {
  CpuidRegisters (*cpuid)(uint32_t leaf, uint32_t subleaf);
  uint64_t (*savedStates)();  ///< XCR0; asked for only if CPUID says that it is there
};
CpuInfo readCpuInfo(const CpuWords& words);

/// The record of this processor, made on first use; safe against concurrent first use.
const CpuInfo& cpuInfo();

/// Makes cpuInfo() answer with `info`, which must outlive its use, until called with null. Returns
/// what was set before. For tests and benches, which run the narrower paths on a wide machine.
const CpuInfo* overrideCpuInfo(const CpuInfo* info);

}  // namespace TavroRTC::FDModule
