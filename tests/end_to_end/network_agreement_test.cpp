// The engine against the reference network, from the picture's bytes to both outputs, on the
// 256-bit and on the 128-bit kernels. Every picture but the first comes to a used network beside
// another one, so that nothing may stay behind in buffers or be shared.

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <vector>

#include "modules/face_detection/impl.h"
#include "tests/end_to_end/agreement.h"
#include "tests/end_to_end/reference_network.h"
#include "tests/end_to_end/test_pictures.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/processor.h"

namespace {

using namespace tavro::test;
using namespace TavroRTC::FDModule;

constexpr size_t scoreCount = ReferenceNetwork::priorCount * 2;
constexpr size_t boxCount = ReferenceNetwork::priorCount * 4;

struct Outputs {
  float* boxes = nullptr;
  float* scores = nullptr;
};

/// A network of the module on a processor with AVX and FMA or on one without.
class Engine {
 public:
  explicit Engine(bool avxAndFma) : avxAndFma_(avxAndFma) {
    const Processor processor(avxAndFma_);
    const CapturedStdout quiet;
    impl_.reset(createImpl(0, 0));
  }

  Outputs run(TestPicture& picture) {
    const Processor processor(avxAndFma_);
    const CapturedStdout quiet;
    Outputs outputs;
    EXPECT_EQ(runImpl(impl_.get(), picture.bytes.data(), &outputs.boxes, &outputs.scores), 0);
    return outputs;
  }

 private:
  struct Release {
    void operator()(Impl* impl) const { releaseImpl(impl); }
  };
  bool avxAndFma_;
  std::unique_ptr<Impl, Release> impl_;
};

TEST(NetworkAgreement, EngineComputesWhatTheReferenceDoes) {
  SCOPED_TRACE(seedNote(baseSeed()));
  ReferenceNetwork reference(TAVRO_WEIGHTS_PATH);
  std::deque<Engine> engines;
  for (const bool avxAndFma : availableProcessors())
    engines.emplace_back(avxAndFma);
  for (TestPicture& picture : testPictures(baseSeed())) {
    const ReferenceNetwork::Output expected = reference.run(picture.bytes);
    ASSERT_EQ(expected.scores.size(), scoreCount);
    ASSERT_EQ(expected.boxes.size(), boxCount);
    for (Engine& engine : engines) {
      SCOPED_TRACE(picture.name + (&engine == &engines.back() ? ", 128-bit kernels" : ""));
      const Outputs outputs = engine.run(picture);
      ASSERT_NE(outputs.scores, nullptr);
      ASSERT_NE(outputs.boxes, nullptr);
      expectAgreement("scores", outputs.scores, expected.scores);
      expectAgreement("boxes", outputs.boxes, expected.boxes);
    }
  }
}

}  // namespace
