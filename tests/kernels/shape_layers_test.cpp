// Concat and Reshape, which move no arithmetic, and Gemm in its stated order, bit for bit.

#include <gtest/gtest.h>

#include <numeric>
#include <utility>
#include <vector>

#include "tests/kernels/small_net.h"
#include "tests/support/random.h"
#include "tests/support/sweep.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

bool hasExtents(const Tensor& tensor, const Extents& extents) {
  return tensor.n == extents.n && tensor.h == extents.h && tensor.w == extents.w &&
         tensor.c == extents.c;
}

// --- Concat ---

TEST(Concat, interleavesThePixelsOfItsInputs) {
  constexpr const char* names[] = {"a", "b", "c", "d"};
  for (const std::vector<int32_t>& channels :
       {std::vector{3, 5}, {4, 8}, {1}, {2, 7, 9}, {1, 1, 16, 6}}) {
    SmallNet small;
    RowOf row = {.type = "Concat"};
    for (size_t i = 0; i < channels.size(); ++i) {
      const Extents extents = {1, 2, 3, channels[i]};
      std::vector<float> values(extents.count());
      std::iota(values.begin(), values.end(), static_cast<float>(1000 * i));
      small.addInput(names[i], extents, values);
      row.io.push_back(names[i]);
    }
    row.io.push_back("y");
    small.addLayer(row);
    ASSERT_TRUE(small.compute());
    std::vector<float> expected;
    for (int32_t pixel = 0; pixel < 6; ++pixel)
      for (size_t i = 0; i < channels.size(); ++i)
        for (int32_t channel = 0; channel < channels[i]; ++channel)
          expected.push_back(static_cast<float>(1000 * i) +
                             static_cast<float>(pixel * channels[i] + channel));
    EXPECT_EQ(small.values("y"), expected);
  }
}

// --- Reshape ---

TEST(Reshape, lendsItsInputUnderAnotherShape) {
  const struct {
    Extents input;
    std::vector<int32_t> target;
    Extents output;
  } cases[] = {{{1, 1, 1, 4176}, {1, 1, -1, 2}, {1, 1, 2088, 2}},
               {{1, 24, 24, 6}, {1, 1, 1, -1}, {1, 1, 1, 3456}},
               {{1, 4, 4, 2}, {1, 0, 8, 2}, {1, 2, 8, 2}},
               {{1, 4, 4, 2}, {1, 2, 4, 4}, {1, 2, 4, 4}},
               {{1, 1, 1, 7}, {1, 1, -1, 2}, {1, 1, 3, 2}},  // truncates
               {{1, 1, 1, 7}, {1, 1, 2, 2}, {1, 1, 2, 2}}};  // takes the first values
  for (const auto& c : cases) {
    SmallNet small;
    Tensor& x = small.addInput("x", c.input, std::vector<float>(c.input.count()));
    std::vector<uint16_t> half(c.input.count());
    x.borrow(half.data());
    small.addLayer({.type = "Reshape", .io = {"x", "y"}, .ints = c.target});
    ASSERT_TRUE(small.compute());
    const Tensor& y = small.tensor("y");
    EXPECT_TRUE(hasExtents(y, c.output)) << y.n << ' ' << y.h << ' ' << y.w << ' ' << y.c;
    EXPECT_TRUE(y.floatData == x.floatData && y.halfData == half.data() && y.floatBorrowed);

    std::vector<float> other(c.input.count());
    x.borrow(other.data());
    ASSERT_TRUE(small.run());
    EXPECT_EQ(y.floatData, other.data()) << "kept a buffer that its input has left";
  }
}

// The output has been packed before: 16 blocks' lanes for 10 values. What it counts and how much
// memory it has follow from its input from then on, in floats and in halves.
TEST(Reshape, forgetsWhatItsOutputHeldBefore) {
  SmallNet small;
  Tensor& x = small.addInput("x", {1, 1, 1, 4}, {1, 2, 3, 4});
  std::vector<uint16_t> halves(4, 0x3C00);
  x.borrow(halves.data());
  small.addLayer({.type = "Reshape", .io = {"x", "y"}, .ints = {1, 1, 1, -1}});
  Tensor& y = small.tensor("y");
  y.n = 10;
  y.h = y.w = y.c = 1;
  ASSERT_NE(y.data(5), nullptr);
  ASSERT_EQ(y.count(), 16U);
  ASSERT_TRUE(small.compute());
  EXPECT_EQ(y.count(), 4U);
  y.c = 5;  // one more than the lender has
  EXPECT_FALSE(y.storageFits() || y.halfStorageFits());
  EXPECT_EQ(y.data(0), nullptr);
  x.c = 5;
  EXPECT_FALSE(small.run());
}

// --- Gemm ---

// The sum of a[i] * b[i]: in lanes of blocks of 4, or of 8 on a processor without AVX and FMA; what
// is left joins the bias, and then the lanes do.
float dotInOrder(const float* a, const float* b, int32_t count, float bias, bool isWide) {
  const int32_t block = isWide ? 4 : 8;
  const int32_t inLanes = count / block * block;
  float lanes[8] = {};
  for (int32_t i = 0; i < inLanes; ++i)
    lanes[i % block] += a[i] * b[i];
  for (int32_t i = inLanes; i < count; ++i)
    bias += a[i] * b[i];
  for (int32_t lane = 0; lane < block; ++lane)
    bias += lanes[lane];
  return bias;
}

TEST(Gemm, multipliesMatrixAndVectorInTheStatedOrder) {
  TracedRandom random;
  for (int i = 0; i < caseCount(600); ++i) {
    const bool isRow = random.chance(0.5);
    const int32_t m = isRow ? 1 : random.between(1, 40);
    const int32_t k = random.between(1, 40);
    const int32_t n = isRow ? random.between(1, 40) : 1;
    const bool transA = random.chance(0.4);
    const bool transB = random.chance(0.5);
    const int32_t layoutA = random.between(0, 1);
    const int32_t layoutB = random.between(0, 1);
    const bool isWide = random.chance(0.5);
    const Processor processor(isWide);
    SCOPED_TRACE(testing::Message() << "m " << m << " k " << k << " n " << n << " transposed "
                                    << transA << transB << " layouts " << layoutA << layoutB);
    // A rows x columns matrix, in layout code 1 (h, w) or 0 (w, c).
    const auto matrix = [](bool isTransposed, int32_t rows, int32_t columns, int32_t layout) {
      if (isTransposed)
        std::swap(rows, columns);
      return layout == 1 ? Extents{1, rows, columns, 1} : Extents{1, 1, rows, columns};
    };
    const std::vector<float> a = drawFloats(static_cast<size_t>(m * k), random);
    const std::vector<float> b = drawFloats(static_cast<size_t>(k * n), random);
    const auto length = static_cast<size_t>(n != 1 ? n : m);
    const bool hasBias = random.chance(0.6);
    const std::vector<float> bias =
        hasBias ? drawFloats(length, random) : std::vector<float>(length);
    SmallNet small;
    small.addInput("x", matrix(transA, m, k, layoutA), a, layoutA);
    small.addConstant("matrix", matrix(transB, k, n, layoutB), b, layoutB);
    if (hasBias)
      small.addConstant("bias", {1, 1, 1, static_cast<int32_t>(length)}, bias, 0);
    small.addLayer({.type = "Gemm",
                    .io = {"x", "y"},
                    .ints = {transA, transB},
                    .floats = {3, 5},  // without effect
                    .weights = {"matrix", "bias"}});
    ASSERT_TRUE(small.reshape());
    const auto size = static_cast<int32_t>(length);
    EXPECT_TRUE(hasExtents(small.tensor("y"),
                           layoutA == 0 ? Extents{1, 1, 1, size} : Extents{1, 1, size, 1}));
    if (transA && m != 1) {
      ASSERT_FALSE(small.run());
      continue;
    }
    std::vector<float> expected;
    for (int32_t row = 0; row < size; ++row) {
      const size_t at = static_cast<size_t>(row);
      if (n == 1 && !transA) {
        expected.push_back(
            dotInOrder(&a[at * static_cast<size_t>(k)], b.data(), k, bias[at], isWide));
      } else if (transB) {
        expected.push_back(
            dotInOrder(&b[at * static_cast<size_t>(k)], a.data(), k, bias[at], isWide));
      } else {
        expected.push_back(bias[at]);
        for (size_t j = 0; j < static_cast<size_t>(k); ++j)
          expected.back() += a[j] * b[j * length + at];
      }
    }
    for (int run = 0; run < 2; ++run) {
      ASSERT_TRUE(small.run());
      ASSERT_TRUE(sameFloats(small.values("y"), expected)) << "run " << run;
    }
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
