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

#include "engine/core/windowed_layers.h"
#include "engine/simd/elementwise_layers.h"
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

TEST(Registry, reportsDuplicatesAndTypesThatNobodyMakes) {
  TensorMap tensors;
  TensorMap weights;
  const LayerRow sigmoid = RowOf{.type = "Sigmoid", .io = {"x", "y"}}.row();
  CapturedStdout captured;
  EXPECT_EQ(createLayer(2, sigmoid, tensors, weights), nullptr);
  EXPECT_EQ(createLayer(-1, sigmoid, tensors, weights), nullptr);
  EXPECT_EQ(createLayer(8, sigmoid, tensors, weights), nullptr);
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

TEST(Graph, connectsLayersAndTensors) {
  SmallNet small;
  const Layer* first = small.addLayer({.type = "Conv", .io = {"x", "a"}});
  const Layer* relu = small.addLayer({.type = "Relu", .io = {"a", "a"}, .ints = {1}});
  const Layer* pair = small.addLayer({.type = "Conv", .io = {"a", "x", "b"}});
  const Layer* join = small.addLayer({.type = "Concat", .io = {"a", "b", "x", "c", "", "d"}});
  const Layer* alone = small.addLayer({.type = "Softmax", .io = {"c"}});
  const auto tensor = [&](const char* name) { return &small.tensor(name); };
  using Tensors = std::vector<Tensor*>;
  using Layers = std::vector<Layer*>;
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
            (Layers{small.net.layers[0], small.net.layers[2], small.net.layers[3]}));
  EXPECT_EQ(tensor("x")->name, "x");
  EXPECT_TRUE(first->name == "a" && first->type == "Conv");
}

TEST(Graph, weightsEndAtTheFirstNameThatIsNotThere) {
  SmallNet small;
  small.addConstant("w", {1, 1, 1, 1}, {1});
  small.addConstant("b", {1, 1, 1, 1}, {1});
  const auto convolution = [&](std::vector<const char*> weights) {
    return dynamic_cast<core::Conv*>(
        small.addLayer({.type = "Conv", .io = {"x", "y"}, .weights = std::move(weights)}));
  };
  Tensor* weight = &small.net.weights["w"];
  Tensor* zeros = &small.net.weights[zeroTensorName];
  const core::Conv* layer = convolution({"w", "b"});
  EXPECT_TRUE(layer->weight == weight && layer->bias == &small.net.weights["b"]);
  layer = convolution({"w"});
  EXPECT_TRUE(layer->weight == weight && layer->bias == zeros);
  layer = convolution({"w", "missing", "b"});
  EXPECT_TRUE(layer->weight == weight && layer->bias == zeros);
  layer = convolution({"missing", "w"});
  EXPECT_TRUE(layer->weight == nullptr && layer->bias == nullptr);
  EXPECT_FALSE(small.net.weights.contains("missing"));
  EXPECT_TRUE(zeros->count() == 1024 &&
              std::count(zeros->floatData, zeros->floatData + 1024, 0.0F) == 1024);
}

// --- The rewrite ---

// x plus itself, so that there is a layer to merge activations into.
void addSum(SmallNet& small, const Values& values) {
  small.addInput("x", {1, 1, 1, static_cast<int32_t>(values.size())}, values);
  small.addLayer({.type = "Add", .io = {"x", "x", "sum"}});
}

bool rewrite(SmallNet& small) {
  return small.net.env->rewriteGraph(&small.net);
}

TEST(Rewrite, activationBecomesPartOfTheLayerBefore) {
  SmallNet small;
  addSum(small, {-1, 2});
  Layer* relu = small.addLayer({.type = "Relu", .io = {"sum", "y"}, .ints = {1}});
  EXPECT_TRUE(rewrite(small));
  const Layer* sum = small.net.layers[0];
  Tensor* y = &small.tensor("y");
  EXPECT_EQ(sum->outputs, std::vector<Tensor*>{y});
  EXPECT_TRUE(relu->inputs == relu->outputs && relu->inputs == std::vector<Tensor*>{y});
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

TEST(Rewrite, leavesAloneWhatOthersReadAndWhatIsNoActivation) {
  SmallNet small;
  addSum(small, {-1, 2});
  const Layer* relu = small.addLayer({.type = "Relu", .io = {"sum", "y"}, .ints = {1}});
  const Layer* softmax = small.addLayer({.type = "Softmax", .io = {"sum", "p"}});
  const Layer* last = small.addLayer({.type = "Softmax", .io = {"y", "q"}});
  const Layer* ofInput = small.addLayer({.type = "Relu", .io = {"z", "z2"}, .ints = {1}});
  small.addInput("z", {1, 1, 1, 1}, {-1});
  EXPECT_TRUE(rewrite(small));
  for (const Layer* layer : {relu, softmax, last, ofInput})
    EXPECT_NE(layer->inputs, layer->outputs) << layer->name;
  EXPECT_TRUE(small.net.layers[0]->successors.empty());
  ASSERT_TRUE(small.compute());
  EXPECT_FALSE(relu->fused);
  EXPECT_EQ(small.values("sum"), (Values{-2, 4}));
  EXPECT_EQ(small.values("y"), (Values{0, 4}));
  EXPECT_EQ(small.values("z2"), Values{0});
}

// A reshape lends its input's memory, which the activation must not change.
TEST(Rewrite, leavesAReshapesInputAlone) {
  SmallNet small;
  small.addInput("x", {1, 1, 1, 2}, {-1, 2});
  small.addLayer({.type = "Reshape", .io = {"x", "r"}, .ints = {1, 1, 2, 1}});
  small.addLayer({.type = "Relu", .io = {"r", "y"}, .ints = {1}});
  EXPECT_TRUE(rewrite(small));
  ASSERT_TRUE(small.compute());
  EXPECT_EQ(small.values("x"), (Values{-1, 2}));
  EXPECT_EQ(small.values("y"), (Values{0, 2}));
}

// Whether the first is merged (kinds 2 and 6) or not, works in place from the start or becomes so.
TEST(Rewrite, chainedActivationsAllTakeEffect) {
  constexpr float parameter = 0.5F;
  for (const int32_t kind : {2, 4, 6})
    for (const char* between : {"a", "sum"}) {
      SmallNet small;
      addSum(small, {-2, 1});
      for (const RowOf& row : {RowOf{.type = "Activation", .io = {"sum", between}, .ints = {kind}},
                               RowOf{.type = "Activation", .io = {between, "y"}, .ints = {6}}}) {
        RowOf withParameter = row;
        withParameter.floats = {parameter};
        small.addLayer(withParameter);
      }
      EXPECT_TRUE(rewrite(small));
      ASSERT_TRUE(small.compute());
      const Values first = kind == 2   ? Values{0, parameter}
                           : kind == 4 ? Values{std::tanh(-4.0F), std::tanh(2.0F)}
                                       : Values{-4 * parameter, 2};
      EXPECT_EQ(small.values("y"), (Values{first[0] * parameter, first[1]}))
          << "first of kind " << kind << " into " << between;
    }
}

// --- Passes ---

class CountingEnv : public QuietEnv {
 public:
  explicit CountingEnv(std::string& calls) : calls_(calls) {}
  void beginRun() override { calls_ += "beginRun "; }
  void endRun() override { calls_ += "endRun "; }
  void flush() override { calls_ += "flush "; }
  void sync() override { calls_ += "sync "; }
  void beginWarmup() override { calls_ += "beginWarmup "; }
  void endWarmup() override { calls_ += "endWarmup "; }
  bool afterRun(Net*) override {
    calls_ += "afterRun ";
    return false;
  }
  bool afterWarmup(Net*) override {
    calls_ += "afterWarmup ";
    return false;
  }

 private:
  std::string& calls_;
};

TEST(NetPass, callsTheEnvironmentAtItsStations) {
  std::string calls;
  auto* env = new CountingEnv(calls);
  Net net(env);
  EXPECT_TRUE(net.run());
  EXPECT_EQ(calls, "afterRun ");
  EXPECT_FALSE(net.init(env));
  Tensor& x = net.tensors["x"];
  x.n = x.h = x.w = x.c = 1;
  const std::vector<LayerRow> rows(18, RowOf{.type = "Relu", .io = {"x", "y"}, .ints = {1}}.row());
  net.addLayers(rows);
  net.layers[8]->fused = true;  // passed over, with the flush that is due there
  net.layers[1]->skip = true;
  calls.clear();
  {
    const CapturedStdout captured;
    EXPECT_TRUE(net.warmup());
  }
  EXPECT_EQ(calls, "beginWarmup endWarmup afterWarmup ");
  calls.clear();
  EXPECT_TRUE(net.run());
  EXPECT_EQ(calls, "flush afterRun ");
  calls.clear();
  env->deferred = true;
  EXPECT_TRUE(net.run());
  EXPECT_EQ(calls, "beginRun flush afterRun endRun ");
  EXPECT_TRUE(net.clear() && net.layers.empty() && net.tensors.empty() && net.weights.empty());
}

TEST(NetPass, warmsUpOnceAndGoesOnAfterAFailure) {
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

// --- Diagnostics ---

// A first layer like the model's, and a layer without parameters to tell.
void addLabelled(SmallNet& small) {
  const Extents image = {1, 192, 192, 3};
  small.addPicture("picture", image, std::vector<uint8_t>(image.count(), 1));
  small.addConstant("w", {16, 3, 3, 3}, Values(432, 0.5F));
  small.addLayer({.type = "Conv",
                  .io = {"picture", "235"},
                  .ints = {3, 3, 1, 1, 1, 1, 2, 2, 1, 1},
                  .weights = {"w"}});
  small.addConstant("one", {1, 1, 1, 16}, Values(16, 1.0F));
  small.addLayer(
      {.type = "Conv", .io = {"235", "241"}, .ints = {1, 1, 0, 0, 0, 0, 1, 1}, .weights = {"one"}});
  small.addLayer({.type = "Softmax", .io = {"241", "p"}});
}

TEST(Diagnostics, timesLayersUnderTheirLabels) {
  SmallNet small;
  addLabelled(small);
  ASSERT_TRUE(small.reshape());
  EXPECT_EQ(small.net.layers[0]->cost, 7'962'624U);
  small.net.timeLayers = true;
  for (const uint32_t parts : {7U, 1U, 0U}) {
    small.net.labelParts = parts;
    CapturedStdout captured;
    ASSERT_TRUE(small.run());
    const std::string text = captured.stop();
    const auto line = [](const std::string& label) {
      return label + std::string(80 - label.size(), ' ') + " cost:  [0-9.e+-]+ *ms\n";
    };
    const std::string lines = parts == 7 ? line("235:Conv_3x3_s2x2_16x96x96x3") +
                                               line("241:Conv_1x1_1x96x96x16") + line("p:Softmax_")
                              : parts == 1 ? line("235") + line("241") + line("p")
                                           : line("Net run") + line("Net run") + line("Net run");
    EXPECT_TRUE(std::regex_match(text, std::regex(lines))) << text;
  }
}

TEST(Diagnostics, printsRangesAndValues) {
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
