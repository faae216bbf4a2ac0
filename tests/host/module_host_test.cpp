// The host's core library against modules that behave and modules that don't.

#include "host/core/module_host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/host_api.h"
#include "host/core/i420_frame.h"
#include "host/core/shared_library.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FDWrapper;
using Kind = BoundaryCall::Kind;

class ModuleHostTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(setBoundaryObserver({}).ok());
    for (const ModuleInfo& module : modules())
      EXPECT_EQ(unloadModule(module.name).error, "");
    EXPECT_TRUE(modules().empty());
  }

  static FDWrapper* newInstance(const std::string& name) {
    FDWrapper* instance = nullptr;
    const Status status = createInstance(name, &instance);
    EXPECT_EQ(status.error, "");
    return instance;
  }
};

/// True if the status is an error of one line that names `part`.
testing::AssertionResult failsWith(const Status& status, const std::string& part) {
  if (!status.ok() && status.error.find(part) != std::string::npos &&
      status.error.find('\n') == std::string::npos)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "got: '" << status.error << "'";
}

TEST_F(ModuleHostTest, LoadsRunsAndUnloads) {
  for (int round = 0; round < 2; ++round) {  // unloading must leave nothing that bars a new load
    std::string name;
    ASSERT_EQ(loadModule(FAKE_GOOD_FILE, &name).error, "");
    EXPECT_EQ(name, "fake");
    ASSERT_EQ(loadModule(FAKE_OTHER_FILE).error, "");
    const auto fake = findModule("fake");
    ASSERT_TRUE(fake.has_value());
    EXPECT_EQ(fake->path, FAKE_GOOD_FILE);
    EXPECT_TRUE(fake->watched);
    EXPECT_FALSE(findModule("other")->watched);
    EXPECT_FALSE(findModule("nobody").has_value());

    FDWrapper* instance = newInstance("fake");
    ASSERT_NE(instance, nullptr);
    EXPECT_TRUE(instance->init());
    auto frame = I420Frame::allocate(5, 3);
    FaceRects faces;
    EXPECT_TRUE(instance->execute(&*frame, faces.sequence()));
    EXPECT_EQ(faces.view().size(), 4U);
    EXPECT_EQ(destroyInstance(instance).error, "");
    EXPECT_EQ(unloadModule("fake").error, "");
    EXPECT_EQ(unloadModule("other").error, "");
  }
}

TEST_F(ModuleHostTest, FindsTheDetectorBesideItself) {
  std::string path;
  ASSERT_EQ(findDetector(path).error, "");
  EXPECT_TRUE(std::filesystem::equivalent(path, REAL_MODULE_FILE)) << path;
}

TEST_F(ModuleHostTest, RefusesWhatIsNoModule) {
  const std::string textFile = __FILE__;  // not a library at all
  const std::pair<std::string, const char*> cases[] = {
      {"", "no such file"},
      {"/nowhere/libnothing.so", "no such file"},
      {"libc.so.6", "no such file"},  // the loader would find it, but not here
      {testing::TempDir(), "directory"},
      {textFile, textFile.c_str()},
      {FAKE_SILENT_FILE, "registers nothing"},
  };
  for (const auto& [path, reason] : cases) {
    SCOPED_TRACE(path);
    std::string name = "untouched";
    EXPECT_TRUE(failsWith(loadModule(path, &name), reason));
    EXPECT_EQ(name, "untouched");
  }
  EXPECT_TRUE(modules().empty());
}

TEST_F(ModuleHostTest, RefusesTheSameModuleTwice) {
  ASSERT_EQ(loadModule(FAKE_GOOD_FILE).error, "");
  EXPECT_TRUE(failsWith(loadModule(FAKE_GOOD_FILE), "loaded already, as 'fake'"));
  // Another file with the same name: refused, and the first stays watched and usable.
  EXPECT_TRUE(failsWith(loadModule(FAKE_NAMESAKE_FILE), "the name 'fake' is taken by"));
  EXPECT_TRUE(findModule("fake")->watched);
  FDWrapper* instance = newInstance("fake");
  EXPECT_TRUE(instance->init());
  EXPECT_EQ(destroyInstance(instance).error, "");

  // One file is one module: it doesn't get the second name that it claims.
  ASSERT_EQ(loadModule(FAKE_TWICE_FILE).error, "");
  EXPECT_TRUE(findModule("twice").has_value());
  EXPECT_FALSE(findModule("twice_again").has_value());

  // One that somebody else has opened is registered without this host's doing.
  SharedLibrary other;
  ASSERT_EQ(other.open(FAKE_OTHER_FILE), "");
  EXPECT_TRUE(failsWith(loadModule(FAKE_OTHER_FILE), "loaded already, as 'other'"));
  other.close();
  EXPECT_FALSE(findModule("other").has_value());
}

TEST_F(ModuleHostTest, KeepsModulesWithLiveInstances) {
  ASSERT_EQ(loadModule(FAKE_GOOD_FILE).error, "");
  FDWrapper* first = newInstance("fake");
  FDWrapper* second = newInstance("fake");
  EXPECT_EQ(findModule("fake")->liveInstances, 2);
  EXPECT_TRUE(failsWith(unloadModule("fake"), "2 live instances"));
  EXPECT_TRUE(first->init());  // the refusal has left everything in place

  EXPECT_EQ(destroyInstance(first).error, "");
  EXPECT_TRUE(failsWith(unloadModule("fake"), "1 live instance"));
  EXPECT_TRUE(failsWith(destroyInstance(first), "isn't alive"));
  EXPECT_TRUE(failsWith(destroyInstance(nullptr), "isn't alive"));
  EXPECT_EQ(destroyInstance(second).error, "");

  EXPECT_TRUE(failsWith(unloadModule("nobody"), "no module is registered as 'nobody'"));
  FDWrapper* none = second;
  EXPECT_TRUE(failsWith(createInstance("nobody", &none), "no module is registered as 'nobody'"));
  EXPECT_EQ(none, nullptr);
  EXPECT_TRUE(failsWith(createInstance("fake", nullptr), "no place"));
}

TEST_F(ModuleHostTest, SurvivesModulesThatFail) {
  ASSERT_EQ(loadModule(FAKE_POOR_FILE).error, "");
  FDWrapper* instance = nullptr;
  EXPECT_TRUE(failsWith(createInstance("poor", &instance), "no memory"));
  EXPECT_EQ(findModule("poor")->liveInstances, 0);

  // It never unregisters; the callback must not outlive the file.
  ASSERT_EQ(loadModule(FAKE_STICKY_FILE).error, "");
  ASSERT_EQ(unloadModule("sticky").error, "");
  EXPECT_FALSE(findModule("sticky").has_value());
  EXPECT_EQ(loadModule(FAKE_STICKY_FILE).error, "");
}

TEST_F(ModuleHostTest, ObserverSeesEveryCall) {
  std::vector<Kind> kinds;
  const auto record = [&](const BoundaryCall& call) {
    kinds.push_back(call.kind);
    // Known by name, but not usable before it is loaded completely.
    EXPECT_TRUE(call.kind != Kind::add || !findModule(call.name).has_value());
    return 0;
  };
  ASSERT_TRUE(setBoundaryObserver(record).ok());
  ASSERT_EQ(loadModule(FAKE_GOOD_FILE).error, "");
  ASSERT_EQ(unloadModule("fake").error, "");
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::watch, Kind::add, Kind::remove}));
}

TEST_F(ModuleHostTest, BoundaryRefusesBadArguments) {
  const auto callback = [](void*, void*) -> int32_t { return 0; };
  const int code = 0;
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_LT(qosl_so_register(name, &code), 0);
    EXPECT_LT(qosl_module_register(name, callback), 0);
    EXPECT_LT(qosl_module_unregister(name), 0);
  }
  EXPECT_LT(qosl_so_register("linked", nullptr), 0);
  EXPECT_LT(qosl_module_register("linked", nullptr), 0);
  EXPECT_LT(qosl_module_unregister("linked"), 0);
  EXPECT_LT(qosl_printf(nullptr), 0);

  // A module that is linked in rather than loaded: no file to close.
  EXPECT_EQ(qosl_module_register("linked", callback), 0);
  EXPECT_LT(qosl_module_register("linked", callback), 0);
  EXPECT_TRUE(failsWith(unloadModule("linked"), "wasn't loaded from a file"));
  EXPECT_EQ(qosl_module_unregister("linked"), 0);
}

TEST_F(ModuleHostTest, ServesHostsOfAnyCompiler) {
  char name[5] = "";
  ASSERT_EQ(tavro_host_load(FAKE_GOOD_FILE, name, sizeof name), 0) << tavro_host_error();
  EXPECT_STREQ(name, "fake");
  FDWrapper* instance = tavro_host_create(name);
  ASSERT_NE(instance, nullptr) << tavro_host_error();
  EXPECT_TRUE(instance->init());
  EXPECT_EQ(tavro_host_unload(name), -1);
  EXPECT_NE(std::string(tavro_host_error()).find("live instance"), std::string::npos);
  EXPECT_EQ(tavro_host_destroy(instance), 0);
  EXPECT_EQ(tavro_host_destroy(instance), -1);
  EXPECT_EQ(tavro_host_unload(name), 0);

  EXPECT_EQ(tavro_host_load(FAKE_GOOD_FILE, name, 4), -1);  // "fake" has a zero behind it
  EXPECT_FALSE(findModule("fake").has_value());
  EXPECT_EQ(tavro_host_load(nullptr, name, sizeof name), -1);
  EXPECT_EQ(tavro_host_load(std::string(10000, 'x').c_str(), nullptr, 0), -1);
  EXPECT_EQ(std::string(tavro_host_error()).size(), 511U);
  EXPECT_EQ(tavro_host_create(nullptr), nullptr);
  EXPECT_EQ(tavro_host_unload(nullptr), -1);
}

TEST_F(ModuleHostTest, ThreadsMayLoadUseAndUnloadAtOnce) {
  std::atomic<int> loads = 0, uses = 0;
  const auto work = [&] {
    for (int round = 0; round < 200; ++round) {
      loads += loadModule(FAKE_GOOD_FILE).ok() ? 1 : 0;
      FDWrapper* instance = nullptr;
      if (createInstance("fake", &instance).ok()) {
        ++uses;
        EXPECT_EQ(destroyInstance(instance).error, "");
      }
      static_cast<void>(unloadModule("fake"));  // refused while another thread uses it
    }
  };
  std::thread threads[4];
  for (std::thread& thread : threads)
    thread = std::thread(work);
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_GT(loads, 0);
  EXPECT_GT(uses, 0);
  static_cast<void>(unloadModule("fake"));
}

}  // namespace
}  // namespace tavro::host
