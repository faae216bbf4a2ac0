// The embedded model against what makes a network of it: the block of weights is the file's and is
// filled without overlap, names resolve, and the shapes that follow from the rows, by a calculator
// of this test's own, fit from the picture to the two outputs.

#include "engine/model/model_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "engine/model/weight_block.h"
#include "engine/weight_packing.h"

namespace {

using namespace TavroRTC::FDModule;
using Names = std::vector<std::string>;

Names namesOf(std::span<const char* const> entries) {
  Names names;
  for (const char* entry : entries) {
    if (entry == nullptr || *entry == '\0')
      break;
    names.emplace_back(entry);
  }
  return names;
}

struct Shape {
  int64_t h = 0;
  int64_t w = 0;
  int64_t c = 0;
  bool operator==(const Shape&) const = default;
};

std::map<std::string, const TensorRow*> tensorsByName() {
  std::map<std::string, const TensorRow*> rows;
  for (const TensorRow& row : modelTensors())
    rows[row.name] = &row;
  return rows;
}

TEST(ModelTables, BlockHoldsTheFileAndTheTensorsFillIt) {
  std::ifstream file(TAVRO_WEIGHTS_PATH, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  ASSERT_EQ(bytes.size(), weightBlockSize);
  EXPECT_EQ(std::memcmp(bytes.data(), tavroModelWeights, weightBlockSize), 0);

  const unsigned char* end = tavroModelWeights;
  for (const TensorRow& row : modelTensors()) {
    SCOPED_TRACE(row.name);
    const auto* begin = static_cast<const unsigned char*>(row.data);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(begin) % 128, 0U);
    EXPECT_EQ(row.layout, layout::channelsFirst);
    EXPECT_EQ(row.dataType, DataType::float32);
    ASSERT_GE(begin, end);
    ASSERT_LT(begin - end, 128);
    EXPECT_TRUE(std::all_of(end, begin, [](unsigned char byte) { return byte == 0; }));

    std::vector<float> values(std::accumulate(
        std::begin(row.dims), std::end(row.dims), size_t{1},
        [](size_t product, int32_t extent) { return product * static_cast<size_t>(extent); }));
    end = begin + values.size() * sizeof(float);
    ASSERT_LE(end, tavroModelWeights + weightBlockSize);
    std::memcpy(values.data(), begin, values.size() * sizeof(float));
    EXPECT_TRUE(std::ranges::all_of(values, [](float value) { return std::isfinite(value); }));
    EXPECT_TRUE(std::ranges::any_of(values, [](float value) { return value != 0; }));
  }
  EXPECT_TRUE(std::all_of(end, tavroModelWeights + weightBlockSize,
                          [](unsigned char byte) { return byte == 0; }));
  EXPECT_LT(tavroModelWeights + weightBlockSize - end, 128);
}

TEST(ModelTables, EveryTensorServesOneLayer) {
  const auto tensors = tensorsByName();
  ASSERT_EQ(tensors.size(), modelTensors().size());
  std::set<std::string> used;
  std::map<std::string, int> typeCounts;
  for (const LayerRow& row : modelLayers()) {
    SCOPED_TRACE(row.name);
    ++typeCounts[row.type];
    const bool convolves = std::string(row.type).ends_with("Conv");
    const Names weights = namesOf(row.weights);
    ASSERT_EQ(weights.size(), convolves ? 2U : 0U);
    for (const std::string& weight : weights) {
      ASSERT_TRUE(tensors.contains(weight)) << weight;
      EXPECT_TRUE(used.insert(weight).second) << weight << " is used twice";
    }
    EXPECT_TRUE(std::ranges::all_of(row.floats, [](float value) { return value == 0; }));
  }
  EXPECT_EQ(used.size(), tensors.size());
  EXPECT_EQ(typeCounts, (std::map<std::string, int>{{"Add", 1},
                                                    {"Concat", 3},
                                                    {"Conv", 30},
                                                    {"DepthwiseConv", 17},
                                                    {"Relu", 34},
                                                    {"Reshape", 8},
                                                    {"Softmax", 1}}));
}

/// Walks the layers from the picture on and keeps the shapes.
class ShapeWalk {
 public:
  ShapeWalk() : tensors_(tensorsByName()) { shapes[modelInput] = {192, 192, 3}; }

  void step(const LayerRow& row) {
    Names inputs = namesOf(row.io);
    const std::string output = inputs.back();
    inputs.pop_back();
    EXPECT_EQ(output, row.name);
    EXPECT_FALSE(shapes.contains(output)) << "is written twice";
    ASSERT_FALSE(inputs.empty());
    for (const std::string& input : inputs)
      ASSERT_TRUE(shapes.contains(input)) << input << " isn't there yet";
    const Shape first = shapes[inputs.front()];
    const std::string type = row.type;
    if (type == "Conv" || type == "DepthwiseConv") {
      shapes[output] = convolve(row, first, type == "DepthwiseConv");
    } else if (type == "Concat") {
      Shape joined{first.h, first.w, 0};
      for (const std::string& input : inputs) {
        EXPECT_EQ((Shape{shapes[input].h, shapes[input].w, 0}), (Shape{first.h, first.w, 0}));
        joined.c += shapes[input].c;
      }
      shapes[output] = joined;
    } else if (type == "Reshape") {
      shapes[output] = reshape(row, first.h * first.w * first.c);
    } else {
      for (const std::string& input : inputs)
        EXPECT_EQ(shapes[input], first);
      shapes[output] = first;
    }
  }

  std::map<std::string, Shape> shapes;
  int64_t cost = 0;

 private:
  Shape convolve(const LayerRow& row, Shape input, bool depthwise) {
    const auto [kernelW, kernelH] = std::to_array<int64_t>({row.ints[0], row.ints[1]});
    const auto [padW, padH] =
        std::to_array<int64_t>({row.ints[2] + row.ints[3], row.ints[4] + row.ints[5]});
    const auto [strideW, strideH] = std::to_array<int64_t>({row.ints[6], row.ints[7]});
    const auto [dilationW, dilationH] = std::to_array<int64_t>({row.ints[8], row.ints[9]});
    EXPECT_EQ(row.ints[10], depthwise ? input.c : 0);
    const TensorRow& weight = *tensors_.at(row.weights[0]);
    const TensorRow& bias = *tensors_.at(row.weights[1]);
    const auto& [outputs, weightH, weightW, inputsOfGroup] = weight.dims;
    EXPECT_EQ(weightH, kernelH);
    EXPECT_EQ(weightW, kernelW);
    EXPECT_EQ(inputsOfGroup, depthwise ? 1 : input.c);
    EXPECT_EQ((std::array{bias.dims[0], bias.dims[1], bias.dims[2], bias.dims[3]}),
              (std::array{1, 1, 1, outputs}));
    // The last position at which the spread-out kernel still fits, counted in strides.
    const Shape output{(input.h + padH - 1 - (kernelH - 1) * dilationH) / strideH + 1,
                       (input.w + padW - 1 - (kernelW - 1) * dilationW) / strideW + 1, outputs};
    cost += 2 * output.h * output.w * outputs * weightH * weightW * inputsOfGroup;
    return output;
  }

  static Shape reshape(const LayerRow& row, int64_t count) {
    EXPECT_EQ(row.ints[0], 1);
    std::vector<int64_t> target{row.ints[1], row.ints[2], row.ints[3]};
    const auto open = std::ranges::find_if(target, [](int64_t extent) { return extent < 1; });
    if (open == target.end()) {
      ADD_FAILURE() << "no open extent";
      return {};
    }
    *open = 1;
    const int64_t known = target[0] * target[1] * target[2];
    EXPECT_EQ(count % known, 0);
    *open = count / known;
    return {target[0], target[1], target[2]};
  }

  std::map<std::string, const TensorRow*> tensors_;
};

TEST(ModelTables, ShapesFitFromThePictureToTheOutputs) {
  ShapeWalk walk;
  for (const LayerRow& row : modelLayers()) {
    SCOPED_TRACE(row.name);
    ASSERT_NO_FATAL_FAILURE(walk.step(row));
  }
  EXPECT_EQ(walk.shapes["304"], (Shape{24, 24, 64}));
  EXPECT_EQ(walk.shapes["322"], (Shape{12, 12, 96}));
  EXPECT_EQ(walk.shapes["334"], (Shape{6, 6, 128}));
  EXPECT_EQ(walk.shapes[modelScores], (Shape{1, 2088, 2}));
  EXPECT_EQ(walk.shapes[modelBoxes], (Shape{1, 2088, 4}));
  EXPECT_EQ(walk.cost, 82'404'864);
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
