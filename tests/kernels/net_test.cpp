// The registry, how rows become a graph, the rewrite that lets activations work in place, the
// passes of a Net and what its diagnostic switches print.

#include "engine/net.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/core/windowed_layers.h"
#include "engine/cpu_info.h"
#include "engine/simd/layers.h"
#include "impl_x86/twins.h"
#include "tests/kernels/small_net.h"
#include "tests/support/captured_stdout.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

using Values = std::vector<float>;

// --- The registry ---

Layer* makeNothing(const LayerRow& /*row*/, TensorMap& /*tensors*/, TensorMap& /*weights*/) {
  return nullptr;
}

TEST(Registry, ReportsDuplicatesAndTypesThatNobodyMakes) {
  TensorMap tensors;
  TensorMap weights;
  const LayerRow sigmoid = RowOf{.type = "Sigmoid", .io = {"x", "y"}}.row();
  CapturedStdout captured;
  for (const int32_t key : {2, -1, 8})
    EXPECT_EQ(createLayer(key, sigmoid, tensors, weights), nullptr);
  registerLayer(5, "Sigmoid", makeNothing);
  registerLayer(5, "Sigmoid", makeLayer<simd::Activation>);
  registerLayer(8, "Sigmoid", makeNothing);
  const Layer* layer = createLayer(5, sigmoid, tensors, weights);
  EXPECT_EQ(captured.stop(),
            "Implementation not exists: [2,Sigmoid]\n"
            "Implementation not exists: [-1,Sigmoid]\n"
            "Implementation not exists: [8,Sigmoid]\n"
            "Layer type Sigmoid already registered.\n");
  EXPECT_NE(layer, nullptr) << "the first creator was used";
  delete layer;
}

// --- From rows to a graph ---

TEST(Graph, ConnectsLayersAndTensors) {
  SmallNet small;
  const Layer* first = small.addLayer({.type = "Conv", .io = {"x", "a"}});
  const Layer* relu = small.addLayer({.type = "Relu", .io = {"a", "a"}, .ints = {1}});
  const Layer* pair = small.addLayer({.type = "Conv", .io = {"a", "x", "b"}});
  const Layer* join = small.addLayer({.type = "Concat", .io = {"a", "b", "x", "c", "", "d"}});
  const Layer* alone = small.addLayer({.type = "Softmax", .io = {"c"}});
  const auto tensor = [&](const char* name) { return &small.tensor(name); };
  using Tensors = std::vector<Tensor*>;
  EXPECT_EQ(first->inputs, Tensors{tensor("x")});
  EXPECT_EQ(pair->inputs, (Tensors{tensor("a"), tensor("x")}));
  EXPECT_EQ(pair->outputs, Tensors{tensor("b")});
  EXPECT_EQ(join->inputs, (Tensors{tensor("a"), tensor("b"), tensor("x")}));
  EXPECT_EQ(join->outputs, Tensors{tensor("c")});
  EXPECT_TRUE(alone->inputs.empty() && alone->outputs.empty());
  EXPECT_EQ(small.net.findTensor("d"), nullptr);
  // The activation that works in place follows its producer and is no consumer.
  EXPECT_TRUE(tensor("a")->producer == first && relu->inputs == relu->outputs);
  EXPECT_TRUE(first->successors.size() == 1 && first->successors[0] == relu);
  EXPECT_TRUE(tensor("a")->consumers.size() == 2 && tensor("a")->consumers[0] == pair);
  EXPECT_EQ(tensor("x")->consumers,
            (std::vector{small.net.layers[0], small.net.layers[2], small.net.layers[3]}));
  EXPECT_TRUE(tensor("x")->name == "x" && first->name == "a" && first->type == "Conv");
}

TEST(Graph, WeightsEndAtTheFirstNameThatIsNotThere) {
  SmallNet small;
  const Tensor* weight = &small.addConstant("w", {1, 1, 1, 1}, {1});
  const Tensor* bias = &small.addConstant("b", {1, 1, 1, 1}, {1});
  const Tensor* zeros = &small.net.weights[zeroTensorName];
  const struct {
    std::vector<const char*> names;
    const Tensor *weight, *bias;
  } cases[] = {{{"w", "b"}, weight, bias},
               {{"w"}, weight, zeros},
               {{"w", "missing", "b"}, weight, zeros},
               {{"missing", "w"}, nullptr, nullptr}};
  for (const auto& c : cases) {
    const auto* layer = dynamic_cast<core::Conv*>(
        small.addLayer({.type = "Conv", .io = {"x", "y"}, .weights = c.names}));
    EXPECT_TRUE(layer->weight == c.weight && layer->bias == c.bias) << &c - cases;
  }
  EXPECT_FALSE(small.net.weights.contains("missing"));
  EXPECT_TRUE(zeros->count() == 1024 &&
              std::count(zeros->floatData, zeros->floatData + 1024, 0.0F) == 1024);
}

// --- The rewrite ---

/// x plus itself, so that there is a layer to merge activations into.
struct SumNet : SmallNet {
  explicit SumNet(const Values& values) {
    addInput("x", {1, 1, 1, static_cast<int32_t>(values.size())}, values);
    addLayer({.type = "Add", .io = {"x", "x", "sum"}});
  }
  bool rewrite() { return net.env->rewriteGraph(&net); }
};

TEST(Rewrite, ActivationBecomesPartOfTheLayerBefore) {
  SumNet small({-1, 2});
  Layer* relu = small.addLayer({.type = "Relu", .io = {"sum", "y"}, .ints = {1}});
  EXPECT_TRUE(small.rewrite());
  const Layer* sum = small.net.layers[0];
  Tensor* y = &small.tensor("y");
  EXPECT_TRUE(relu->inputs == relu->outputs && sum->outputs == relu->outputs);
  EXPECT_TRUE(y->producer == sum && sum->successors == std::vector<Layer*>{relu});
  for (int run = 0; run < 2; ++run) {
    ASSERT_TRUE(small.compute());
    EXPECT_TRUE(relu->fused);
    EXPECT_EQ(small.values("y"), (Values{0, 4}));
  }
  EXPECT_EQ(small.tensor("sum").floatData, nullptr);
  // Asked directly, it notes that its work has been done, and does it only from then on.
  EXPECT_TRUE(relu->forward(small.net.env) && !relu->fused);
  y->floatData[1] = -4;
  EXPECT_TRUE(relu->forward(small.net.env));
  EXPECT_EQ(small.values("y"), (Values{0, 0}));
}

// And a reshape's output, which is its input's memory.
TEST(Rewrite, LeavesAloneWhatOthersReadAndWhatIsNoActivation) {
  SumNet small({-1, 2});
  const RowOf rows[] = {{.type = "Relu", .io = {"sum", "y"}, .ints = {1}},
                        {.type = "Softmax", .io = {"sum", "p"}},
                        {.type = "Softmax", .io = {"y", "q"}},
                        {.type = "Relu", .io = {"z", "z2"}, .ints = {1}},
                        {.type = "Reshape", .io = {"x", "r"}, .ints = {1, 1, 2, 1}},
                        {.type = "Relu", .io = {"r", "r2"}, .ints = {1}}};
  for (const RowOf& row : rows)
    small.addLayer(row);
  small.addInput("z", {1, 1, 1, 1}, {-1});
  EXPECT_TRUE(small.rewrite());
  for (const Layer* layer : small.net.layers)
    EXPECT_TRUE(layer->inputs != layer->outputs && layer->successors.empty()) << layer->name;
  ASSERT_TRUE(small.compute());
  const std::pair<const char*, Values> expected[] = {
      {"x", {-1, 2}}, {"sum", {-2, 4}}, {"y", {0, 4}}, {"z2", {0}}, {"r2", {0, 2}}};
  for (const auto& [name, values] : expected)
    EXPECT_EQ(small.values(name), values) << name;
}

// Whether the first is merged (kinds 2 and 6) or not, works in place from the start or becomes so.
TEST(Rewrite, ChainedActivationsAllTakeEffect) {
  constexpr float half = 0.5F;
  const std::pair<int32_t, Values> kinds[] = {
      {2, {0, half}}, {4, {std::tanh(-4.0F), std::tanh(2.0F)}}, {6, {-4 * half, 2}}};
  for (const auto& [kind, first] : kinds)
    for (const char* between : {"a", "sum"}) {
      SumNet small({-2, 1});
      small.addLayer(
          {.type = "Activation", .io = {"sum", between}, .ints = {kind}, .floats = {half}});
      small.addLayer({.type = "Activation", .io = {between, "y"}, .ints = {6}, .floats = {half}});
      EXPECT_TRUE(small.rewrite());
      ASSERT_TRUE(small.compute());
      EXPECT_EQ(small.values("y"), (Values{first[0] * half, first[1]}))
          << "first of kind " << kind << " into " << between;
    }
}

// --- Passes ---

/// Writes down which of its stations a net passes.
class CountingEnv : public QuietEnv {
 public:
  explicit CountingEnv(std::string& calls) : calls_(calls) {}
  void beginRun() override { calls_ += "beginRun "; }
  void endRun() override { calls_ += "endRun "; }
  void flush() override { calls_ += "flush "; }
  void beginWarmup() override { calls_ += "beginWarmup "; }
  void endWarmup() override { calls_ += "endWarmup "; }
  bool afterRun(Net*) override { return (calls_ += "afterRun ").empty(); }
  bool afterWarmup(Net*) override { return (calls_ += "afterWarmup ").empty(); }

 private:
  std::string& calls_;
};

TEST(NetPass, CallsTheEnvironmentAtItsStations) {
  std::string calls;
  auto* env = new CountingEnv(calls);
  Net net(env);
  EXPECT_FALSE(net.init(env));
  Tensor& x = net.tensors["x"];
  x.n = x.h = x.w = x.c = 1;
  const std::vector<LayerRow> rows(18, RowOf{.type = "Relu", .io = {"x", "y"}, .ints = {1}}.row());
  net.addLayers(rows);
  net.layers[8]->fused = true;  // passed over, with the flush that is due there
  net.layers[1]->skip = true;
  {
    const CapturedStdout captured;
    EXPECT_TRUE(net.warmup());
  }
  EXPECT_TRUE(net.run());
  EXPECT_EQ(calls, "beginWarmup endWarmup afterWarmup flush afterRun ");
  calls.clear();
  env->deferred = true;
  EXPECT_TRUE(net.run());
  EXPECT_EQ(calls, "beginRun flush afterRun endRun ");
  EXPECT_TRUE(net.clear() && net.layers.empty() && net.tensors.empty() && net.weights.empty());
}

TEST(NetPass, WarmsUpOnceAndGoesOnAfterAFailure) {
  SmallNet small;
  small.addInput("x", {1, 1, 1, 4}, {-1, 1, 2, 3});
  small.addLayer({.type = "Reshape", .io = {"x", "r"}, .ints = {-1, -1, 1, 1}});  // can't be
  small.addLayer({.type = "Relu", .io = {"x", "y"}, .ints = {1}});
  const std::vector<uint16_t> halves = {0x3C00, 0xC000};
  small.net.addConstants(
      std::vector<TensorRow>{{"halves", {1, 1, 1, 2}, 0, DataType::float16, halves.data()}});
  CapturedStdout captured;
  EXPECT_FALSE(small.net.warmup());
  EXPECT_TRUE(small.net.warmup());
  const std::string text = captured.stop();
  EXPECT_TRUE(std::regex_match(text, std::regex("Warmup cost:   [0-9.e+-]+ms\n"))) << text;
  EXPECT_FALSE(small.run()) << "a failed layer is reported";
  EXPECT_EQ(small.values("y"), (Values{0, 1, 2, 3})) << "the layers behind it still run";
  const Tensor& constant = small.net.weights["halves"];
  ASSERT_NE(constant.floatData, nullptr);
  EXPECT_TRUE(constant.floatData[0] == 1 && constant.floatData[1] == -2);
}

// Whether or not the system has such a block, what is computed is the same.
TEST(NetPass, KeepsLargeActivationsInOneBlock) {
  SmallNet small;
  const Extents extents = {1, 500, 501, 3};
  small.addInput("x", extents, Values(extents.count(), 1.5F));
  small.addLayer({.type = "Add", .io = {"x", "x", "sum"}});
  small.addLayer({.type = "Reshape", .io = {"sum", "flat"}, .ints = {1, 1, 1, -1}});
  small.addLayer({.type = "Add", .io = {"flat", "flat", "twice"}});
  {
    const CapturedStdout quiet;
    ASSERT_TRUE(small.net.warmup());
  }
  Tensor& sum = small.net.tensors["sum"];
  Tensor& twice = small.net.tensors["twice"];
  if (sum.floatData != nullptr) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(sum.floatData) % bufferAlignment, 0U);
    EXPECT_EQ(
        reinterpret_cast<std::byte*>(twice.floatData),
        reinterpret_cast<std::byte*>(sum.floatData) + alignedSize(sum.count() * sizeof(float)));
    EXPECT_EQ(small.net.tensors["flat"].floatData, nullptr);
  }
  const float* const place = twice.floatData;
  ASSERT_TRUE(small.run());
  EXPECT_TRUE(place == nullptr || twice.floatData == place);
  EXPECT_EQ(small.values("twice"), Values(extents.count(), 6));
  EXPECT_EQ(small.values("flat"), Values(extents.count(), 3));
  EXPECT_FALSE(sum.floatBorrowed);
  // The block outlives the first tensors that leave it.
  small.net.tensors.erase("sum");
  EXPECT_EQ(small.values("flat"), Values(extents.count(), 3));
}

// --- Diagnostics ---

TEST(Diagnostics, TimesLayersUnderTheirLabels) {
  SmallNet small;
  const Extents image = {1, 192, 192, 3};
  small.addPicture("picture", image, std::vector<uint8_t>(image.count(), 1));
  small.addConstant("w", {16, 3, 3, 3}, Values(432, 0.5F));
  small.addLayer({.type = "Conv",
                  .io = {"picture", "235"},
                  .ints = {3, 3, 1, 1, 1, 1, 2, 2, 1, 1},
                  .weights = {"w"}});
  small.addLayer({.type = "Softmax", .io = {"235", "p"}});  // has no parameters to print
  ASSERT_TRUE(small.reshape());
  EXPECT_EQ(small.net.layers[0]->cost, 7'962'624U);
  small.net.timeLayers = true;
  const std::string kernel = !cpuInfo().runsAvxAndFma()   ? "convSse3x3s2c3_4x4"
                             : x86::registerBits() == 512 ? "conv3x3bytes_16x4 on 512 bits"
                                                          : "conv3x3bytes_16x4";
  const struct {
    uint32_t parts;
    std::string labels[2];
  } cases[] = {{7, {"235:Conv_3x3_s2x2_16x96x96x3", "p:Softmax_"}},
               {1, {"235", "p"}},
               {9, {"235_" + kernel, "p"}},
               {0, {"Net run", "Net run"}}};
  for (const auto& c : cases) {
    small.net.labelParts = c.parts;
    CapturedStdout captured;
    ASSERT_TRUE(small.run());
    const std::string text = captured.stop();
    std::string lines;
    for (const std::string& label : c.labels)
      lines += label + std::string(80 - label.size(), ' ') + " cost:  [0-9.e+-]+ *ms\n";
    EXPECT_TRUE(std::regex_match(text, std::regex(lines))) << text;
  }
}

TEST(Diagnostics, PrintsRangesAndValues) {
  SmallNet small;
  small.addInput("x", {1, 2, 2, 2}, {1, -5, 2, -6, 3, -7, 4.5F, -8});
  const Layer* sum = small.addLayer({.type = "Add", .io = {"x", "x", "sum"}});
  const Layer* relu = small.addLayer({.type = "Relu", .io = {"sum", "y"}, .ints = {1}});
  ASSERT_TRUE(small.reshape());
  const auto printed = [&small] {
    CapturedStdout captured;
    EXPECT_TRUE(small.run());
    return captured.stop();
  };
  EXPECT_EQ(printed(), "");
  small.net.trackRanges = true;
  EXPECT_EQ(printed(), " min max:-16.000000, 9.000000\n min max:0.000000, 9.000000\n");
  EXPECT_TRUE(sum->rangeMin == -16 && sum->rangeMax == 9 && relu->rangeMin == 0);

  small.net.trackRanges = false;
  small.net.dumpOutputs = true;
  small.net.dumpLayers = {"sum", "unknown"};
  EXPECT_EQ(printed(), "sum:Add_ output0(n:1, c:2, h:2, w:2):\n2.000000,4.000000,\n\n");
  small.net.labelParts = 0;
  small.net.dumpRowBegin = 1;
  small.net.dumpRowEnd = 100;  // there are four: two of each channel
  EXPECT_EQ(printed(),
            " output0(n:1, c:2, h:2, w:2):\n6.000000,9.000000,\n-10.000000,-12.000000,\n"
            "-14.000000,-16.000000,\n\n");
  EXPECT_EQ(small.values("sum")[1], -10) << "the dump has changed the tensor's order";
}

}  // namespace
}  // namespace TavroRTC::FDModule
