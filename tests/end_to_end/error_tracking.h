#pragma once

// Maps of numbers that carry the error of a float evaluation along, and the operations of the
// reference network on them. Channels are innermost.
//
// The errors are followed as a statistician does: every rounding is an independent error, evenly
// spread over its range, that is, of variance (u s)^2 / 3 where s is the number that is rounded and
// u = 2^-24. (A bound that held even if all roundings conspired would grow by the sum of a filter's
// weight magnitudes in each layer; it exceeds 10^12 at the end of this network and says nothing.)
//
// A sum of a bias and k products x w passes each of its terms through k + 1 roundings at most, in
// any order and with or without fused multiply-adds. Its partial sums depend on the order, but none
// exceeds the sum of the magnitudes. So the variance is at most
//
//   (k + 1) / 3 * (u * (|bias| + sum |x| |w|))^2  +  sum v w^2
//
// for inputs of variance v. Left out is that inputs with common ancestors have errors in common.

#include <cstdint>
#include <span>
#include <vector>

namespace tavro::test {

struct Map {
  Map(int32_t mapHeight, int32_t mapWidth, int32_t mapChannels);

  size_t at(int32_t y, int32_t x) const {
    return (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
           static_cast<size_t>(channels);
  }

  int32_t height;
  int32_t width;
  int32_t channels;
  std::vector<double> value;
  std::vector<double> variance;
};

/// Bytes as numbers from 0 to 1.
Map normalized(std::span<const uint8_t> bytes, int32_t height, int32_t width, int32_t channels);

/// How a square kernel moves over a map. It is padded so that at stride 1 the size stays.
struct Window {
  int32_t side = 1;
  int32_t stride = 1;
  int32_t dilation = 1;
};

/// `weight`: output channel, input channel, row, column; as many outputs as biases.
Map convolution(const Map& input, Window window, std::span<const float> weight,
                std::span<const float> bias);
/// `weight`: channel, row, column.
Map depthwise(const Map& input, Window window, std::span<const float> weight,
              std::span<const float> bias);
Map relu(Map input);
Map sum(const Map& first, const Map& second);
/// The channels of all maps behind each other.
Map concatenation(std::span<const Map* const> inputs);
/// The probabilities of each two neighbouring channels.
Map softmaxOfPairs(const Map& input);

}  // namespace tavro::test
