// The whole network on any picture, on every kind of processor: the outputs must agree to within
// the rounding of their sums.

#include <cmath>
#include <vector>

#include "fuzz/byte_reader.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/impl.h"
#include "tests/support/processor.h"

namespace {

using namespace TavroRTC::FDModule;
using tavro::fuzz::ByteReader;
using tavro::fuzz::require;
using tavro::test::availableProcessors;
using tavro::test::Processor;

struct Network {
  explicit Network(bool hasAvxAndFma) : avxAndFma(hasAvxAndFma) {
    const Processor processor(avxAndFma);
    impl = createImpl(0, 0);
  }
  void run(uint8_t* picture) {
    const Processor processor(avxAndFma);
    require(runImpl(impl, picture, &boxes, &scores) == 0, "the network runs");
  }

  bool avxAndFma;
  Impl* impl = nullptr;
  float* boxes = nullptr;
  float* scores = nullptr;
};

void expectClose(const float* a, const float* b, size_t count) {
  for (size_t i = 0; i < count; ++i)
    require(std::abs(a[i] - b[i]) <= 1e-3F * std::max(1.0F, std::abs(a[i])), "networks disagree");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool isQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  require(isQuiet, "the standard output can be closed");
  ByteReader in(data, size);
  // They live to the very end of the program: making one takes longer than running it.
  static std::vector<Network>& networks = *[] {
    auto* all = new std::vector<Network>;
    for (const bool avxAndFma : availableProcessors())
      all->emplace_back(avxAndFma);
    return all;
  }();
  std::vector<uint8_t> picture(size_t{192} * 192 * 3);
  size_t filled = 0;
  while (filled < picture.size()) {
    const size_t left = picture.size() - filled;
    const size_t wish = in.isEmpty() ? left : static_cast<size_t>(in.between(1, 65536));
    const size_t part = std::min(wish, left);
    tavro::fuzz::fill(picture.data() + filled, part, in);
    filled += part;
  }
  for (Network& network : networks)
    network.run(picture.data());
  for (const Network& network : networks) {
    expectClose(network.scores, networks[0].scores, priorCount * 2);
    expectClose(network.boxes, networks[0].boxes, priorCount * 4);
  }
  return 0;
}
