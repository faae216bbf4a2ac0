#include "engine/weight_packing.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

namespace TavroRTC::FDModule {
namespace {

enum Axis : uint8_t { h, w, c };

constexpr int32_t allOutputs = 0;

// One layout: the loops inside a block of `lanes` output channels, outermost first. Behind the
// lanes lie `channelGroup` neighbouring input channels of each; the loop `c` then runs over groups.
struct LayoutRule {
  int32_t lanes;
  std::array<Axis, 3> order;
  int32_t channelGroup = 1;
  // The layout exists for whole blocks and groups and for a channelsFirst source. Anything else is
  // packed as `fallbackRule`: the buffer has no room for padding, and no element may get lost.
  bool exactOnly = false;
};

// The kernels ask for nine of these. The others keep their numbers: a code in a stored tensor
// means the same in every version, and a kernel that wants another order finds it here.
constexpr std::array<LayoutRule, 26> layoutRules = {{
    {1, {h, w, c}},                    // 0: channelsLast
    {1, {c, h, w}},                    // 1: channelsFirst
    {32, {h, w, c}},                   // 2
    {24, {h, w, c}},                   // 3
    {16, {h, w, c}},                   // 4
    {8, {h, w, c}},                    // 5
    {4, {h, w, c}},                    // 6
    {2, {h, w, c}},                    // 7
    {1, {h, w, c}},                    // 8
    {24, {h, c, w}},                   // 9
    {16, {h, c, w}},                   // 10
    {12, {h, c, w}},                   // 11
    {8, {h, c, w}},                    // 12
    {4, {h, c, w}},                    // 13
    {2, {h, c, w}},                    // 14
    {1, {h, c, w}},                    // 15
    {4, {c, h, w}},                    // 16
    {8, {c, h, w}},                    // 17
    {1, {h, w, c}},                    // 18
    {allOutputs, {h, c, w}, 1, true},  // 19
    {allOutputs, {h, w, c}},           // 20
    {24, {c, h, w}, 4, true},          // 21
    {18, {c, h, w}, 4, true},          // 22
    {24, {c, h, w}, 8, true},          // 23
    {18, {c, h, w}, 8, true},          // 24
    {4, {c, w, h}, 1, true},           // 25
}};

constexpr const LayoutRule& fallbackRule = layoutRules[18];

const LayoutRule& findRule(int32_t layoutCode) {
  const auto index = static_cast<size_t>(layoutCode);
  return index < layoutRules.size() ? layoutRules[index] : fallbackRule;
}

int32_t laneCount(const LayoutRule& rule, int32_t n) {
  return rule.lanes == allOutputs ? std::max(n, 1) : rule.lanes;
}

bool applies(const LayoutRule& rule, const TensorExtents& extents, int32_t sourceCode) {
  if (!rule.exactOnly)
    return true;
  return sourceCode == layout::channelsFirst && extents.n % laneCount(rule, extents.n) == 0 &&
         extents.c % rule.channelGroup == 0;
}

struct Loop {
  int64_t extent;
  int64_t stride;  // between neighbours in the source
};

struct SourceLoops {
  std::array<Loop, 3> axes;  // by Axis
  int64_t outputStride;
};

SourceLoops sourceLoops(const TensorExtents& extents, int32_t sourceCode) {
  const int64_t height = extents.h;
  const int64_t width = extents.w;
  const int64_t channels = extents.c;
  const int64_t outputStride = height * width * channels;
  if (sourceCode == layout::channelsLast)
    return {{{{height, width * channels}, {width, channels}, {channels, 1}}}, outputStride};
  return {{{{height, width}, {width, 1}, {channels, height * width}}}, outputStride};
}

}  // namespace

int32_t layoutBlockSize(int32_t layoutCode, int32_t n) {
  const LayoutRule& rule = findRule(layoutCode);
  return rule.exactOnly ? 1 : laneCount(rule, n);
}

std::optional<uint64_t> packedElementCount(const TensorExtents& extents, int32_t layoutCode) {
  if (layoutCode < 0 || std::min({extents.n, extents.h, extents.w, extents.c}) < 0)
    return std::nullopt;
  const int64_t blockSize = layoutBlockSize(layoutCode, extents.n);
  auto count = static_cast<uint64_t>((extents.n + blockSize - 1) / blockSize * blockSize);
  for (const int32_t extent : {extents.h, extents.w, extents.c}) {
    const auto factor = static_cast<uint64_t>(extent);
    if (factor != 0 && count > std::numeric_limits<uint64_t>::max() / factor)
      return std::nullopt;
    count *= factor;
  }
  return count;
}

void packWeights(const float* src, float* dst, const TensorExtents& extents, int32_t sourceCode,
                 int32_t layoutCode) {
  if ((sourceCode != layout::channelsLast && sourceCode != layout::channelsFirst) ||
      packedElementCount(extents, layoutCode).value_or(0) == 0)
    return;
  const LayoutRule& wanted = findRule(layoutCode);
  const LayoutRule& rule = applies(wanted, extents, sourceCode) ? wanted : fallbackRule;
  const int64_t lanes = laneCount(rule, extents.n);
  const int64_t realLanes = std::min<int64_t>(lanes, extents.n);
  const int64_t group = rule.channelGroup;

  SourceLoops source = sourceLoops(extents, sourceCode);
  const int64_t channelStride = source.axes[c].stride;
  source.axes[c] = {source.axes[c].extent / group, channelStride * group};
  const Loop outer = source.axes[rule.order[0]];
  const Loop middle = source.axes[rule.order[1]];
  const Loop inner = source.axes[rule.order[2]];

  for (int64_t next = 0; next < extents.n; next += lanes) {
    const int64_t first = std::max<int64_t>(0, std::min(next, extents.n - lanes));
    const float* block = src + first * source.outputStride;
    for (int64_t i = 0; i < outer.extent; ++i)
      for (int64_t j = 0; j < middle.extent; ++j)
        for (int64_t k = 0; k < inner.extent; ++k) {
          const float* element = block + i * outer.stride + j * middle.stride + k * inner.stride;
          for (int64_t lane = 0; lane < realLanes; ++lane)
            for (int64_t channel = 0; channel < group; ++channel)
              *dst++ = element[lane * source.outputStride + channel * channelStride];
          dst = std::fill_n(dst, (lanes - realLanes) * group, 0.0F);
        }
  }
}

}  // namespace TavroRTC::FDModule
