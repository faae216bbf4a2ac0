// Small parts by themselves, for everyday work on one of them: each layer on the kernels of each
// path, the image code's steps and row kernels, and the detector's steps. A layer's data stays in
// the caches here, which flatters the large ones; bench/report times the layers within whole
// passes.

#include <benchmark/benchmark.h>

#include "bench/fma_peak.h"
#include "bench/network.h"
#include "bench/scenes.h"
#include "host/core/face_rects.h"
#include "image/row_kernels.h"
#include "impl_x86/twins.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/network_input.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

void countOperations(benchmark::State& state, double operations) {
  state.counters["FLOP/s"] =
      benchmark::Counter(operations, benchmark::Counter::kIsIterationInvariantRate);
}

// The network.

void runPeak(benchmark::State& state) {
  constexpr int64_t steps = 10000;
  for (auto _ : state)
    benchmark::DoNotOptimize(fmaSteps(steps));
  countOperations(state, fmaOperationsPerStep * steps);
}

void runLayer(benchmark::State& state, Network& network, Path path, Layer* layer) {
  const PathGuard guard(path);
  for (auto _ : state)
    benchmark::DoNotOptimize(layer->forward(network.net().env));
  state.SetLabel(layer->describeKernel(*network.net().env));
  if (layer->cost != 0)
    countOperations(state, static_cast<double>(layer->cost));
}

void runNetwork(benchmark::State& state, Network& network) {
  for (auto _ : state)
    network.run();
  countOperations(state, static_cast<double>(network.net().totalCost));
}

void addNetwork(Network& network, Path path) {
  static constexpr const char* prefixes[] = {"wide/", "twins256/", "without_twins/", "narrow/"};
  const std::string prefix = prefixes[static_cast<size_t>(path)];
  const auto add = [](const std::string& name, auto run) {
    benchmark::RegisterBenchmark(name.c_str(), run);
  };
  for (Layer* layer : network.workingLayers())
    add(prefix + layer->name + " " + layer->type + " " + workOf(*layer).shape,
        [&network, path, layer](auto& state) { runLayer(state, network, path, layer); });
  add(prefix + "network", [&network](auto& state) { runNetwork(state, network); });
}

// The image code: a frame to the network's picture, and each row kernel on a row of 1920 samples.

constexpr int32_t rowWidth = 1920;

void addSizes(benchmark::internal::Benchmark* benchmark) {
  for (const FrameSize size : frameSizes)
    benchmark->Args({size.width, size.height});
}

host::I420Frame frameOf(const benchmark::State& state) {
  return sampleFrame({static_cast<int32_t>(state.range(0)), static_cast<int32_t>(state.range(1))});
}

void prepareFrame(benchmark::State& state) {
  const host::I420Frame frame = frameOf(state);
  std::vector<uint8_t> planar(planarInputSize);
  std::vector<uint8_t> picture(packedInputSize);
  for (auto _ : state)
    prepareNetworkInput(viewOf(frame), planar.data(), picture.data());
}
BENCHMARK(prepareFrame)->Apply(addSizes);

/// Rows for one kernel: two source rows, one behind the other, and a destination.
struct Rows {
  std::vector<uint8_t> source = std::vector<uint8_t>(size_t{4} * rowWidth + 64, 100);
  std::vector<uint8_t> destination = std::vector<uint8_t>(size_t{4} * rowWidth + 64);
};

void countBytes(benchmark::State& state, int32_t bytes) {
  state.SetBytesProcessed(state.iterations() * bytes);
}

void copyRow(benchmark::State& state) {
  Rows rows;
  CopyKernel* const kernel = chooseCopyRow(rowWidth);
  for (auto _ : state)
    kernel(rows.source.data(), rows.destination.data(), rowWidth);
  countBytes(state, rowWidth);
}
BENCHMARK(copyRow);

void interpolateRows(benchmark::State& state) {
  Rows rows;
  InterpolateKernel* const kernel = chooseInterpolateRows(rowWidth, 1);
  for (auto _ : state)
    kernel(rows.destination.data(), rows.source.data(), rowWidth, rowWidth,
           static_cast<int32_t>(state.range(0)));
  countBytes(state, rowWidth);
}
BENCHMARK(interpolateRows)->ArgName("fraction")->Arg(0)->Arg(128)->Arg(77);

void filterColumns(benchmark::State& state) {
  Rows rows;
  constexpr int32_t dstWidth = 192;
  ColumnsKernel* const kernel = chooseColumns(dstWidth, 1);
  for (auto _ : state)
    kernel(rows.destination.data(), rows.source.data(), dstWidth, 0,
           (rowWidth - 1) * 65536 / dstWidth);
  countBytes(state, dstWidth);
}
BENCHMARK(filterColumns);

void halveRow(benchmark::State& state) {
  Rows rows;
  HalveKernel* const kernel = chooseHalveRow(rowWidth / 2, 1, ScaleFilter::Bilinear);
  for (auto _ : state)
    kernel(rows.source.data(), rowWidth, rows.destination.data(), rowWidth / 2);
  countBytes(state, rowWidth / 2);
}
BENCHMARK(halveRow);

void convertRow(benchmark::State& state) {
  Rows rows;
  YuvKernel* const kernel = chooseYuvRow(rowWidth, PackMode::threeBytes);
  const uint8_t* chroma = rows.source.data() + rowWidth;
  for (auto _ : state)
    kernel(rows.source.data(), chroma, chroma + rowWidth, rows.destination.data(), YuvTableBgr,
           rowWidth);
  countBytes(state, 3 * rowWidth);
}
BENCHMARK(convertRow);

// The detector.

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
  const host::I420Frame frame = frameOf(state);
  host::FaceRects faces;
  FDWrapper wrapper;
  if (!wrapper.init())
    state.SkipWithError("no network");
  for (auto _ : state)
    wrapper.execute(&frame, faces.sequence());
}
BENCHMARK(runFrame)->Apply(addSizes);

}  // namespace
}  // namespace tavro::bench

int main(int argc, char** argv) {
  using namespace tavro::bench;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  std::vector<uint8_t> picture = samplePicture(0);
  Network wide(picture, Path::wide);
  Network twins256(picture, Path::twins256);
  Network withoutTwins(picture, Path::withoutTwins);
  Network narrow(picture, Path::narrow);
  if (TavroRTC::FDModule::cpuInfo().runsAvxAndFma())
    benchmark::RegisterBenchmark("peak of fused multiply-adds", runPeak);
  benchmark::AddCustomContext("kernels",
                              std::to_string(TavroRTC::FDModule::x86::registerBits()) + " bits");
  addNetwork(wide, Path::wide);
  addNetwork(twins256, Path::twins256);
  addNetwork(withoutTwins, Path::withoutTwins);
  addNetwork(narrow, Path::narrow);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
