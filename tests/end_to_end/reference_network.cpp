#include "tests/end_to_end/reference_network.h"

#include <array>
#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/end_to_end/error_tracking.h"

namespace tavro::test {
namespace {

static_assert(std::endian::native == std::endian::little, "the file's floats are read as they are");

/// The network's layers by their names in the file of weights.
class Layers {
 public:
  explicit Layers(WeightFile& weights) : weights_(weights) {}

  Map conv(const Map& input, const std::string& weight, const std::string& bias, int32_t outputs,
           Window window) {
    const int32_t count = outputs * input.channels * window.side * window.side;
    return convolution(input, window, find(weight, count), find(bias, outputs));
  }

  /// A 3x3 filter for each channel, then a mixture of the channels.
  Map separable(const Map& input, const std::string& block, const std::string& firstBias,
                const std::string& secondBias, int32_t outputs, int32_t stride = 1) {
    const Map filtered = relu(
        filter(input, block + ".0.weight", firstBias + "_bias", {.side = 3, .stride = stride}));
    return relu(conv(filtered, block + ".3.weight", secondBias + "_bias", outputs, {}));
  }

  Map head(const Map& input, const std::string& path, int32_t outputs) {
    const Map filtered = relu(filter(input, path + ".0.weight", path + ".0.bias", {.side = 3}));
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

    const Map joined = concatenation(std::array<const Map*, 3>{&near, &middle, &far});
    const Map mixed = part(joined, "ConvLinear", "299", 64, point);
    return relu(sum(mixed, part(input, "shortcut", "301", 64, point)));
  }

 private:
  Map filter(const Map& input, const std::string& weight, const std::string& bias, Window window) {
    const int32_t count = input.channels * window.side * window.side;
    return depthwise(input, window, find(weight, count), find(bias, input.channels));
  }

  std::span<const float> find(const std::string& name, int32_t count) {
    return weights_.values(name, static_cast<size_t>(count));
  }

  WeightFile& weights_;
};

void append(std::vector<Reading>& readings, const Map& map) {
  for (size_t i = 0; i < map.value.size(); ++i)
    readings.push_back({map.value[i], std::sqrt(map.variance[i])});
}

ReferenceNetwork::Output evaluate(const Map& picture, WeightFile& weights) {
  Layers layers(weights);
  Map x = relu(layers.conv(picture, "conv1.0.weight", "235_bias", 16, {.side = 3, .stride = 2}));
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

  ReferenceNetwork::Output output;
  append(output.scores, softmaxOfPairs(layers.head(fine, "conf.0", 3 * 2)));
  append(output.scores, softmaxOfPairs(layers.head(middle, "conf.1", 2 * 2)));
  append(output.scores, softmaxOfPairs(layers.head(coarse, "conf.2", 2 * 2)));
  append(output.boxes, layers.head(fine, "loc.0", 3 * 4));
  append(output.boxes, layers.head(middle, "loc.1", 2 * 4));
  append(output.boxes, layers.head(coarse, "loc.2", 2 * 4));
  return output;
}

}  // namespace

std::span<const float> WeightFile::values(const std::string& name, size_t count) {
  std::vector<float>& tensor = tensors_[name];
  if (tensor.empty())
    tensor.resize(count);
  if (tensor.size() != count)
    throw std::runtime_error(name + " has another size");
  return tensor;
}

void WeightFile::load(const std::string& path) {
  constexpr std::streamoff boundary = 128;
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::streamoff offset = 0;
  for (auto& [name, tensor] : tensors_) {
    const auto bytes = static_cast<std::streamsize>(tensor.size() * sizeof(float));
    file.seekg(offset);
    file.read(reinterpret_cast<char*>(tensor.data()), bytes);
    offset = (offset + bytes + boundary - 1) / boundary * boundary;
  }
  if (!file || offset != size)
    throw std::runtime_error(path + " doesn't hold this network's weights");
}

// One pixel is enough to pass every layer, and so to note the name and size of every tensor.
ReferenceNetwork::ReferenceNetwork(const std::string& weightsPath) {
  evaluate(Map(1, 1, 3), weights_);
  weights_.load(weightsPath);
}

ReferenceNetwork::Output ReferenceNetwork::run(std::span<const uint8_t> picture) {
  if (picture.size() != static_cast<size_t>(side) * side * 3)
    throw std::runtime_error("a picture is 192x192 pixels of three bytes");
  return evaluate(normalized(picture, side, side, 3), weights_);
}

}  // namespace tavro::test
