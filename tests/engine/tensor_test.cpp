#include "engine/tensor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/weight_packing.h"
#include "tests/support/guarded_buffer.h"

// Leaks, double frees and writes past a buffer show in the build with the address sanitizer.

namespace TavroRTC::FDModule {
namespace {

using tavro::test::GuardedBuffer;

constexpr int32_t largest = std::numeric_limits<int32_t>::max();

void setExtents(Tensor& tensor, const TensorExtents& extents) {
  std::tie(tensor.n, tensor.h, tensor.w, tensor.c) =
      std::tie(extents.n, extents.h, extents.w, extents.c);
}

auto stateOf(const Tensor& t) {
  return std::tuple(t.n, t.h, t.w, t.c, t.elementCount, t.layout, t.floatData, t.floatBorrowed);
}

TEST(AlignedMemory, IsAlignedAndHasSpareBytes) {
  for (const size_t size : {0U, 1U, 63U, 64U, 65U, 100000U}) {
    void* buffer = alignedAlloc(size);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % bufferAlignment, 0U);
    std::memset(buffer, 1, size + spareBytes);
    alignedFree(buffer);
  }
  EXPECT_EQ(alignedAlloc(std::numeric_limits<size_t>::max()), nullptr);
  EXPECT_EQ(allocateAligned<float>(std::numeric_limits<size_t>::max() / 2), nullptr);
}

TEST(Tensor, CountIsTheProductUnlessItIsGiven) {
  const std::pair<TensorExtents, uint64_t> cases[] = {{{0, 0, 0, 0}, 0},
                                                      {{2, 3, 4, 5}, 120},
                                                      {{-2, 3, 4, 5}, static_cast<uint64_t>(-120)},
                                                      {{65536, 32768, 1, 1}, 0xFFFFFFFF80000000U},
                                                      {{largest, largest, 1, 1}, 1}};
  Tensor tensor;
  for (const auto& [extents, count] : cases) {
    setExtents(tensor, extents);
    EXPECT_EQ(tensor.count(), count);
  }
  tensor.elementCount = 9;
  EXPECT_EQ(tensor.count(), 9U);
}

TEST(Tensor, AllocatesOnceAndOnRequest) {
  for (const int32_t order : {layout::channelsLast, layout::block8}) {
    Tensor tensor;
    setExtents(tensor, {1, 2, 3, 4});
    float* values = tensor.data(order);
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(tensor.count(), order == layout::block8 ? 192U : 24U);
    std::memset(values, 0, tensor.count() * sizeof(float) + spareBytes);
    EXPECT_EQ(tensor.data(order), values);
    EXPECT_FALSE(tensor.floatBorrowed);
  }
}

TEST(Tensor, RepacksABorrowedWeightIntoItsOwnBuffer) {
  GuardedBuffer<float> table(60);
  std::iota(table.begin(), table.end(), 1.0F);
  const std::vector<float> before(table.begin(), table.end());
  Tensor weight;
  setExtents(weight, {10, 3, 1, 2});
  weight.layout = layout::channelsFirst;
  weight.borrow(table.data());
  EXPECT_EQ(weight.data(layout::channelsFirst), table.data());
  EXPECT_TRUE(weight.floatBorrowed);

  const float* packed = weight.data(layout::block8);
  ASSERT_NE(packed, nullptr);
  EXPECT_TRUE(packed != table.data() && !weight.floatBorrowed);
  EXPECT_EQ(weight.elementCount, 96U);
  EXPECT_EQ(packed[48], 13);  // the second block starts at output channel 2
  EXPECT_EQ(weight.data(layout::block8), packed);
  EXPECT_TRUE(std::equal(table.begin(), table.end(), before.begin()) && table.intact());

  // What is lent next is as long as the shape says, whatever the count of the packing before.
  weight.borrow(table.data());
  EXPECT_EQ(weight.count(), 96U);
  EXPECT_FALSE(weight.storageFits());
  EXPECT_EQ(weight.data(layout::block8), nullptr);

  Tensor bias;
  setExtents(bias, {1, 1, 1, 60});
  bias.layout = layout::channelsFirst;
  bias.borrow(table.data());
  const float* values = bias.data(layout::channelsLast);
  ASSERT_TRUE(values != nullptr && values != table.data());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), values));
  EXPECT_NE(bias.data(layout::channelsFirst), nullptr) << "a plain order can be left again";
}

TEST(Tensor, RefusesWhatItCannotPackAndStaysAsItWas) {
  GuardedBuffer<float> table(8);
  std::fill(table.begin(), table.end(), 1.0F);
  const struct {
    const char* reason;
    TensorExtents extents;
    int32_t layout;
    uint64_t elementCount;
    int32_t wanted;
    bool borrows;
  } cases[] = {
      {"from a blocked order", {8, 1, 1, 1}, layout::block8, 8, 0, true},
      {"from an order of the same sequence", {8, 1, 1, 1}, 18, 8, 0, true},
      {"fewer values than the extents tell", {8, 3, 1, 1}, 1, 8, layout::block8, true},
      {"negative extents", {-8, -1, 1, 1}, 1, 0, layout::block8, true},
      {"negative code", {8, 1, 1, 1}, 1, 0, -1, true},
      {"a 32-bit count that wraps", {largest, largest, 1, 1}, 1, 0, layout::block8, true},
      {"more memory than there is", {largest, largest, 1, 1}, 1, 0, layout::block8, false},
      {"a count past 64 bits", {largest, largest, largest, 1}, 1, 0, layout::block8, false},
      {"a negative count", {8, -1, 1, 1}, 0, 0, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    Tensor tensor;
    setExtents(tensor, c.extents);
    tensor.layout = c.layout;
    tensor.elementCount = c.elementCount;
    if (c.borrows)
      tensor.borrow(table.data());
    const auto before = stateOf(tensor);
    EXPECT_EQ(tensor.data(c.wanted), nullptr);
    EXPECT_EQ(stateOf(tensor), before);
  }
}

TEST(Tensor, OwnsOrBorrowsEachStorage) {
  float floats[4] = {1, 2, 3, 4};
  uint8_t bytes[4] = {};
  Tensor tensor;
  setExtents(tensor, {1, 1, 2, 2});
  float* own = tensor.data(0);
  tensor.borrow(static_cast<float*>(nullptr));
  tensor.borrow(own);
  EXPECT_TRUE(tensor.floatData == own && !tensor.floatBorrowed);
  own[3] = 4;  // still allocated

  tensor.borrow(floats);
  EXPECT_TRUE(tensor.data(0) == floats && tensor.floatBorrowed);
  tensor.borrow(floats + 2);
  tensor.borrow(static_cast<float*>(nullptr));
  EXPECT_TRUE(tensor.floatData == floats + 2 && tensor.floatBorrowed);

  tensor.byteData = static_cast<uint8_t*>(alignedAlloc(4));
  tensor.borrow(bytes);
  EXPECT_TRUE(tensor.byteData == bytes && tensor.byteBorrowed && !tensor.halfBorrowed);
  tensor.halfData = static_cast<uint16_t*>(alignedAlloc(4));
}

TEST(Tensor, ConvertsItsHalvesAndItsFloatsOnEveryCall) {
  Tensor tensor;
  setExtents(tensor, {1, 1, 1, 10});
  tensor.halfToFloat();
  EXPECT_EQ(tensor.floatData, nullptr);

  GuardedBuffer<uint16_t> halves(10);
  for (const auto& [half, value] : {std::pair<uint16_t, float>{0x3C00, 1}, {0xC000, -2}}) {
    std::fill(halves.begin(), halves.end(), half);
    tensor.borrow(halves.data());
    tensor.halfToFloat();
    ASSERT_NE(tensor.floatData, nullptr);
    EXPECT_EQ(std::count(tensor.floatData, tensor.floatData + 10, value), 10);
  }
  tensor.halfData = nullptr;
  for (const int32_t channels : {11, 10}) {  // more than there are, then what there is
    tensor.c = channels;
    tensor.floatToHalf();
    EXPECT_EQ(tensor.halfData != nullptr, channels == 10);
  }
  EXPECT_EQ(std::count(tensor.halfData, tensor.halfData + 10, 0xC000), 10);

  for (const int32_t channels : {-1, 11}) {
    Tensor impossible;
    setExtents(impossible, {1, 1, 1, 10});
    impossible.borrow(halves.data());
    impossible.c = channels;
    impossible.halfToFloat();
    EXPECT_EQ(impossible.floatData, nullptr);
  }
}

TEST(Tensor, CopiesShapeAndValues) {
  GuardedBuffer<float> table(10);
  std::iota(table.begin(), table.end(), 1.0F);
  Tensor source;
  setExtents(source, {10, 1, 1, 1});
  source.layout = layout::channelsFirst;
  source.borrow(table.data());
  const float* packed = source.data(layout::block8);
  ASSERT_NE(packed, nullptr);

  Tensor copy;
  ASSERT_TRUE(source.copyTo(copy));
  EXPECT_TRUE(copy.n == 10 && copy.layout == layout::block8 && copy.elementCount == 0);
  EXPECT_TRUE(std::equal(packed, packed + 16, copy.data(layout::block8)));
  EXPECT_TRUE(source.copyTo(source));

  float storage[12] = {};
  Tensor small;
  setExtents(small, {1, 1, 1, 12});
  small.borrow(storage);
  const auto before = stateOf(small);
  EXPECT_FALSE(source.copyTo(small)) << "16 values don't fit";
  EXPECT_EQ(stateOf(small), before);
  small.c = -1;
  EXPECT_FALSE(small.copyTo(copy));

  Tensor large;
  large.elementCount = 100;
  ASSERT_TRUE(source.copyTo(large));
  EXPECT_EQ(large.count(), 100U);
  std::memset(large.data(layout::block8), 0, 100 * sizeof(float));
}

TEST(Tensor, ShapeThatOutgrowsItsStorageIsRefused) {
  float lent[10] = {};
  for (float* storage : {lent, static_cast<float*>(nullptr)}) {  // or its own
    Tensor tensor;
    Tensor copy;
    setExtents(tensor, {1, 1, 1, 10});
    tensor.borrow(storage);
    ASSERT_NE(tensor.data(layout::channelsLast), nullptr);
    for (tensor.c = 11; tensor.c < 2000; tensor.c *= 10) {
      EXPECT_EQ(tensor.data(layout::channelsLast), nullptr);
      EXPECT_EQ(tensor.data(layout::block4), nullptr);
      EXPECT_EQ(tensor.floatStorage(), nullptr);
      EXPECT_FALSE(tensor.copyTo(copy));
    }
    tensor.c = 10;
    EXPECT_NE(tensor.data(layout::channelsLast), nullptr);
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
