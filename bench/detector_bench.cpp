// The detector's steps: the network, what follows it, a whole frame, and making an instance.

#include <benchmark/benchmark.h>

#include "bench/network.h"
#include "bench/scenes.h"
#include "host/core/face_rects.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

void runNetwork(benchmark::State& state, Path path) {
  std::vector<uint8_t> picture = samplePicture(0);
  Network network(picture, path);
  for (auto _ : state)
    network.run();
  state.counters["FLOP/s"] = benchmark::Counter(static_cast<double>(network.net().totalCost),
                                                benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK_CAPTURE(runNetwork, wide, Path::wide);
BENCHMARK_CAPTURE(runNetwork, narrow, Path::narrow);

void makePriors(benchmark::State& state) {
  std::vector<PriorBox> priors(priorCount);
  const std::span<PriorBox, priorCount> all(priors.data(), priorCount);
  for (auto _ : state) {
    generatePriors(all);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(makePriors);

void processSixFaces(benchmark::State& state) {
  const FaceScene moments[] = {FaceScene(0), FaceScene(1), FaceScene(2)};
  PostProcessing tracked;
  size_t frame = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(tracked.frame(moments[frame++ % std::size(moments)], {1280, 720}));
}
BENCHMARK(processSixFaces);

void runFrame(benchmark::State& state) {
  const host::I420Frame frame =
      sampleFrame({static_cast<int32_t>(state.range(0)), static_cast<int32_t>(state.range(1))});
  host::FaceRects faces;
  FDWrapper wrapper;
  if (!wrapper.init())
    state.SkipWithError("no network");
  for (auto _ : state)
    wrapper.execute(&frame, faces.sequence());
}
BENCHMARK(runFrame)->Apply([](benchmark::internal::Benchmark* benchmark) {
  for (const FrameSize size : frameSizes)
    benchmark->Args({size.width, size.height});
});

}  // namespace
}  // namespace tavro::bench

BENCHMARK_MAIN();
