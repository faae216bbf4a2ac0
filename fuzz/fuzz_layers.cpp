// What libFuzzer calls: it turns arbitrary bytes into arbitrary use of the layers, and stops if
// they misbehave. The preset `fuzz` links it with libFuzzer; in all others replay_main.cpp feeds it
// the committed corpus as an ordinary test. Memory that the layers may touch is allocated to the
// byte, so that the address sanitizer sees any touch beyond it.
//
// Rows of a layer table with any type, parameters and tensor names work on tensors of any shape.
// A tensor has exactly the values of its shape, or none, or a shape that has outgrown them. Then
// the tensors are lent other values, reshaped or repacked, and a second generation of rows works on
// what the first has left. A layer computes or refuses; it never touches anything else.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/net.h"
#include "impl_x86/x86_run_env.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for the two ends of a wrap
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size);

namespace {

// While the layers run or a tensor is repacked, a larger request fails, as on a machine that has no
// more: an input can't ask for the whole memory or for hours of work.
constexpr size_t largestRequest = size_t{1} << 18;
bool isScarce = false;

}  // namespace

void* __wrap_malloc(size_t size) {
  return isScarce && size > largestRequest ? nullptr : __real_malloc(size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using namespace TavroRTC::FDModule;

/// Takes values from the fuzzer's bytes, from first to last; zeros once they are used up.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : next_(data), left_(size) {}

  bool isEmpty() const { return left_ == 0; }
  uint8_t byte() {
    if (left_ == 0)
      return 0;
    --left_;
    return *next_++;
  }
  uint32_t word() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
      value = value << 8 | byte();
    return value;
  }
  /// True in `share` of 256 cases.
  bool chance(int share) { return byte() >= 256 - share; }
  /// From first to last, at most 65536 values.
  int32_t between(int32_t first, int32_t last) {
    const auto range = static_cast<uint32_t>(last - first) + 1;
    const uint32_t high = range <= 256 ? 0U : byte();
    const uint32_t value = high << 8 | byte();
    return first + static_cast<int32_t>(value % range);
  }
  /// Any number, most often one at which something could turn.
  int32_t number() {
    constexpr int32_t turns[] = {0,     1,       -1,      2,         3,        4,     7,
                                 8,     15,      16,      17,        31,       32,    33,
                                 64,    255,     256,     32767,     32768,    32769, 65535,
                                 65536, 1 << 20, 1 << 30, INT32_MAX, INT32_MIN};
    const uint8_t which = byte();
    if (which < std::size(turns))
      return turns[which];
    return which < 192 ? which - 100 : static_cast<int32_t>(word());
  }
  template <typename T, size_t count>
  T pick(const T (&values)[count]) {
    return values[static_cast<size_t>(byte()) % count];
  }

 private:
  const uint8_t* next_;
  size_t left_;
};

constexpr int64_t mostValues = 512;
constexpr int mostRows = 4;

constexpr const char* types[] = {"Activation",  "Relu",          "Concat",        "Conv", "Conv",
                                 "Conv",        "DepthwiseConv", "DepthwiseConv", "Gemm", "Softmax",
                                 "AveragePool", "Reshape",       "Add",           "Mul"};
constexpr const char* tensorNames[] = {"a", "b", "c", "d", "e"};
constexpr const char* constantNames[] = {"u", "v", "w", "nowhere"};

/// Values that tensors borrow, each buffer exactly as long as the tensor's shape says. `value()`
/// returns one value after the other.
class LentValues {
 public:
  template <typename Value>
  void lend(Tensor& tensor, Value value) {
    using T = decltype(value());
    size_t count = 1;
    for (const int32_t extent : {tensor.n, tensor.h, tensor.w, tensor.c})
      count *= static_cast<size_t>(extent);
    std::shared_ptr<T[]> memory(new T[count]);
    std::generate_n(memory.get(), count, value);
    tensor.borrow(memory.get());
    buffers_.push_back(std::move(memory));
  }

 private:
  std::vector<std::shared_ptr<void>> buffers_;
};

float drawFloat(ByteReader& in) {
  const uint8_t kind = in.byte();
  if (kind < 200)
    return static_cast<float>(static_cast<int8_t>(in.byte())) / 16;
  return std::bit_cast<float>(in.word());
}

void drawShape(Tensor& tensor, ByteReader& in) {
  for (int32_t* extent : {&tensor.n, &tensor.h, &tensor.w, &tensor.c})
    *extent = in.chance(12) ? in.number() : in.between(extent == &tensor.n ? 1 : 0, 9);
  if (in.chance(128))
    tensor.n = 1;
  tensor.layout = in.chance(16) ? in.number() : in.between(0, 1);
}

bool isSmall(const Tensor& tensor) {
  int64_t count = 1;
  for (const int32_t extent : {tensor.n, tensor.h, tensor.w, tensor.c}) {
    if (extent < 1 || extent > mostValues)
      return false;
    count *= extent;
  }
  return count <= mostValues;
}

void drawTensor(Tensor& tensor, LentValues& values, ByteReader& in) {
  drawShape(tensor, in);
  const uint8_t storage = in.byte();
  uint32_t noise = in.word();
  const auto next = [&noise] { return noise = noise * 1664525U + 1013904223U; };
  if (!isSmall(tensor) || storage < 32)
    return;
  if (storage < 192)
    values.lend(tensor, [&] { return static_cast<float>(next() >> 24) / 32 - 4; });
  if (storage >= 160) {
    values.lend(tensor, [&] { return static_cast<uint8_t>(next() >> 24); });
    tensor.mean[0] = drawFloat(in);
    tensor.scale[0] = drawFloat(in);
  }
  if (in.chance(8))
    ++tensor.c;  // more than the storage has
}

LayerRow drawRow(ByteReader& in) {
  LayerRow row;
  row.name = in.chance(4) ? nullptr : "row";
  row.type = in.chance(4) ? nullptr : in.pick(types);
  // The parameters of a window, most often sensible ones.
  const bool isSensible = in.chance(200);
  for (int i = 0; i < 16; ++i) {
    const int32_t low = i < 2 || (i >= 6 && i < 10) ? 1 : 0;
    row.ints[i] = isSensible && !in.chance(8) ? in.between(low, i == 10 ? 9 : 3) : in.number();
  }
  row.floats[0] = drawFloat(in);
  row.floats[1] = drawFloat(in);
  const int32_t names = in.between(0, in.chance(32) ? 8 : 3);
  for (int32_t i = 0; i < names; ++i)
    row.io[i] = in.chance(4) ? "" : in.pick(tensorNames);
  const int32_t constants = in.between(0, in.chance(16) ? 8 : 2);
  for (int32_t i = 0; i < constants; ++i)
    row.weights[i] = in.pick(constantNames);
  return row;
}

// The row's weight gets the shape that a window over the row's input asks for.
void fitWeight(const LayerRow& row, Net& net, LentValues& values, ByteReader& in) {
  if (row.io[0] == nullptr || row.weights[0] == nullptr || !net.weights.contains(row.weights[0]) ||
      !net.tensors.contains(row.io[0]))
    return;
  Tensor& weight = net.weights[row.weights[0]];
  const bool isGrouped = row.type != nullptr && row.type == std::string("DepthwiseConv");
  const int32_t group = isGrouped ? std::max(row.ints[10], 1) : 1;
  weight.n = in.chance(128) ? group : in.between(1, 33);
  weight.h = row.ints[1];
  weight.w = row.ints[0];
  weight.c = net.tensors[row.io[0]].c / group;
  weight.layout = 1;
  if (isSmall(weight))
    values.lend(weight, [] { return 0.5F; });
}

// Rows of a later generation read what a row before them has written, more often than not, and
// flatten or work in place.
LayerRow drawFollower(const LayerRow& before, ByteReader& in) {
  LayerRow row = drawRow(in);
  if (before.io[1] != nullptr && in.chance(128))
    row.io[0] = before.io[1];
  if (row.io[1] != nullptr && in.chance(64))
    row.io[1] = row.io[0];
  if (row.type != nullptr && row.type == std::string("Reshape") && in.chance(192)) {
    constexpr int32_t flat[] = {1, 1, 1, -1};
    std::copy_n(flat, 4, row.ints);
  }
  return row;
}

// What may happen to a tensor between two generations.
void changeTensor(Tensor& tensor, LentValues& values, ByteReader& in) {
  switch (in.byte() % 3) {
    case 0:
      drawShape(tensor, in);
      break;
    case 1:
      drawTensor(tensor, values, in);
      break;
    default:
      isScarce = true;
      tensor.data(in.between(0, 6));
      isScarce = false;
  }
}

void runGeneration(const std::vector<LayerRow>& rows, Net& net, ByteReader& in) {
  isScarce = true;
  net.addLayers(rows);
  if (in.chance(192))
    net.env->rewriteGraph(&net);
  net.warmedUp = false;
  net.warmup();
  for (int i = 0; i < 2; ++i) {
    net.run();
    for (const Layer* layer : net.layers)
      static_cast<void>(layer->describe());
    // A shape that changes behind the layers' back.
    if (in.chance(64))
      drawShape(net.tensors[in.pick(tensorNames)], in);
  }
  isScarce = false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::FILE* const quiet = std::freopen("/dev/null", "w", stdout);
  if (quiet == nullptr)
    std::abort();
  ByteReader in(data, size);
  LentValues values;
  Net net(new x86::RunEnv);
  for (const char* name : {"a", "b", "c"})
    drawTensor(net.tensors[name], values, in);
  for (const char* name : {"u", "v", "w"})
    drawTensor(net.weights[name], values, in);
  std::vector<LayerRow> rows;
  const int count = in.between(1, mostRows);
  for (int i = 0; i < count; ++i) {
    rows.push_back(drawRow(in));
    if (in.chance(200))
      fitWeight(rows.back(), net, values, in);
  }
  runGeneration(rows, net, in);
  if (in.isEmpty())
    return 0;
  const int changes = in.between(0, 3);
  for (int i = 0; i < changes; ++i)
    changeTensor(net.tensors[in.pick(tensorNames)], values, in);
  const LayerRow last = rows.back();
  rows.clear();
  for (int i = in.between(1, mostRows); i > 0; --i)
    rows.push_back(drawFollower(rows.empty() ? last : rows.back(), in));
  runGeneration(rows, net, in);
  return 0;
}
