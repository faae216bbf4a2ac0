// The real module in the real host library: what it calls while it is being loaded, and that its
// layers are registered after that; what it does when the host refuses it, and what it leaves
// behind. An observer in the host library sees every call and can make it fail.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "host/core/shared_library.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/operating_system.h"

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
const std::string name = TavroRTC::FDModule::moduleName;
constexpr int modelLayerCount = 94;

/// Prepares an instance and counts the layers that nobody was registered for.
int missingLayers(FDWrapper* instance) {
  CapturedStdout captured;
  const bool ready = instance->init();
  const std::string text = captured.stop();
  EXPECT_TRUE(ready);
  const std::string missing = "Implementation not exists: [2,";
  int count = 0;
  for (size_t at = 0; (at = text.find(missing, at)) != std::string::npos; ++at)
    ++count;
  return count;
}

/// Records the calls of one test; `verdict` decides on each.
class ModuleLoading : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(test::isLibraryOpen(modulePath));
    ASSERT_TRUE(setBoundaryObserver([this](const BoundaryCall& call) {
                  calls.push_back(call.kind);
                  if (call.kind == Kind::print)
                    printed += call.text;
                  else if (call.name != name)
                    ADD_FAILURE() << "called itself " << call.name;
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
    EXPECT_FALSE(test::isLibraryOpen(modulePath));
  }

  std::function<int32_t(const BoundaryCall&)> verdict = [](const BoundaryCall&) { return 0; };
  std::vector<Kind> calls;
  std::string printed;
  ModuleCallback callback = nullptr;
};

TEST_F(ModuleLoading, RegistersBeforeItsLayersAndUnregistersAtUnload) {
  int missingDuringLoad = -1;
  verdict = [&](const BoundaryCall& call) {
    if (call.kind == Kind::add) {
      // The callback works already, and the layers are still to be registered.
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
  EXPECT_NE(loadModule(modulePath).error.find("observer refused"), std::string::npos);
  EXPECT_FALSE(findModule(name).has_value());

  // A host that keeps the file loaded all the same gets nothing from it.
  SharedLibrary kept;
  ASSERT_EQ(kept.open(modulePath), "");
  FDWrapper* instance = nullptr;
  for (const int32_t code : {createInstanceCommand, destroyInstanceCommand}) {
    ModuleCommand command{.code = code, .object = static_cast<void*>(&instance)};
    EXPECT_EQ(callback(nullptr, &command), -1);
  }
  EXPECT_EQ(instance, nullptr);
  kept.close();
  EXPECT_FALSE(test::isLibraryOpen(modulePath));
  EXPECT_EQ(std::ranges::count(calls, Kind::remove), 0);
  EXPECT_EQ(printed, "");
}

}  // namespace
}  // namespace tavro::host
