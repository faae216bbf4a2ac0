// Each layer of the network by itself, on the kernels of both paths: for work on one kernel. The
// layer's data stays in the caches here, which flatters the large ones; bench/report times the
// layers within whole passes.

#include <benchmark/benchmark.h>

#include "bench/fma_peak.h"
#include "bench/network.h"
#include "bench/sampler.h"
#include "bench/scenes.h"

namespace tavro::bench {
namespace {

void runPeak(benchmark::State& state) {
  constexpr int64_t steps = 10000;
  for (auto _ : state)
    benchmark::DoNotOptimize(fmaSteps(steps));
  state.counters["FLOP/s"] = benchmark::Counter(fmaOperationsPerStep * steps,
                                                benchmark::Counter::kIsIterationInvariantRate);
}

void runLayer(benchmark::State& state, Network& network, Path path,
              TavroRTC::FDModule::Layer* layer) {
  const PathGuard guard(path);
  for (auto _ : state)
    benchmark::DoNotOptimize(layer->forward(network.net().env));
  if (layer->cost != 0)
    state.counters["FLOP/s"] = benchmark::Counter(static_cast<double>(layer->cost),
                                                  benchmark::Counter::kIsIterationInvariantRate);
}

void addLayers(Network& network, Path path) {
  for (TavroRTC::FDModule::Layer* layer : network.workingLayers()) {
    const std::string name = layer->name + " " + layer->type + " " + workOf(*layer).shape;
    benchmark::RegisterBenchmark(((path == Path::wide ? "wide/" : "narrow/") + name).c_str(),
                                 [&network, path, layer](benchmark::State& state) {
                                   runLayer(state, network, path, layer);
                                 });
  }
}

}  // namespace
}  // namespace tavro::bench

int main(int argc, char** argv) {
  using namespace tavro::bench;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  std::vector<uint8_t> picture = samplePicture(0);
  Network wide(picture, Path::wide);
  Network narrow(picture, Path::narrow);
  if (TavroRTC::FDModule::cpuInfo().runsAvxAndFma())
    benchmark::RegisterBenchmark("peak of fused multiply-adds", runPeak);
  addLayers(wide, Path::wide);
  addLayers(narrow, Path::narrow);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
