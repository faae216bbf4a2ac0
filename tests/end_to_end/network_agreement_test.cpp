// The engine against the reference network, from the picture's bytes to both outputs, on the
// 256-bit and on the 128-bit kernels. Both see one picture after the other, side by side,
// so that anything left in a buffer, or shared, would show.

#include <gtest/gtest.h>

#include <memory>

#include "engine/model/model_tables.h"
#include "modules/face_detection/impl.h"
#include "tests/end_to_end/reference_network.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/processor.h"

namespace {

using namespace tavro::test;
using namespace TavroRTC::FDModule;

TEST(NetworkAgreement, EngineComputesWhatTheReferenceDoes) {
  SCOPED_TRACE(seedNote(baseSeed()));
  ReferenceNetwork reference(TAVRO_WEIGHTS_PATH);
  using Engine = std::unique_ptr<Impl, decltype(&releaseImpl)>;
  std::vector<Engine> engines;
  const std::vector<bool> processors = availableProcessors();
  for (const bool avxAndFma : processors) {
    const Processor processor(avxAndFma);
    const CapturedStdout quiet;
    engines.emplace_back(createImpl(0, 0), &releaseImpl);
  }
  for (TestPicture& picture : testPictures(baseSeed())) {
    const ReferenceNetwork::Output expected = reference.run(picture.bytes);
    ASSERT_EQ(expected.scores.size(), ReferenceNetwork::priorCount * 2);
    ASSERT_EQ(expected.boxes.size(), ReferenceNetwork::priorCount * 4);
    for (size_t i = 0; i < engines.size(); ++i) {
      SCOPED_TRACE(picture.name + (processors[i] ? "" : ", 128-bit kernels"));
      const Processor processor(processors[i]);
      CapturedStdout quiet;
      float* boxes = nullptr;
      float* scores = nullptr;
      ASSERT_EQ(runImpl(engines[i].get(), picture.bytes.data(), &boxes, &scores), 0);
      quiet.stop();
      expectAgreement("scores", scores, expected.scores, scoreLimit);
      expectAgreement("boxes", boxes, expected.boxes, boxLimit);
    }
  }
}

#if defined(__linux__)
TEST(ModelTables, AreReadOnly) {
  for (const void* constant :
       {static_cast<const void*>(tavroModelWeights), static_cast<const void*>(modelLayers().data()),
        static_cast<const void*>(modelTensors().data())}) {
    auto* byte = static_cast<volatile char*>(const_cast<void*>(constant));
    EXPECT_DEATH(*byte = *byte, "");
  }
}
#endif

}  // namespace
