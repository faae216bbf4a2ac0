// The constant tensors by name and extents. Where a tensor's values stand in the weight block
// follows from the rows above it: each begins at the next multiple of 128 bytes.

#include <array>
#include <string_view>

#include "engine/model/model_tables.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule {
namespace {

struct Shape {
  const char* name;
  int32_t dims[4];

  constexpr size_t count() const {
    size_t product = 1;
    for (const int32_t extent : dims)
      product *= static_cast<size_t>(extent);
    return product;
  }
};

constexpr Shape weight(const char* name, int32_t outputs, int32_t height, int32_t width,
                       int32_t inputs) {
  return {name, {outputs, height, width, inputs}};
}
constexpr Shape bias(const char* name, int32_t channels) {
  return {name, {1, 1, 1, channels}};
}

constexpr auto shapes = std::to_array<Shape>({
    // clang-format off
    bias("235_bias", 16),
    bias("238_bias", 16),
    bias("241_bias", 32),
    bias("244_bias", 32),
    bias("247_bias", 32),
    bias("250_bias", 32),
    bias("253_bias", 32),
    bias("256_bias", 32),
    bias("259_bias", 64),
    bias("262_bias", 64),
    bias("265_bias", 64),
    bias("268_bias", 64),
    bias("271_bias", 64),
    bias("274_bias", 8),
    bias("276_bias", 16),
    bias("279_bias", 16),
    bias("281_bias", 8),
    bias("283_bias", 16),
    bias("286_bias", 16),
    bias("288_bias", 8),
    bias("290_bias", 12),
    bias("293_bias", 16),
    bias("296_bias", 16),
    bias("299_bias", 64),
    bias("301_bias", 64),
    bias("305_bias", 64),
    bias("308_bias", 96),
    bias("311_bias", 96),
    bias("314_bias", 96),
    bias("317_bias", 96),
    bias("320_bias", 96),
    bias("323_bias", 96),
    bias("326_bias", 96),
    bias("329_bias", 96),
    bias("332_bias", 128),
    bias("conf.0.0.bias", 64),
    weight("conf.0.0.weight", 64, 3, 3, 1),
    bias("conf.0.2.bias", 6),
    weight("conf.0.2.weight", 6, 1, 1, 64),
    bias("conf.1.0.bias", 96),
    weight("conf.1.0.weight", 96, 3, 3, 1),
    bias("conf.1.2.bias", 4),
    weight("conf.1.2.weight", 4, 1, 1, 96),
    bias("conf.2.0.bias", 128),
    weight("conf.2.0.weight", 128, 3, 3, 1),
    bias("conf.2.2.bias", 4),
    weight("conf.2.2.weight", 4, 1, 1, 128),
    weight("conv1.0.weight", 16, 3, 3, 3),
    weight("conv10.0.weight", 96, 3, 3, 1),
    weight("conv10.3.weight", 96, 1, 1, 96),
    weight("conv11.0.weight", 96, 3, 3, 1),
    weight("conv11.3.weight", 96, 1, 1, 96),
    weight("conv12.0.weight", 96, 3, 3, 1),
    weight("conv12.3.weight", 96, 1, 1, 96),
    weight("conv13.0.weight", 96, 3, 3, 1),
    weight("conv13.3.weight", 128, 1, 1, 96),
    weight("conv2.0.weight", 16, 3, 3, 1),
    weight("conv2.3.weight", 32, 1, 1, 16),
    weight("conv3.0.weight", 32, 3, 3, 1),
    weight("conv3.3.weight", 32, 1, 1, 32),
    weight("conv4.0.weight", 32, 3, 3, 1),
    weight("conv4.3.weight", 32, 1, 1, 32),
    weight("conv5.0.weight", 32, 3, 3, 1),
    weight("conv5.3.weight", 64, 1, 1, 32),
    weight("conv6.0.weight", 64, 3, 3, 1),
    weight("conv6.3.weight", 64, 1, 1, 64),
    weight("conv7.0.weight", 64, 3, 3, 1),
    weight("conv7.3.weight", 64, 1, 1, 64),
    weight("conv8.ConvLinear.conv.weight", 64, 1, 1, 48),
    weight("conv8.branch0.0.conv.weight", 8, 1, 1, 64),
    weight("conv8.branch0.1.conv.weight", 16, 3, 3, 8),
    weight("conv8.branch0.2.conv.weight", 16, 3, 3, 16),
    weight("conv8.branch1.0.conv.weight", 8, 1, 1, 64),
    weight("conv8.branch1.1.conv.weight", 16, 3, 3, 8),
    weight("conv8.branch1.2.conv.weight", 16, 3, 3, 16),
    weight("conv8.branch2.0.conv.weight", 8, 1, 1, 64),
    weight("conv8.branch2.1.conv.weight", 12, 3, 3, 8),
    weight("conv8.branch2.2.conv.weight", 16, 3, 3, 12),
    weight("conv8.branch2.3.conv.weight", 16, 3, 3, 16),
    weight("conv8.shortcut.conv.weight", 64, 1, 1, 64),
    weight("conv9.0.weight", 64, 3, 3, 1),
    weight("conv9.3.weight", 96, 1, 1, 64),
    bias("loc.0.0.bias", 64),
    weight("loc.0.0.weight", 64, 3, 3, 1),
    bias("loc.0.2.bias", 12),
    weight("loc.0.2.weight", 12, 1, 1, 64),
    bias("loc.1.0.bias", 96),
    weight("loc.1.0.weight", 96, 3, 3, 1),
    bias("loc.1.2.bias", 8),
    weight("loc.1.2.weight", 8, 1, 1, 96),
    bias("loc.2.0.bias", 128),
    weight("loc.2.0.weight", 128, 3, 3, 1),
    bias("loc.2.2.bias", 8),
    weight("loc.2.2.weight", 8, 1, 1, 128),
    // clang-format on
});

constexpr size_t alignedEnd(size_t begin, const Shape& shape) {
  const size_t end = begin + shape.count() * sizeof(float);
  return (end + weightAlignment - 1) / weightAlignment * weightAlignment;
}

constexpr auto makeRows() {
  std::array<TensorRow, shapes.size()> rows;
  size_t offset = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    const Shape& shape = shapes[i];
    rows[i] = {shape.name,
               {shape.dims[0], shape.dims[1], shape.dims[2], shape.dims[3]},
               layout::channelsFirst,
               DataType::float32,
               tavroModelWeights + offset};
    offset = alignedEnd(offset, shape);
  }
  return rows;
}

constexpr auto rows = makeRows();

constexpr bool areInOrder() {
  for (size_t i = 1; i < shapes.size(); ++i)
    if (std::string_view(shapes[i - 1].name) >= shapes[i].name)
      return false;
  return true;
}

constexpr size_t totalCount() {
  size_t count = 0;
  for (const Shape& shape : shapes)
    count += shape.count();
  return count;
}

constexpr size_t totalSize() {
  size_t offset = 0;
  for (const Shape& shape : shapes)
    offset = alignedEnd(offset, shape);
  return offset;
}

static_assert(shapes.size() == 94);
static_assert(areInOrder());
static_assert(totalCount() == 97422);
static_assert(totalSize() == weightBlockSize);

}  // namespace

std::span<const TensorRow> modelTensors() {
  return rows;
}

}  // namespace TavroRTC::FDModule
