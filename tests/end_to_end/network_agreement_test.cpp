// The engine against the reference network, from the picture's bytes to both outputs, on the
// 256-bit and on the 128-bit kernels.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "engine/cpu_info.h"
#include "modules/face_detection/impl.h"
#include "tests/end_to_end/agreement.h"
#include "tests/end_to_end/reference_network.h"
#include "tests/end_to_end/test_pictures.h"
#include "tests/support/captured_stdout.h"

namespace {

using namespace tavro::test;
using namespace TavroRTC::FDModule;

constexpr size_t scoreCount = ReferenceNetwork::priorCount * 2;
constexpr size_t boxCount = ReferenceNetwork::priorCount * 4;

struct Outputs {
  float* boxes = nullptr;
  float* scores = nullptr;
};

/// A network of the module on this processor or on an imitated one.
class Engine {
 public:
  explicit Engine(const CpuInfo* processor) : processor_(processor) {
    overrideCpuInfo(processor_);
    const CapturedStdout quiet;
    impl_.reset(createImpl(0, 0));
  }
  ~Engine() { overrideCpuInfo(nullptr); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Outputs run(TestPicture& picture) {
    overrideCpuInfo(processor_);
    const CapturedStdout quiet;
    Outputs outputs;
    EXPECT_EQ(runImpl(impl_.get(), picture.bytes.data(), &outputs.boxes, &outputs.scores), 0);
    return outputs;
  }

 private:
  struct Release {
    void operator()(Impl* impl) const { releaseImpl(impl); }
  };
  const CpuInfo* processor_;
  std::unique_ptr<Impl, Release> impl_;
};

CpuInfo withoutWideKernels() {
  CpuInfo info = cpuInfo();
  info.leaf1Ecx &= ~CpuInfo::avxAndFma;
  return info;
}

TEST(NetworkAgreement, EngineComputesWhatTheReferenceDoes) {
  SCOPED_TRACE(seedNote(baseSeed()));
  ReferenceNetwork reference(TAVRO_WEIGHTS_PATH);
  const CpuInfo narrow = withoutWideKernels();
  Engine thisMachine(nullptr);
  Engine narrowMachine(&narrow);
  for (TestPicture& picture : testPictures(baseSeed())) {
    const ReferenceNetwork::Output expected = reference.run(picture.bytes);
    ASSERT_EQ(expected.scores.size(), scoreCount);
    ASSERT_EQ(expected.boxes.size(), boxCount);
    for (Engine* engine : {&thisMachine, &narrowMachine}) {
      SCOPED_TRACE(picture.name + (engine == &narrowMachine ? ", 128-bit kernels" : ""));
      const Outputs outputs = engine->run(picture);
      ASSERT_NE(outputs.scores, nullptr);
      ASSERT_NE(outputs.boxes, nullptr);
      expectAgreement("scores", outputs.scores, expected.scores);
      expectAgreement("boxes", outputs.boxes, expected.boxes);
    }
  }
}

// Nothing of a frame stays behind in the network's buffers: the same picture gives the same bits
// after any other, on an instance of its own as well as on one that another has run beside.
TEST(NetworkAgreement, APictureGivesTheSameBitsWheneverItComes) {
  SCOPED_TRACE(seedNote(baseSeed()));
  std::vector<TestPicture> pictures = testPictures(baseSeed());
  const CpuInfo narrow = withoutWideKernels();
  for (const CpuInfo* processor : {static_cast<const CpuInfo*>(nullptr), &narrow}) {
    Engine worn(processor);
    for (TestPicture& picture : pictures)
      worn.run(picture);
    for (TestPicture& picture : pictures) {
      SCOPED_TRACE(picture.name);
      Engine fresh(processor);
      const Outputs first = fresh.run(picture);
      const Outputs later = worn.run(picture);
      ASSERT_NE(first.scores, nullptr);
      ASSERT_NE(later.scores, nullptr);
      EXPECT_TRUE(std::equal(first.scores, first.scores + scoreCount, later.scores));
      EXPECT_TRUE(std::equal(first.boxes, first.boxes + boxCount, later.boxes));
    }
  }
}

}  // namespace
