// The embedded model's block of weights is the file's, its tensors fill it without overlap, and all
// of it is read-only. That the rows make the right network of it is shown by the comparison with
// the reference network, which is drawn a second time
// (tests/end_to_end/network_agreement_test.cpp).

#include "engine/model/model_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <vector>

#include "engine/model/weight_block.h"
#include "engine/weight_packing.h"

namespace {

using namespace TavroRTC::FDModule;

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
