// One computation on every kind of processor. Convolutions and products of small whole numbers are
// exact in whatever order and rounding a kernel sums them up, so that all kernels must agree to the
// bit.

#include <array>
#include <bit>
#include <cmath>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "engine/net.h"
#include "engine/number_conversion.h"
#include "fuzz/byte_reader.h"
#include "fuzz/lent_values.h"
#include "impl_x86/x86_run_env.h"
#include "tests/support/processor.h"

namespace {

using namespace TavroRTC::FDModule;
using tavro::fuzz::ByteReader;
using tavro::fuzz::LentValues;
using tavro::fuzz::require;
using tavro::test::availableProcessors;
using tavro::test::Processor;

// --- Layers of whole numbers ---

using Row = std::array<int32_t, 11>;

struct Geometry {
  std::string type;
  Row ints = {};
  int32_t height = 1, width = 1, channels = 1, outputs = 1;
  bool isPicture = false, hasBias = false;
  int32_t activation = 0;
};

Geometry drawGeometry(ByteReader& in) {
  Geometry g;
  const uint8_t kind = in.byte() % 8;
  g.type = kind == 0 ? "Gemm" : kind < 3 ? "DepthwiseConv" : "Conv";
  const int32_t kernel = in.chance(160) ? 3 : in.between(1, 5);
  const int32_t padding = in.between(0, 2);
  const int32_t stride = in.between(1, 2);
  const int32_t dilation = in.chance(64) ? in.between(1, 3) : 1;
  g.ints = {kernel, kernel, padding, padding, padding, padding, stride, stride, dilation, dilation};
  for (size_t i = 0; i < 10; ++i)
    if (in.chance(24))
      g.ints[i] = in.between(i < 2 || i >= 6 ? 1 : 0, 4);
  g.height = in.between(1, 12);
  g.width = in.chance(64) ? in.between(40, 70) : in.between(1, 20);
  constexpr int32_t usual[] = {1, 2, 3, 4, 8, 12, 16, 24, 32};
  g.channels = in.chance(128) ? in.pick(usual) : in.between(1, 20);
  g.outputs = in.chance(128) ? in.pick(usual) : in.between(1, 34);
  if (g.type == "DepthwiseConv") {
    const int32_t group = in.chance(160) ? g.outputs : in.between(1, 4);
    g.outputs = group == g.outputs ? group : group * in.between(1, 16);
    g.channels = group * (in.chance(200) ? 1 : in.between(1, 3));
    g.ints[10] = group;
  }
  if (g.type == "Gemm")
    g.ints = {0, in.between(0, 1)};
  g.isPicture = g.type == "Conv" && in.chance(64);
  g.hasBias = in.chance(200);
  g.activation = in.between(0, 6);
  return g;
}

/// The layer and an activation behind it, over values that only `seed` decides. Nothing if refused.
std::optional<std::vector<float>> compute(const Geometry& g, uint32_t seed) {
  uint32_t noise = seed;
  const auto next = [&noise](int32_t low, int32_t high) {
    noise = noise * 1664525U + 1013904223U;
    return low + static_cast<int32_t>((noise >> 16) % static_cast<uint32_t>(high - low + 1));
  };
  const auto small = [&next] { return static_cast<float>(next(-8, 8)); };
  const auto shape = [](Tensor& tensor, int32_t n, int32_t h, int32_t w, int32_t c) {
    tensor.n = n;
    tensor.h = h;
    tensor.w = w;
    tensor.c = c;
  };
  LentValues values;
  Net net(new x86::RunEnv);
  const bool isGemm = g.type == "Gemm";
  const int32_t depth = g.height * g.channels;  // of a product
  Tensor& input = net.tensors["x"];
  Tensor& weight = net.weights["weight"];
  if (isGemm) {
    shape(input, 1, 1, 1, depth);
    shape(weight, 1, 1, g.ints[1] != 0 ? g.outputs : depth, g.ints[1] != 0 ? depth : g.outputs);
  } else {
    shape(input, 1, g.height, g.width, g.channels);
    const int32_t group = g.type == "Conv" ? 1 : g.ints[10];
    shape(weight, g.outputs, g.ints[1], g.ints[0], g.channels / group);
    weight.layout = 1;
  }
  if (g.isPicture) {
    values.lendBytes(input, [&] { return static_cast<uint8_t>(next(0, 255)); });
    input.mean[0] = 128;
    input.scale[0] = 0.5F;
  } else {
    values.lendFloats(input, small);
  }
  values.lendFloats(weight, small);
  Tensor& bias = net.weights["bias"];
  shape(bias, 1, 1, 1, g.outputs);
  values.lendFloats(bias, small);
  Tensor& slopes = net.weights["slopes"];
  shape(slopes, 1, 1, 1, g.outputs);
  values.lendFloats(slopes, small);

  LayerRow rows[2];
  rows[0].name = "layer";
  rows[0].type = g.type.c_str();
  std::ranges::copy(g.ints, rows[0].ints);
  rows[0].io[0] = "x";
  rows[0].io[1] = "sum";
  rows[0].weights[0] = "weight";
  rows[0].weights[1] = g.hasBias ? "bias" : nullptr;
  rows[1].name = "activation";
  rows[1].type = "Activation";
  rows[1].ints[0] = g.activation;
  rows[1].floats[0] = g.activation == 2 ? 6.0F : 0.5F;
  rows[1].io[0] = "sum";
  rows[1].io[1] = "y";
  rows[1].weights[0] = "slopes";
  net.addLayers(rows);
  net.env->rewriteGraph(&net);
  if (!net.warmup() || !net.run())
    return std::nullopt;
  const Tensor& output = net.tensors["y"];
  return std::vector<float>(output.floatData, output.floatData + output.count());
}

void compareLayers(ByteReader& in) {
  const Geometry g = drawGeometry(in);
  const uint32_t seed = in.word();
  std::deque<std::optional<std::vector<float>>> results;
  for (const bool avxAndFma : availableProcessors()) {
    const Processor processor(avxAndFma);
    results.push_back(compute(g, seed));
  }
  const auto& narrow = results.back();
  for (const auto& result : results) {
    require(result.has_value() || !narrow.has_value(), "a wider processor refuses more");
    if (result && narrow)
      require(*result == *narrow, "kernels disagree about whole numbers");
  }
}

// --- Half floats ---

void compareHalves(ByteReader& in) {
  std::vector<uint16_t> halves(static_cast<size_t>(in.between(1, 40)));
  for (uint16_t& half : halves)
    half = static_cast<uint16_t>(in.byte() << 8 | in.byte());
  const auto widen = [&halves] {
    std::vector<float> floats(halves.size());
    halfToFloat(halves.data(), floats.data(), static_cast<int64_t>(halves.size()));
    return floats;
  };
  const std::vector<float> byInstruction = widen();
  const Processor plain(CpuInfo{});
  const std::vector<float> byCode = widen();
  for (size_t i = 0; i < halves.size(); ++i) {
    const bool areNan = std::isnan(byInstruction[i]) && std::isnan(byCode[i]);
    require(
        areNan || std::bit_cast<uint32_t>(byInstruction[i]) == std::bit_cast<uint32_t>(byCode[i]),
        "a half float widens differently");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool isQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  require(isQuiet, "the standard output can be closed");
  ByteReader in(data, size);
  if (in.chance(16))
    compareHalves(in);
  else
    compareLayers(in);
  return 0;
}
