#include "tests/end_to_end/reference_network.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace tavro::test {
namespace {

static_assert(std::endian::native == std::endian::little, "the file's floats are read as they are");

size_t asSize(int32_t number) {
  return static_cast<size_t>(number);
}

using Weights = std::map<std::string, std::vector<float>>;

/// Channels are innermost.
struct Map {
  Map(int32_t mapHeight, int32_t mapWidth, int32_t mapChannels)
      : height(mapHeight),
        width(mapWidth),
        channels(mapChannels),
        value(asSize(height) * asSize(width) * asSize(channels)) {}

  size_t at(int32_t y, int32_t x) const {
    return (asSize(y) * asSize(width) + asSize(x)) * asSize(channels);
  }

  int32_t height, width, channels;
  std::vector<double> value;
};

/// How a square kernel moves over a map. It is padded so that at stride 1 the size stays.
struct Window {
  int32_t side = 1;
  int32_t stride = 1;
  int32_t dilation = 1;
};

/// The network's layers by their names in the file of weights.
class Layers {
 public:
  explicit Layers(Weights& weights) : weights_(weights) {}

  Map conv(const Map& input, const std::string& weight, const std::string& bias, int32_t outputs,
           Window window) {
    return slide(input, weight, bias, outputs, window, input.channels);
  }

  /// A 3x3 filter for each channel, then a mixture of the channels.
  Map separable(const Map& input, const std::string& block, const std::string& firstBias,
                const std::string& secondBias, int32_t outputs, int32_t stride = 1) {
    const Map filtered = relu(filter(input, block + ".0.weight", firstBias + "_bias", stride));
    return relu(conv(filtered, block + ".3.weight", secondBias + "_bias", outputs, {}));
  }

  Map head(const Map& input, const std::string& path, int32_t outputs) {
    const Map filtered = relu(filter(input, path + ".0.weight", path + ".0.bias", 1));
    return conv(filtered, path + ".2.weight", path + ".2.bias", outputs, {});
  }

  /// Four ways from 24x24x64 to itself: three that look further and further around, joined and
  /// mixed, and a shortcut.
  Map multiBranch(const Map& input) {
    const auto part = [this](const Map& map, const std::string& name, const std::string& bias,
                             int32_t outputs, Window window) {
      return conv(map, "conv8." + name + ".conv.weight", bias + "_bias", outputs, window);
    };
    const Window point{.side = 1};
    const Window square{.side = 3};
    const auto wide = [](int32_t dilation) { return Window{.side = 3, .dilation = dilation}; };

    Map near = part(input, "branch0.0", "274", 8, point);
    near = relu(part(near, "branch0.1", "276", 16, square));
    near = part(near, "branch0.2", "279", 16, wide(2));

    Map middle = part(input, "branch1.0", "281", 8, point);
    middle = relu(part(middle, "branch1.1", "283", 16, square));
    middle = part(middle, "branch1.2", "286", 16, wide(3));

    Map far = part(input, "branch2.0", "288", 8, point);
    far = relu(part(far, "branch2.1", "290", 12, square));
    far = relu(part(far, "branch2.2", "293", 16, square));
    far = part(far, "branch2.3", "296", 16, wide(5));

    Map joined(input.height, input.width, 16 * 3);
    auto next = joined.value.begin();
    for (size_t pixel = 0; pixel < near.value.size(); pixel += 16)
      for (const Map* branch : {&near, &middle, &far})
        next = std::copy_n(&branch->value[pixel], 16, next);

    Map mixed = part(joined, "ConvLinear", "299", 64, point);
    const Map shortcut = part(input, "shortcut", "301", 64, point);
    std::ranges::transform(mixed.value, shortcut.value, mixed.value.begin(), std::plus());
    return relu(mixed);
  }

  static Map relu(Map map) {
    for (double& x : map.value)
      x = std::max(x, 0.0);
    return map;
  }

 private:
  Map filter(const Map& input, const std::string& weight, const std::string& bias, int32_t stride) {
    return slide(input, weight, bias, input.channels, {.side = 3, .stride = stride}, 1);
  }

  /// A convolution, of all input channels for each output or of its own channel alone. The weight's
  /// order is output channel, input channel, row, column.
  Map slide(const Map& input, const std::string& weightName, const std::string& biasName,
            int32_t outputs, Window window, int32_t inputsOfOutput) {
    const size_t inputs = asSize(inputsOfOutput), count = asSize(outputs);
    const size_t taps = asSize(window.side * window.side);
    const auto& weight = find(weightName, count * inputs * taps);
    const auto& bias = find(biasName, count);
    std::vector<float> outputsInnermost(weight.size());
    for (size_t o = 0; o < count; ++o)
      for (size_t i = 0; i < inputs; ++i)
        for (size_t tap = 0; tap < taps; ++tap)
          outputsInnermost[(tap * inputs + i) * count + o] = weight[(o * inputs + i) * taps + tap];

    Map output((input.height - 1) / window.stride + 1, (input.width - 1) / window.stride + 1,
               outputs);
    const bool isDepthwise = inputsOfOutput != input.channels;
    const int32_t padding = window.side / 2 * window.dilation;
    for (int32_t y = 0; y < output.height; ++y)
      for (int32_t x = 0; x < output.width; ++x) {
        double* __restrict sums = &output.value[output.at(y, x)];
        std::ranges::copy(bias, sums);
        for (size_t tap = 0; tap < taps; ++tap) {
          const auto [tapRow, tapColumn] = std::div(static_cast<int>(tap), window.side);
          const int32_t row = y * window.stride - padding + tapRow * window.dilation;
          const int32_t column = x * window.stride - padding + tapColumn * window.dilation;
          if (row < 0 || row >= input.height || column < 0 || column >= input.width)
            continue;
          const double* samples = &input.value[input.at(row, column)];
          const float* factors = &outputsInnermost[tap * inputs * count];
          for (size_t i = 0; i < inputs; ++i, factors += count)
            for (size_t o = 0; o < count; ++o)
              sums[o] += (isDepthwise ? samples[o] : samples[i]) * factors[o];
        }
      }
    return output;
  }

  /// A tensor that isn't there yet gets zeros.
  const std::vector<float>& find(const std::string& name, size_t count) {
    std::vector<float>& tensor = weights_[name];
    tensor.resize(count);
    return tensor;
  }

  Weights& weights_;
};

/// What the heads say, from the finest level to the coarsest.
struct Heads {
  std::array<Map, 3> scores;  ///< before the softmax
  std::array<Map, 3> boxes;
};

Heads evaluate(std::span<const uint8_t> picture, int32_t side, Weights& weights) {
  Map x(side, side, 3);
  std::ranges::transform(picture, x.value.begin(), [](uint8_t byte) { return byte / 255.0; });
  Layers layers(weights);
  x = Layers::relu(layers.conv(x, "conv1.0.weight", "235_bias", 16, {.side = 3, .stride = 2}));
  x = layers.separable(x, "conv2", "238", "241", 32);
  x = layers.separable(x, "conv3", "244", "247", 32, 2);
  x = layers.separable(x, "conv4", "250", "253", 32);
  x = layers.separable(x, "conv5", "256", "259", 64, 2);
  x = layers.separable(x, "conv6", "262", "265", 64);
  x = layers.separable(x, "conv7", "268", "271", 64);
  const Map fine = layers.multiBranch(x);
  x = layers.separable(fine, "conv9", "305", "308", 96, 2);
  x = layers.separable(x, "conv10", "311", "314", 96);
  const Map middle = layers.separable(x, "conv11", "317", "320", 96);
  x = layers.separable(middle, "conv12", "323", "326", 96, 2);
  const Map coarse = layers.separable(x, "conv13", "329", "332", 128);
  return {{layers.head(fine, "conf.0", 3 * 2), layers.head(middle, "conf.1", 2 * 2),
           layers.head(coarse, "conf.2", 2 * 2)},
          {layers.head(fine, "loc.0", 3 * 4), layers.head(middle, "loc.1", 2 * 4),
           layers.head(coarse, "loc.2", 2 * 4)}};
}

}  // namespace

ReferenceNetwork::ReferenceNetwork(const std::string& weightsPath) {
  // One pixel is enough to pass every layer, and so to note the name and size of every tensor.
  evaluate({}, 1, weights_);
  constexpr std::streamoff boundary = 128;
  std::ifstream file(weightsPath, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::streamoff offset = 0;
  for (auto& [name, tensor] : weights_) {
    const auto bytes = static_cast<std::streamsize>(tensor.size() * sizeof(float));
    file.seekg(offset);
    file.read(reinterpret_cast<char*>(tensor.data()), bytes);
    offset = (offset + bytes + boundary - 1) / boundary * boundary;
  }
  if (!file || offset != size)
    throw std::runtime_error(weightsPath + " doesn't hold this network's weights");
}

ReferenceNetwork::Output ReferenceNetwork::run(std::span<const uint8_t> picture) {
  if (picture.size() != asSize(side) * side * 3)
    throw std::runtime_error("a picture is 192x192 pixels of three bytes");
  const Heads heads = evaluate(picture, side, weights_);
  Output output;
  for (const Map& level : heads.scores)
    for (size_t i = 0; i < level.value.size(); ++i)  // the softmax of a pair
      output.scores.push_back(1 / (1 + std::exp(level.value[i ^ 1U] - level.value[i])));
  for (const Map& level : heads.boxes)
    output.boxes.insert(output.boxes.end(), level.value.begin(), level.value.end());
  return output;
}

}  // namespace tavro::test
