// Loading the real module, making an instance, and unloading while any allocation of the host's
// library or of the module fails: a status, never a crash, and the next attempt is as good as the
// first. (On Windows every library has an operator new of its own, which this test can't reach.)

#include <gtest/gtest.h>

#include <string>

#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/scarce_memory.h"

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FDWrapper;
using test::ScarceMemory;

TEST(ModuleMemory, MayBeLackingThroughout) {
  const std::string path = TAVRO_MODULE_PATH;
  const std::string name = TavroRTC::FDModule::moduleName;
  FDWrapper* instance = nullptr;
  const auto liveOnce = [&] {
    return loadModule(path).ok() && createInstance(name, &instance).ok() &&
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
      EXPECT_TRUE(modules().empty());
      EXPECT_EQ(test::heapTraffic().kept(), before);
      ASSERT_TRUE(liveOnce());
    }
    EXPECT_GT(allowed, 10);
  }
}

}  // namespace
}  // namespace tavro::host
