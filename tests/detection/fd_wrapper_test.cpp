// The instance as the host sees it, and the callback that gives it out: how a frame is read, what
// null pointers do.

#include "modules/face_detection/fd_wrapper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/core/face_rects.h"
#include "modules/face_detection/module_callback.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::host::FaceRects;

/// A frame that writes down how it is read.
class RecordingFrame final : public HostFrame {
 public:
  const uint8_t* planeData(int32_t plane) const override {
    log.push_back("planeData " + std::to_string(plane));
    return samples;
  }
  int32_t planeStride(int32_t plane) const override {
    log.push_back("planeStride " + std::to_string(plane));
    return 2;
  }
  int32_t width() const override {
    log.emplace_back("width");
    return 2;
  }
  int32_t height() const override {
    log.emplace_back("height");
    return 2;
  }

  uint8_t samples[4] = {};
  mutable std::vector<std::string> log;
};

TEST(FDWrapper, ReadsAFrameBySevenCalls) {
  FDWrapper wrapper;
  ASSERT_TRUE(wrapper.init());
  const RecordingFrame frame;
  FaceRects faces;
  EXPECT_TRUE(wrapper.execute(&frame, faces.sequence()));
  EXPECT_EQ(frame.log,
            (std::vector<std::string>{"planeData 0", "planeData 1", "planeData 2", "width",
                                      "height", "planeStride 0", "planeStride 1"}));
}

TEST(FDWrapper, NullPointersAndCallsBeforeInit) {
  FDWrapper wrapper;
  const RecordingFrame frame;
  FaceRects faces;
  ASSERT_TRUE(faces.sequence()->grow(faces.sequence(), 2));
  faces.sequence()->size = 2;
  EXPECT_FALSE(wrapper.execute(nullptr, faces.sequence()));
  EXPECT_EQ(faces.view().size(), 2U);
  EXPECT_FALSE(wrapper.execute(&frame, faces.sequence()));
  EXPECT_TRUE(faces.empty());

  ASSERT_TRUE(wrapper.init());
  faces.sequence()->size = 2;
  EXPECT_FALSE(wrapper.execute(nullptr, faces.sequence()));
  EXPECT_EQ(faces.view().size(), 2U);
  EXPECT_FALSE(wrapper.execute(&frame, nullptr));
  EXPECT_TRUE(frame.log.empty());
}

TEST(ModuleCallback, CommandCodes) {
  FDWrapper untouched;
  void* slot = &untouched;
  for (const int32_t code : {0, 1000, 1003, -1001}) {
    ModuleCommand command{.code = code, .object = static_cast<void*>(&slot)};
    EXPECT_EQ(moduleCallback(nullptr, &command), -1);
    EXPECT_EQ(slot, &untouched);
  }
  EXPECT_EQ(moduleCallback(nullptr, nullptr), -1);
  ModuleCommand nowhere{.code = createInstanceCommand, .object = nullptr};
  EXPECT_EQ(moduleCallback(nullptr, &nowhere), -1);
  ModuleCommand nothing{.code = destroyInstanceCommand, .object = nullptr};
  EXPECT_EQ(moduleCallback(nullptr, &nothing), 0);

  FDWrapper* made = nullptr;
  ModuleCommand create{.code = createInstanceCommand, .object = static_cast<void*>(&made)};
  EXPECT_EQ(moduleCallback(&slot, &create), 0);
  ASSERT_NE(made, nullptr);
  ModuleCommand destroy{.code = destroyInstanceCommand, .object = made};
  EXPECT_EQ(moduleCallback(&slot, &destroy), 0);
}

}  // namespace
}  // namespace TavroRTC::FDModule
