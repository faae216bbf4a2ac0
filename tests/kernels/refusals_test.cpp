// What layers refuse, in one table: rows that don't fit their tensors, and tensors whose shape
// changes between the frames.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/kernels/small_net.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// A net with the activations x and z, the constants weight and bias, and one layer.
struct Case {
  const char* what;
  RowOf row;
  Extents x = {1, 5, 5, 2};
  Extents z = {1, 5, 5, 2};
  Extents weight = {2, 3, 3, 2};
  int32_t biasCount = 2;
  int32_t weightLayout = 1;
};

void build(SmallNet& small, const Case& c) {
  small.addInput("x", c.x, std::vector<float>(c.x.count(), 1));
  small.addInput("z", c.z, std::vector<float>(c.z.count(), 1));
  small.addConstant("weight", c.weight, std::vector<float>(c.weight.count(), 1), c.weightLayout);
  small.addConstant("bias", {1, 1, 1, c.biasCount},
                    std::vector<float>(static_cast<size_t>(c.biasCount)), 0);
  small.addLayer(c.row);
}

struct Window {
  int32_t kernelW = 3, kernelH = 3;
  int32_t padding = 1, stride = 1;
  int32_t group = 1;
  std::vector<int32_t> ints() const {
    return {kernelW, kernelH, padding, padding, padding, padding, stride, stride, 1, 1, group};
  }
};

RowOf convolution(const Window& window = {}, const char* type = "Conv") {
  return {.type = type, .io = {"x", "y"}, .ints = window.ints(), .weights = {"weight", "bias"}};
}
RowOf grouped(int32_t group, const Window& window = {}) {
  Window inGroups = window;
  inGroups.group = group;
  return convolution(inGroups, "DepthwiseConv");
}
RowOf pooling(const Window& window = {}) {
  return {.type = "AveragePool", .io = {"x", "y"}, .ints = window.ints()};
}
RowOf gemm(std::vector<const char*> weights = {"weight", "bias"}) {
  return {.type = "Gemm", .io = {"x", "y"}, .weights = std::move(weights)};
}
RowOf concat(std::vector<const char*> io = {"x", "z", "y"}) {
  return {.type = "Concat", .io = std::move(io)};
}
RowOf sum(int32_t op = 0, std::vector<const char*> io = {"x", "z", "y"}) {
  return {.type = "Add", .io = std::move(io), .ints = {op}};
}
RowOf reshaped(std::vector<int32_t> target) {
  return {.type = "Reshape", .io = {"x", "y"}, .ints = std::move(target)};
}
RowOf prelu() {
  return {.type = "Activation", .io = {"x", "y"}, .ints = {3}, .weights = {"bias"}};
}
RowOf softmax() {
  return {.type = "Softmax", .io = {"x", "y"}};
}

constexpr Extents row4 = {1, 1, 1, 4};
constexpr Extents matrix4x6 = {1, 1, 4, 6};

const Case rightCases[] = {
    {"Conv", convolution()},
    {"DepthwiseConv", grouped(2), {1, 5, 5, 2}, {}, {2, 3, 3, 1}},
    {"AveragePool", pooling()},
    {"Gemm", gemm(), row4, {}, matrix4x6, 6, 0},
    {"Concat", concat()},
    {"Add", sum()},
    {"Add, a row and an image", sum(), {1, 1, 1, 2}},
    {"Reshape", reshaped({1, 2, 5, 5})},
    {"Activation", prelu()},
    {"Softmax", softmax()},
};

RowOf withOutput(RowOf row, std::vector<const char*> io) {
  row.io = std::move(io);
  return row;
}

const Case refusedCases[] = {
    {"no stride", convolution({.stride = 0})},
    {"negative padding", convolution({.padding = -1})},
    {"a stride past all sizes", convolution({.stride = 1 << 30})},
    {"a window larger than the image", convolution({.padding = 0}), {1, 2, 5, 2}},
    {"a narrower kernel than the weight", convolution(), {1, 5, 5, 2}, {}, {2, 3, 1, 2}},
    {"a lower kernel than the weight", convolution(), {1, 5, 5, 2}, {}, {2, 1, 3, 2}},
    {"other input channels than the weight", convolution(), {1, 5, 5, 2}, {}, {2, 3, 3, 3}},
    {"two pictures", convolution(), {2, 5, 5, 2}},
    {"a short bias", convolution(), {1, 5, 5, 2}, {}, {2, 3, 3, 2}, 1},
    {"no weight", {.type = "Conv", .io = {"x", "y"}, .ints = Window().ints(), .weights = {"none"}}},
    {"no output", withOutput(convolution(), {"x"})},
    {"an output that is the input", withOutput(convolution(), {"x", "x"})},
    {"an empty input", withOutput(convolution(), {"none", "y"})},
    {"2^32 values",
     convolution({.kernelW = 1, .kernelH = 1, .padding = 32768}),
     {1, 5, 5, 2},
     {},
     {2, 1, 1, 2}},
    {"no input channels", convolution(), {1, 5, 5, 0}},
    {"groups that don't divide the channels", grouped(3), {1, 5, 5, 2}, {}, {2, 3, 3, 1}},
    {"a negative number of groups", grouped(-1), {1, 5, 5, 2}, {}, {2, 3, 3, 1}},
    {"groups of three outputs", grouped(3), {1, 5, 5, 3}, {}, {9, 3, 3, 1}, 9},
    {"more inputs than filters", grouped(2), {1, 5, 5, 4}, {}, {2, 3, 3, 2}},

    {"pooling without a stride", pooling({.stride = 0})},
    {"a pooling window higher than the image", pooling({.kernelH = 6, .padding = 0})},
    {"pooling with negative padding", pooling({.padding = -1})},
    {"a pooling window without a width", pooling({.kernelW = 0})},
    {"2^32 pooled values", pooling({.padding = 32768}), {1, 5, 5, 1}},
    {"pooling two pictures", pooling(), {2, 5, 5, 2}},
    {"pooling in place", withOutput(pooling(), {"x", "x"})},

    {"two matrices", gemm(), {1, 1, 3, 4}, {}, matrix4x6, 6, 0},
    {"a matrix with too few rows", gemm(), row4, {}, {1, 1, 3, 6}, 6, 0},
    {"a short bias of a product", gemm(), row4, {}, matrix4x6, 5, 0},
    {"no matrix", gemm({"none"}), row4, {}, matrix4x6, 6, 0},
    {"an empty row", gemm(), {1, 1, 1, 0}, {}, matrix4x6, 6, 0},
    {"a product in place", withOutput(gemm(), {"x", "x"}), row4, {}, {1, 1, 4, 4}, 4, 0},

    {"another height", concat(), {1, 5, 5, 2}, {1, 6, 5, 2}},
    {"another width", concat(), {1, 5, 5, 2}, {1, 5, 6, 2}},
    {"an input that is the joined output", concat({"x", "z", "x"})},
    {"an empty part", concat({"x", "none", "y"})},
    {"nothing to join", concat({"y"})},

    {"an unknown operation", sum(1)},
    {"one operand", sum(0, {"x", "y"})},
    {"an empty operand", sum(0, {"x", "none", "y"})},
    {"an empty first operand", sum(0, {"none", "z", "y"})},
    {"more sums than 32 bits count", sum(), {1, 65536, 1, 1}, {1, 1, 65536, 1}},

    {"two free extents", reshaped({1, -1, 0, 2})},
    {"more than 32 bits count", reshaped({1, 65536, 65536, 1})},
    {"more than 64 bits count", reshaped({1 << 30, 1 << 30, 1 << 30, 1 << 30})},
    {"more than the input has", reshaped({1, 1, 17, 3})},
    {"a shape of nothing", withOutput(reshaped({1, 1, 1, -1}), {"none", "y"})},
    {"a shape of itself", withOutput(reshaped({1, 2, 5, 5}), {"x", "x"})},

    {"too few slopes", prelu(), {1, 5, 5, 2}, {}, {2, 3, 3, 2}, 1},
    {"an activation without an output", withOutput(prelu(), {"x"})},
    {"probabilities of nothing", withOutput(softmax(), {"none", "y"})},
    {"probabilities without an output", withOutput(softmax(), {"x"})},
};

TEST(Refusals, RowsThatDoNotFitTheirTensors) {
  for (const Case& c : rightCases) {
    SmallNet small;
    build(small, c);
    EXPECT_TRUE(small.compute()) << c.what;
  }
  for (const Case& c : refusedCases) {
    SmallNet small;
    build(small, c);
    small.reshape();
    EXPECT_FALSE(small.run()) << c.what;
  }
}

// A tensor that is one smaller or larger than the shapes were inferred for has too few values or
// would leave some out. But an activation takes what there is, a sum repeats the smaller operand,
// and a reshape shapes its output.
TEST(Refusals, ShapesThatChangeBetweenFrames) {
  for (const Case& c : rightCases)
    for (const char* name : {"x", "z", "y"}) {
      SmallNet small;
      build(small, c);
      ASSERT_TRUE(small.compute()) << c.what;
      const std::string type = c.row.type;
      Tensor& tensor = small.tensor(name);
      const bool isUsed = name[0] != 'z' || c.row.io.size() == 3;
      if (!isUsed || (type == "Reshape" && name[0] == 'y'))
        continue;
      for (int32_t* extent : {&tensor.h, &tensor.w, &tensor.c})
        for (const int32_t change : {-1, 1}) {
          const bool isSmallerInput = name[0] != 'y' && change < 0;
          if (isSmallerInput && (type == "Activation" || type == "Add"))
            continue;
          *extent += change;
          EXPECT_FALSE(small.run()) << c.what << ": " << name << " of " << tensor.h << " x "
                                    << tensor.w << " x " << tensor.c;
          *extent -= change;
        }
      EXPECT_TRUE(small.run()) << c.what;
    }
}

}  // namespace
}  // namespace TavroRTC::FDModule
