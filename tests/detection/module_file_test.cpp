// What the module's file shows to the outside.

#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace tavro::host {
namespace {

const std::string modulePath = TAVRO_MODULE_PATH;

/// The parts of the module's file that tell what it offers and needs.
struct ElfFile {
  explicit ElfFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(stream), {});
    const auto header = read<ElfW(Ehdr)>(0);
    for (size_t i = 0; i < header.e_phnum; ++i) {
      const auto segment = read<ElfW(Phdr)>(header.e_phoff + i * sizeof(ElfW(Phdr)));
      if (segment.p_type == PT_GNU_STACK)
        executableStack = (segment.p_flags & PF_X) != 0;
    }
    for (size_t i = 0; i < header.e_shnum; ++i) {
      const auto section = read<ElfW(Shdr)>(header.e_shoff + i * sizeof(ElfW(Shdr)));
      if (section.sh_type != SHT_DYNSYM && section.sh_type != SHT_DYNAMIC)
        continue;
      const auto strings =
          read<ElfW(Shdr)>(header.e_shoff + section.sh_link * sizeof(ElfW(Shdr))).sh_offset;
      for (size_t at = 0; at < section.sh_size; at += section.sh_entsize) {
        if (section.sh_type == SHT_DYNSYM) {
          const auto symbol = read<ElfW(Sym)>(section.sh_offset + at);
          if (symbol.st_shndx != SHN_UNDEF)
            exports.emplace_back(&bytes[strings + symbol.st_name]);
        } else if (const auto entry = read<ElfW(Dyn)>(section.sh_offset + at);
                   entry.d_tag == DT_NEEDED) {
          needed.emplace(&bytes[strings + entry.d_un.d_val]);
        }
      }
    }
  }

  template <typename T>
  T read(size_t offset) const {
    T value;
    std::memcpy(&value, &bytes.at(offset + sizeof(T) - 1) - sizeof(T) + 1, sizeof(T));
    return value;
  }

  std::vector<char> bytes;
  std::vector<std::string> exports;
  std::set<std::string> needed;
  bool executableStack = true;
};

TEST(ModuleFile, ExportsNothingAndNeedsOnlyTheStandardLibrary) {
  const ElfFile file(modulePath);
  EXPECT_EQ(file.exports, std::vector<std::string>());
  EXPECT_FALSE(file.executableStack);
  const std::vector<std::string> expected = {
    "libtavro-core.so",
    "libstdc++.so",
    "libm.so",
    "libgcc_s.so",
    "libc.so",
    "ld-linux-x86-64.so",
#if defined(TAVRO_SANITIZED)
    "libasan.so",
    "libubsan.so"
#endif
  };
  for (const std::string& library : file.needed)
    EXPECT_TRUE(std::ranges::any_of(expected, [&](const std::string& stem) {
      return library.starts_with(stem);
    })) << library;
  EXPECT_TRUE(file.needed.contains("libtavro-core.so"));
}

}  // namespace
}  // namespace tavro::host
