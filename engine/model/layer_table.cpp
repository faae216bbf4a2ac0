// The network, layer by layer in the order of execution. A layer's output tensor has the layer's
// name. Kernels are square; a 3x3 has padding 1 unless it says otherwise, a 1x1 has none.

#include <array>
#include <initializer_list>
#include <iterator>

#include "engine/model/model_tables.h"

namespace TavroRTC::FDModule {
namespace {

constexpr LayerRow layer(const char* name, const char* type, const char* input) {
  LayerRow row;
  row.name = name;
  row.type = type;
  row.io[0] = input;
  row.io[1] = name;
  return row;
}

constexpr LayerRow window(const char* name, const char* type, const char* input, const char* weight,
                          const char* bias, int32_t kernel, int32_t stride, int32_t dilation) {
  LayerRow row = layer(name, type, input);
  const int32_t padding = kernel / 2 * dilation;
  const int32_t parameters[] = {kernel,  kernel, padding, padding,  padding,
                                padding, stride, stride,  dilation, dilation};
  for (size_t i = 0; i < std::size(parameters); ++i)
    row.ints[i] = parameters[i];
  row.weights[0] = weight;
  row.weights[1] = bias;
  return row;
}

constexpr LayerRow conv1x1(const char* name, const char* input, const char* weight,
                           const char* bias) {
  return window(name, "Conv", input, weight, bias, 1, 1, 1);
}

/// Padding equals the dilation, so that the size stays.
constexpr LayerRow conv3x3(const char* name, const char* input, const char* weight,
                           const char* bias, int32_t stride = 1, int32_t dilation = 1) {
  return window(name, "Conv", input, weight, bias, 3, stride, dilation);
}

constexpr LayerRow depthwise(const char* name, const char* input, const char* weight,
                             const char* bias, int32_t channels, int32_t stride = 1) {
  LayerRow row = window(name, "DepthwiseConv", input, weight, bias, 3, stride, 1);
  row.ints[10] = channels;
  return row;
}

constexpr LayerRow relu(const char* name, const char* input) {
  LayerRow row = layer(name, "Relu", input);
  row.ints[0] = 1;
  return row;
}

constexpr LayerRow reshape(const char* name, const char* input, int32_t w, int32_t c) {
  LayerRow row = layer(name, "Reshape", input);
  const int32_t target[] = {1, 1, w, c};
  for (size_t i = 0; i < std::size(target); ++i)
    row.ints[i] = target[i];
  return row;
}

/// One row of h * w * c values.
constexpr LayerRow flatten(const char* name, const char* input) {
  return reshape(name, input, 1, -1);
}

constexpr LayerRow join(const char* name, const char* type,
                        std::initializer_list<const char*> inputs) {
  LayerRow row;
  row.name = name;
  row.type = type;
  size_t i = 0;
  for (const char* input : inputs)
    row.io[i++] = input;
  row.io[i] = name;
  return row;
}

constexpr auto rows = std::to_array<LayerRow>({
    // clang-format off
    // conv1: 192x192x3 to 96x96x16
    conv3x3("235", "input", "conv1.0.weight", "235_bias", 2),
    relu("237", "235"),
    // conv2: 96x96x32
    depthwise("238", "237", "conv2.0.weight", "238_bias", 16),
    relu("240", "238"),
    conv1x1("241", "240", "conv2.3.weight", "241_bias"),
    relu("243", "241"),
    // conv3: 48x48x32
    depthwise("244", "243", "conv3.0.weight", "244_bias", 32, 2),
    relu("246", "244"),
    conv1x1("247", "246", "conv3.3.weight", "247_bias"),
    relu("249", "247"),
    // conv4: 48x48x32
    depthwise("250", "249", "conv4.0.weight", "250_bias", 32),
    relu("252", "250"),
    conv1x1("253", "252", "conv4.3.weight", "253_bias"),
    relu("255", "253"),
    // conv5: 24x24x64
    depthwise("256", "255", "conv5.0.weight", "256_bias", 32, 2),
    relu("258", "256"),
    conv1x1("259", "258", "conv5.3.weight", "259_bias"),
    relu("261", "259"),
    // conv6: 24x24x64
    depthwise("262", "261", "conv6.0.weight", "262_bias", 64),
    relu("264", "262"),
    conv1x1("265", "264", "conv6.3.weight", "265_bias"),
    relu("267", "265"),
    // conv7: 24x24x64
    depthwise("268", "267", "conv7.0.weight", "268_bias", 64),
    relu("270", "268"),
    conv1x1("271", "270", "conv7.3.weight", "271_bias"),
    relu("273", "271"),

    // conv8: three branches of growing dilation and a shortcut, all 24x24; together 24x24x64
    conv1x1("301", "273", "conv8.shortcut.conv.weight", "301_bias"),
    conv1x1("288", "273", "conv8.branch2.0.conv.weight", "288_bias"),
    conv3x3("290", "288", "conv8.branch2.1.conv.weight", "290_bias"),
    relu("292", "290"),
    conv3x3("293", "292", "conv8.branch2.2.conv.weight", "293_bias"),
    relu("295", "293"),
    conv3x3("296", "295", "conv8.branch2.3.conv.weight", "296_bias", 1, 5),
    conv1x1("281", "273", "conv8.branch1.0.conv.weight", "281_bias"),
    conv3x3("283", "281", "conv8.branch1.1.conv.weight", "283_bias"),
    relu("285", "283"),
    conv3x3("286", "285", "conv8.branch1.2.conv.weight", "286_bias", 1, 3),
    conv1x1("274", "273", "conv8.branch0.0.conv.weight", "274_bias"),
    conv3x3("276", "274", "conv8.branch0.1.conv.weight", "276_bias"),
    relu("278", "276"),
    conv3x3("279", "278", "conv8.branch0.2.conv.weight", "279_bias", 1, 2),
    join("298", "Concat", {"279", "286", "296"}),
    conv1x1("299", "298", "conv8.ConvLinear.conv.weight", "299_bias"),
    join("303", "Add", {"299", "301"}),
    relu("304", "303"),

    // heads on 24x24: three priors a cell
    depthwise("339", "304", "conf.0.0.weight", "conf.0.0.bias", 64),
    relu("340", "339"),
    conv1x1("341", "340", "conf.0.2.weight", "conf.0.2.bias"),
    flatten("399", "341"),
    depthwise("335", "304", "loc.0.0.weight", "loc.0.0.bias", 64),
    relu("336", "335"),
    conv1x1("337", "336", "loc.0.2.weight", "loc.0.2.bias"),
    flatten("368", "337"),

    // conv9: 12x12x96
    depthwise("305", "304", "conv9.0.weight", "305_bias", 64, 2),
    relu("307", "305"),
    conv1x1("308", "307", "conv9.3.weight", "308_bias"),
    relu("310", "308"),
    // conv10: 12x12x96
    depthwise("311", "310", "conv10.0.weight", "311_bias", 96),
    relu("313", "311"),
    conv1x1("314", "313", "conv10.3.weight", "314_bias"),
    relu("316", "314"),
    // conv11: 12x12x96
    depthwise("317", "316", "conv11.0.weight", "317_bias", 96),
    relu("319", "317"),
    conv1x1("320", "319", "conv11.3.weight", "320_bias"),
    relu("322", "320"),

    // heads on 12x12: two priors a cell
    depthwise("347", "322", "conf.1.0.weight", "conf.1.0.bias", 96),
    relu("348", "347"),
    conv1x1("349", "348", "conf.1.2.weight", "conf.1.2.bias"),
    flatten("409", "349"),
    depthwise("343", "322", "loc.1.0.weight", "loc.1.0.bias", 96),
    relu("344", "343"),
    conv1x1("345", "344", "loc.1.2.weight", "loc.1.2.bias"),
    flatten("378", "345"),

    // conv12: 6x6x96
    depthwise("323", "322", "conv12.0.weight", "323_bias", 96, 2),
    relu("325", "323"),
    conv1x1("326", "325", "conv12.3.weight", "326_bias"),
    relu("328", "326"),
    // conv13: 6x6x128
    depthwise("329", "328", "conv13.0.weight", "329_bias", 96),
    relu("331", "329"),
    conv1x1("332", "331", "conv13.3.weight", "332_bias"),
    relu("334", "332"),

    // heads on 6x6: two priors a cell; and the two outputs
    depthwise("355", "334", "conf.2.0.weight", "conf.2.0.bias", 128),
    relu("356", "355"),
    conv1x1("357", "356", "conf.2.2.weight", "conf.2.2.bias"),
    flatten("419", "357"),
    join("420", "Concat", {"399", "409", "419"}),
    reshape("Reshape_1", "420", -1, 2),
    layer(modelScores, "Softmax", "Reshape_1"),
    depthwise("351", "334", "loc.2.0.weight", "loc.2.0.bias", 128),
    relu("352", "351"),
    conv1x1("353", "352", "loc.2.2.weight", "loc.2.2.bias"),
    flatten("388", "353"),
    join("boxes", "Concat", {"368", "378", "388"}),
    reshape(modelBoxes, "boxes", -1, 4),
    // clang-format on
});

static_assert(rows.size() == 94);

}  // namespace

std::span<const LayerRow> modelLayers() {
  return rows;
}

}  // namespace TavroRTC::FDModule
