// The steps of the image code: scaling and conversion at the usual frame sizes, and each row kernel
// on a row of 1920 samples.

#include <benchmark/benchmark.h>

#include "bench/image_step.h"
#include "bench/scenes.h"
#include "image/row_kernels.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

constexpr int32_t rowWidth = 1920;

void addSizes(benchmark::internal::Benchmark* benchmark) {
  for (const FrameSize size : frameSizes)
    benchmark->Args({size.width, size.height});
}

host::I420Frame frameOf(const benchmark::State& state) {
  return sampleFrame({static_cast<int32_t>(state.range(0)), static_cast<int32_t>(state.range(1))});
}

void scaleFrame(benchmark::State& state) {
  const host::I420Frame frame = frameOf(state);
  ImageStep step(frame);
  for (auto _ : state)
    step.scale();
}
BENCHMARK(scaleFrame)->Apply(addSizes);

void convertPicture(benchmark::State& state) {
  const host::I420Frame frame = sampleFrame(frameSizes[0]);
  ImageStep step(frame);
  step.scale();
  for (auto _ : state)
    step.convert();
}
BENCHMARK(convertPicture);

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
  for (auto _ : state)
    TavroRTC::FDModule::chooseCopyRow(rowWidth)(rows.source.data(), rows.destination.data(),
                                                rowWidth);
  countBytes(state, rowWidth);
}
BENCHMARK(copyRow);

void interpolateRows(benchmark::State& state) {
  Rows rows;
  InterpolateRows* const kernel = chooseInterpolateRows(rowWidth, 1);
  for (auto _ : state)
    kernel(rows.destination.data(), rows.source.data(), rowWidth, rowWidth,
           static_cast<int32_t>(state.range(0)));
  countBytes(state, rowWidth);
}
BENCHMARK(interpolateRows)->ArgName("fraction")->Arg(0)->Arg(128)->Arg(77);

void filterColumns(benchmark::State& state) {
  Rows rows;
  constexpr int32_t dstWidth = 192;
  ColumnsRow* const kernel = chooseColumns(dstWidth, 1);
  for (auto _ : state)
    kernel(rows.destination.data(), rows.source.data(), dstWidth, 0,
           (rowWidth - 1) * 65536 / dstWidth);
  countBytes(state, dstWidth);
}
BENCHMARK(filterColumns);

void halveRow(benchmark::State& state) {
  Rows rows;
  HalveRow* const kernel = chooseHalveRow(rowWidth / 2, 1, ScaleFilter::Bilinear);
  for (auto _ : state)
    kernel(rows.source.data(), rowWidth, rows.destination.data(), rowWidth / 2);
  countBytes(state, rowWidth / 2);
}
BENCHMARK(halveRow);

void convertRow(benchmark::State& state) {
  Rows rows;
  YuvRow* const kernel = chooseYuvRow(rowWidth, PackMode::threeBytes);
  const uint8_t* chroma = rows.source.data() + rowWidth;
  for (auto _ : state)
    kernel(rows.source.data(), chroma, chroma + rowWidth, rows.destination.data(), YuvTableBgr,
           rowWidth);
  countBytes(state, 3 * rowWidth);
}
BENCHMARK(convertRow);

}  // namespace
}  // namespace tavro::bench

BENCHMARK_MAIN();
