// The real module in the real host library: what it calls while it is being loaded, in which order
// its static objects are set up, what it does when the host refuses it, what it leaves behind, and
// what its file shows to the outside. An observer in the host library sees every call and can make
// it fail.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/scarce_memory.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::createInstanceCommand;
using TavroRTC::FDModule::destroyInstanceCommand;
using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::ModuleCallback;
using TavroRTC::FDModule::ModuleCommand;
using test::CapturedStdout;
using Kind = BoundaryCall::Kind;

const std::string modulePath = TAVRO_MODULE_PATH;
const std::string moduleFile = modulePath.substr(modulePath.rfind('/') + 1);
const std::string name = TavroRTC::FDModule::moduleName;
constexpr int modelLayerCount = 94;

bool isInModule(const void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && std::string(info.dli_fname).ends_with(moduleFile);
}

/// Whether the module's file is in memory.
bool isMapped() {
  void* handle = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr)
    dlclose(handle);
  return handle != nullptr;
}

int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

/// Prepares an instance and counts the layers that nobody was registered for.
int missingLayers(FDWrapper* instance) {
  CapturedStdout captured;
  const bool ready = instance->init();
  const std::string text = captured.stop();
  EXPECT_TRUE(ready);
  return occurrences(text, "Implementation not exists: [2,");
}

/// Records the calls of one test; `verdict` decides on each.
class ModuleLoading : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(isMapped());
    ASSERT_TRUE(setBoundaryObserver([this](const BoundaryCall& call) {
                  calls.push_back(call.kind);
                  if (call.kind == Kind::print)
                    printed += call.text;
                  else if (call.name != name)
                    ADD_FAILURE() << "called itself " << call.name;
                  if (call.kind == Kind::watch)
                    codeAddress = call.codeAddress;
                  if (call.kind == Kind::add)
                    callback = call.callback;
                  return verdict(call);
                }).ok());
  }
  void TearDown() override {
    if (findModule(name)) {
      EXPECT_TRUE(unloadModule(name).ok());
    }
    EXPECT_TRUE(setBoundaryObserver({}).ok());
    EXPECT_FALSE(isMapped());
  }

  std::function<int32_t(const BoundaryCall&)> verdict = [](const BoundaryCall&) { return 0; };
  std::vector<Kind> calls;
  std::string printed;
  const void* codeAddress = nullptr;
  ModuleCallback callback = nullptr;
};

TEST_F(ModuleLoading, RegistersBeforeItsLayersAndUnregistersAtUnload) {
  int missingDuringLoad = -1;
  verdict = [&](const BoundaryCall& call) {
    if (call.kind == Kind::watch) {
      EXPECT_TRUE(isInModule(call.codeAddress));
    }
    if (call.kind == Kind::add) {
      // The callback works already, and the layers are still to be registered.
      EXPECT_TRUE(isInModule(reinterpret_cast<const void*>(call.callback)));
      FDWrapper* early = nullptr;
      ModuleCommand create{.code = createInstanceCommand, .object = static_cast<void*>(&early)};
      EXPECT_EQ(call.callback(nullptr, &create), 0);
      missingDuringLoad = missingLayers(early);
      FaceRects faces;
      const auto frame = I420Frame::allocate(64, 48);
      EXPECT_FALSE(early->execute(&*frame, faces.sequence()));
      ModuleCommand destroy{.code = destroyInstanceCommand, .object = early};
      EXPECT_EQ(call.callback(nullptr, &destroy), 0);
    }
    return 0;
  };
  std::string registered;
  ASSERT_EQ(loadModule(modulePath, &registered).error, "");
  EXPECT_EQ(registered, name);
  EXPECT_TRUE(findModule(name)->watched);
  EXPECT_EQ(calls, (std::vector{Kind::watch, Kind::add}));
  EXPECT_EQ(missingDuringLoad, modelLayerCount);

  FDWrapper* instance = nullptr;
  ASSERT_TRUE(createInstance(name, &instance).ok());
  EXPECT_EQ(missingLayers(instance), 0);
  FaceRects faces;
  const auto frame = I420Frame::allocate(64, 48);
  EXPECT_TRUE(instance->execute(&*frame, faces.sequence()));
  EXPECT_TRUE(destroyInstance(instance).ok());

  EXPECT_TRUE(unloadModule(name).ok());
  EXPECT_EQ(calls, (std::vector{Kind::watch, Kind::add, Kind::remove}));
  EXPECT_EQ(printed, "");
}

/// The module's initialisers in the order in which the loader runs them.
std::vector<void (*)(int, char**, char**)> initialisers(void* handle) {
  link_map* map = nullptr;
  dlinfo(handle, RTLD_DI_LINKMAP, static_cast<void*>(&map));
  ElfW(Addr) start = 0;
  size_t bytes = 0;
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_INIT_ARRAY)
      start = map->l_addr + entry->d_un.d_ptr;
    if (entry->d_tag == DT_INIT_ARRAYSZ)
      bytes = entry->d_un.d_val;
  }
  std::vector<void (*)(int, char**, char**)> functions(bytes / sizeof(void*));
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader states addresses as numbers
  std::memcpy(functions.data(), reinterpret_cast<const void*>(start), bytes);
  return functions;
}

TEST_F(ModuleLoading, InitialisersStandInOrder) {
  ASSERT_EQ(loadModule(modulePath).error, "");
  void* handle = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_NOLOAD);
  const auto functions = initialisers(handle);
  ASSERT_GE(functions.size(), 3U);

  // The first call to the host comes from the first initialiser, or from the next one where the
  // compiler's runtime has one of its own. (Sanitizers add more.)
  const auto first = std::ranges::find(functions, codeAddress, [](auto function) {
    return reinterpret_cast<const void*>(function);
  });
  ASSERT_NE(first, functions.end());
#if !defined(TAVRO_SANITIZED)
  EXPECT_LE(first - functions.begin(), 1);
#endif

  // The last one run once more meets its own ten registrations.
  CapturedStdout captured;
  functions.back()(0, nullptr, nullptr);
  std::string expected;
  for (const char* type : {"Activation", "Relu", "Concat", "Conv", "DepthwiseConv", "Gemm",
                           "Softmax", "AveragePool", "Reshape", "Add"})
    expected += std::string("Layer type ") + type + " already registered.\n";
  EXPECT_EQ(captured.stop(), expected);
  dlclose(handle);
}

TEST_F(ModuleLoading, WorksWithoutBeingWatched) {
  verdict = [](const BoundaryCall& call) { return call.kind == Kind::watch ? -1 : 0; };
  ASSERT_EQ(loadModule(modulePath).error, "");
  EXPECT_EQ(calls, (std::vector{Kind::watch, Kind::print, Kind::add}));
  EXPECT_EQ(printed, "SO register failed, so could not monitor it.");
  EXPECT_FALSE(findModule(name)->watched);
  FDWrapper* instance = nullptr;
  ASSERT_TRUE(createInstance(name, &instance).ok());
  EXPECT_EQ(missingLayers(instance), 0);
  EXPECT_TRUE(destroyInstance(instance).ok());
}

TEST_F(ModuleLoading, RefusedRegistrationEndsNormalWork) {
  verdict = [](const BoundaryCall& call) { return call.kind == Kind::add ? -1 : 0; };
  EXPECT_NE(loadModule(modulePath).error, "");
  EXPECT_FALSE(findModule(name).has_value());

  // A host that keeps the file loaded all the same gets nothing from it.
  void* handle = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr);
  FDWrapper* instance = nullptr;
  for (const int32_t code : {createInstanceCommand, destroyInstanceCommand}) {
    ModuleCommand command{.code = code, .object = static_cast<void*>(&instance)};
    EXPECT_EQ(callback(nullptr, &command), -1);
  }
  EXPECT_EQ(instance, nullptr);
  dlclose(handle);
  EXPECT_FALSE(isMapped());
  EXPECT_EQ(std::ranges::count(calls, Kind::remove), 0);
  EXPECT_EQ(printed, "");
}

// Whatever of the host's and the module's own the heap has no room for: a status, never a crash,
// and the next attempt is as good as the first.
TEST(ModuleMemory, LoadingMakingAndUnloadingMayLackIt) {
#if defined(_WIN32)
  GTEST_SKIP() << "every library has an operator new of its own";
#endif
  using test::ScarceMemory;
  FDWrapper* instance = nullptr;
  const auto liveOnce = [&] {
    return loadModule(modulePath).ok() && createInstance(name, &instance).ok() &&
           destroyInstance(instance).ok() && unloadModule(name).ok();
  };
  ASSERT_TRUE(liveOnce());  // what the host keeps for good
  for (const auto failing : {ScarceMemory::Failing::once, ScarceMemory::Failing::forGood}) {
    int64_t allowed = 0;
    for (bool failed = true; failed; ++allowed) {
      SCOPED_TRACE(allowed);
      const int64_t before = test::heapTraffic().kept();
      bool works = false;
      {
        const ScarceMemory scarce(allowed, failing);
        works = liveOnce();
        failed = ScarceMemory::hasFailed();
      }
      EXPECT_TRUE(works || failed);
      // An instance that couldn't be destroyed is still alive.
      for (const ModuleInfo& left : modules()) {
        if (left.liveInstances == 1) {
          EXPECT_EQ(destroyInstance(instance).error, "");
        }
        EXPECT_EQ(unloadModule(left.name).error, "");
      }
      EXPECT_FALSE(isMapped());
      EXPECT_EQ(test::heapTraffic().kept(), before);
      ASSERT_TRUE(liveOnce());
    }
    EXPECT_GT(allowed, 10);
  }
}

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
