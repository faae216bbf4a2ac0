#include "engine/cpu_info.h"

#include <gtest/gtest.h>

#include <cstring>

namespace TavroRTC::FDModule {
namespace {

constexpr uint32_t junk = 0xDEADBEEF;

struct FakeProcessor {
  uint32_t maxLeaf;
  uint32_t maxExtendedLeaf;
  const char* vendor;  // 12 characters
  char brand[49];
  bool saves = false;
};

const FakeProcessor* fake = nullptr;

// A leaf that the processor doesn't have, or another subleaf than 0, answers with junk, as real
// ones do.
CpuidRegisters fakeCpuid(uint32_t leaf, uint32_t subleaf) {
  const uint32_t last = leaf > 0x80000000 ? fake->maxExtendedLeaf : fake->maxLeaf;
  if (subleaf != 0 || (leaf != 0x80000000 && leaf > last))
    return {junk, junk, junk, junk};
  CpuidRegisters words = {leaf + 0x100, leaf + 0x200, leaf + 0x300, leaf + 0x400};
  if (leaf == 0) {
    words[0] = fake->maxLeaf;
    std::memcpy(&words[1], fake->vendor, 4);
    std::memcpy(&words[3], fake->vendor + 4, 4);
    std::memcpy(&words[2], fake->vendor + 8, 4);
  } else if (leaf == 0x80000000) {
    words[0] = fake->maxExtendedLeaf;
  } else if (leaf >= 0x80000002 && leaf <= 0x80000004) {
    std::memcpy(words.data(), fake->brand + (leaf - size_t{0x80000002}) * 16, 16);
  } else if (leaf == 1 && fake->saves) {
    words[2] |= CpuInfo::systemSaves;
  }
  return words;
}

uint64_t fakeSavedStates() {
  return 0x1234567890;
}

TEST(CpuInfo, ReadsOnlyTheLeavesThatExist) {
  const FakeProcessor processors[] = {
      {0, 0x80000000, "GenuineIntel", "unread"},
      {1, 0x80000001, "AuthenticAMD", "unread"},
      {6, 0x80000003, "SomebodyElse", "unread"},
      {7, 0x80000004, "GenuineIntel", "A short brand"},
      {22, 0x80000008, "AuthenticAMD", "Forty-eight characters fill all three leaves ok.", true},
      {0xFFFFFFFF, 0, "genuineintel", "unread"}};
  for (const FakeProcessor& processor : processors) {
    SCOPED_TRACE(processor.maxLeaf);
    fake = &processor;
    const CpuInfo info = readCpuInfo({fakeCpuid, fakeSavedStates});
    const auto maxLeaf = static_cast<int32_t>(processor.maxLeaf);
    const uint32_t maxExtended = processor.maxExtendedLeaf;
    EXPECT_TRUE(info.maxLeaf == maxLeaf && info.maxExtendedLeaf == maxExtended);
    EXPECT_EQ(info.vendor, processor.vendor);
    EXPECT_EQ(info.isIntel, info.vendor == "GenuineIntel");
    EXPECT_EQ(info.isAmd, info.vendor == "AuthenticAMD");
    EXPECT_EQ(info.savedStates, processor.saves ? fakeSavedStates() : 0U);
    const auto expectWord = [](uint32_t word, bool isThere, uint32_t expected) {
      EXPECT_EQ(word & ~CpuInfo::systemSaves, isThere ? expected : 0U);
    };
    expectWord(info.leaf1Ecx, maxLeaf >= 1, 0x301);
    expectWord(info.leaf1Edx, maxLeaf >= 1, 0x401);
    expectWord(info.leaf7Ebx, maxLeaf >= 7, 0x207);
    expectWord(info.leaf7Ecx, maxLeaf >= 7, 0x307);
    expectWord(info.extendedEcx, maxExtended >= 0x80000001, 0x80000301);
    expectWord(info.extendedEdx, maxExtended >= 0x80000001, 0x80000401);
    EXPECT_EQ(std::string(info.brand), maxExtended >= 0x80000004 ? processor.brand : "");
  }
}

constexpr uint32_t fma = 1U << 12;
constexpr uint32_t avx = 1U << 28;
constexpr uint32_t f16c = 1U << 29;

// A path needs the processor's instructions and a system that saves their registers.
TEST(CpuInfo, PathsNeedTheirInstructionsAndSavedRegisters) {
  const struct {
    uint32_t leaf1Ecx;
    uint64_t savedStates;
    bool runsAvxAndFma;
    bool runsF16c;
  } cases[] = {
      {avx | fma | f16c | CpuInfo::systemSaves, 7, true, true},
      {avx | fma | CpuInfo::systemSaves, 6, true, false},
      {avx | f16c | CpuInfo::systemSaves, 6, false, true},
      {fma | CpuInfo::systemSaves, 6, false, false},
      {avx | fma | f16c, 7, false, false},
      {avx | fma | f16c | CpuInfo::systemSaves, 3, false, false},
      {avx | fma | f16c | CpuInfo::systemSaves, 5, false, false},
      {0, 0, false, false},
  };
  for (const auto& c : cases) {
    CpuInfo info;
    info.leaf1Ecx = c.leaf1Ecx;
    info.savedStates = c.savedStates;
    EXPECT_EQ(info.runsAvxAndFma(), c.runsAvxAndFma) << &c - cases;
    EXPECT_EQ(info.runsF16c(), c.runsF16c) << &c - cases;
    // What is reported is what CPUID says.
    EXPECT_EQ(info.hasAvx(), (c.leaf1Ecx & avx) != 0);
    EXPECT_EQ(info.hasF16c(), (c.leaf1Ecx & f16c) != 0);
    EXPECT_FALSE(info.hasAvx2() || info.hasAvx512F() || info.hasSsse3() || info.runsAvx2());
    info.leaf7Ebx = 1U << 5;
    EXPECT_EQ(info.runsAvx2(), c.runsAvxAndFma || c.runsF16c) << &c - cases;
  }
}

// Twins of 512 bits need every one of their sets and saved states.
TEST(CpuInfo, RunsAvx512OnlyWithAllOfIt) {
  const auto info = [](uint32_t missingEbx, uint32_t missingEcx, uint64_t missingStates) {
    CpuInfo all;
    all.leaf1Ecx = avx | fma | CpuInfo::systemSaves;
    all.leaf7Ebx = 0xC0030000 & ~missingEbx;
    all.leaf7Ecx = 0x40 & ~missingEcx;
    all.savedStates = 0xE7 & ~missingStates;
    return all;
  };
  EXPECT_TRUE(info(0, 0, 0).runsAvx512());
  for (const int bit : {16, 17, 30, 31})
    EXPECT_FALSE(info(1U << bit, 0, 0).runsAvx512()) << bit;
  EXPECT_FALSE(info(0, 0x40, 0).runsAvx512());
  for (const int bit : {1, 2, 5, 6, 7})
    EXPECT_FALSE(info(0, 0, 1U << bit).runsAvx512()) << bit;
}

TEST(CpuInfo, AgreesWithTheCompilersRuntime) {
  __builtin_cpu_init();
  const CpuInfo* forced = overrideCpuInfo(nullptr);
  const CpuInfo& info = cpuInfo();
  overrideCpuInfo(forced);
  // The runtime asks the operating system too.
  EXPECT_EQ(info.runsAvxAndFma(),
            __builtin_cpu_supports("avx") != 0 && __builtin_cpu_supports("fma") != 0);
  EXPECT_EQ(info.runsAvx512(), __builtin_cpu_supports("avx512f") != 0 &&
                                   __builtin_cpu_supports("avx512bw") != 0 &&
                                   __builtin_cpu_supports("avx512dq") != 0 &&
                                   __builtin_cpu_supports("avx512vl") != 0 &&
                                   __builtin_cpu_supports("avx512vbmi2") != 0);
  EXPECT_EQ(info.hasSsse3(), __builtin_cpu_supports("ssse3") != 0);
  EXPECT_TRUE(info.hasAvx2() || !__builtin_cpu_supports("avx2"));
  EXPECT_TRUE(info.hasAvx512F() || !__builtin_cpu_supports("avx512f"));
  EXPECT_EQ(info.isIntel, __builtin_cpu_is("intel") != 0);
  EXPECT_EQ(info.isAmd, __builtin_cpu_is("amd") != 0);
}

}  // namespace
}  // namespace TavroRTC::FDModule
