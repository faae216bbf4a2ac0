// What the files of the module and of the other libraries show to the outside, and how those that
// every host loads are hardened.

#include <cxxabi.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavro::host {
namespace {

/// The parts of a library's file that tell what it offers and needs.
struct ElfFile {
  explicit ElfFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(stream), {});
    const auto header = read<ElfW(Ehdr)>(0);
    for (size_t i = 0; i < header.e_phnum; ++i) {
      const auto segment = read<ElfW(Phdr)>(header.e_phoff + i * sizeof(ElfW(Phdr)));
      if (segment.p_type == PT_GNU_STACK)
        executableStack = (segment.p_flags & PF_X) != 0;
      if (segment.p_type == PT_LOAD)
        writableCode |= (segment.p_flags & (PF_X | PF_W)) == (PF_X | PF_W);
      readOnlyAfterRelocation |= segment.p_type == PT_GNU_RELRO;
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
          (symbol.st_shndx != SHN_UNDEF ? exports : imports)
              .emplace(readable(&bytes[strings + symbol.st_name]));
        } else {
          const auto entry = read<ElfW(Dyn)>(section.sh_offset + at);
          if (entry.d_tag == DT_NEEDED)
            needed.emplace(&bytes[strings + entry.d_un.d_val]);
          bindsNow |= entry.d_tag == DT_BIND_NOW ||
                      (entry.d_tag == DT_FLAGS && (entry.d_un.d_val & DF_BIND_NOW) != 0);
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

  /// A C++ function's name without its parameters; any other symbol as it is.
  static std::string readable(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    const std::string text = status == 0 ? name.get() : symbol;
    return text.substr(0, text.find('('));
  }

  std::vector<char> bytes;
  std::set<std::string> exports;
  std::set<std::string> imports;
  std::set<std::string> needed;
  bool executableStack = true;
  bool writableCode = false;
  bool readOnlyAfterRelocation = false;
  bool bindsNow = false;
};

TEST(ModuleFile, ExportsNothingAndNeedsOnlyTheStandardLibrary) {
  const ElfFile file(TAVRO_MODULE_PATH);
  EXPECT_EQ(file.exports, std::set<std::string>());
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
  EXPECT_TRUE(file.needed.contains("libtavro-core.so.1"));
}

TEST(CoreFile, ExportsItsTwoFacesOnly) {
  const std::set<std::string> expected = {"qosl_module_register",
                                          "qosl_module_unregister",
                                          "qosl_printf",
                                          "qosl_so_register",
                                          "tavro_host_create",
                                          "tavro_host_destroy",
                                          "tavro_host_error",
                                          "tavro_host_load",
                                          "tavro_host_unload",
                                          "tavro::host::createInstance",
                                          "tavro::host::destroyInstance",
                                          "tavro::host::findModule",
                                          "tavro::host::loadModule",
                                          "tavro::host::modules",
                                          "tavro::host::setBoundaryObserver",
                                          "tavro::host::unloadModule"};
  EXPECT_EQ(ElfFile(TAVRO_CORE_PATH).exports, expected);
}

TEST(OtherFiles, ExportWhatTheirLoadersLookFor) {
  const std::pair<const char*, std::set<std::string>> expected[] = {
    {TAVRO_TRAINING_PATH,
     {"tavroConvertPicture", "tavroCreateDetector", "tavroDetect", "tavroPrepareInput",
      "tavroReleaseDetector", "tavroRunNetwork", "tavroWeights"}},
#if defined(GSTTAVROFACEDETECT_PATH)
    {GSTTAVROFACEDETECT_PATH,
     {"gst_plugin_tavrofacedetect_get_desc", "gst_plugin_tavrofacedetect_register"}},
#endif
#if defined(TAVROFD_PYTHON_PATH)
    {TAVROFD_PYTHON_PATH, {"PyInit__native"}},
#endif
  };
  for (const auto& [path, exports] : expected)
    EXPECT_EQ(ElfFile(path).exports, exports) << path;
}

TEST(LibraryFiles, AreHardened) {
  for (const char* path : {TAVRO_MODULE_PATH, TAVRO_CORE_PATH}) {
    SCOPED_TRACE(path);
    const ElfFile file(path);
    EXPECT_FALSE(file.executableStack);
    EXPECT_FALSE(file.writableCode);
    EXPECT_TRUE(file.readOnlyAfterRelocation);
    EXPECT_TRUE(file.bindsNow);
    EXPECT_TRUE(file.imports.contains("__stack_chk_fail"));
#if defined(__OPTIMIZE__) && !defined(TAVRO_SANITIZED)
    EXPECT_TRUE(std::ranges::any_of(file.imports, [](const std::string& name) {
      return name.ends_with("_chk") && name.starts_with("__");
    })) << "nothing is fortified";
#endif
  }
}

}  // namespace
}  // namespace tavro::host
