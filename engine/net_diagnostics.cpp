// What Net::run reports about each layer when one of its three switches is set: the label, the
// range of values and the values themselves.

#include <algorithm>

#include "engine/log.h"
#include "engine/net.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule {
namespace {

struct Range {
  float smallest = 1e6F;
  float largest = -1e6F;
};

Range valueRange(const float* values, uint64_t count) {
  Range range;
  for (uint64_t i = 0; i < count; ++i) {
    range.smallest = std::min(range.smallest, values[i]);
    range.largest = std::max(range.largest, values[i]);
  }
  return range;
}

}  // namespace

std::string Net::label(const Layer& layer) const {
  std::string text;
  if ((labelParts & labelName) != 0)
    text += layer.name;
  if ((labelParts & labelType) != 0)
    text.append(":").append(layer.type);
  if ((labelParts & labelParameters) != 0)
    text.append("_").append(layer.describe());
  if ((labelParts & labelKernel) != 0)
    if (const std::string kernel = layer.describeKernel(*env); !kernel.empty())
      text.append("_").append(kernel);
  return text;
}

void Net::reportRange(Layer& layer, const std::string& layerLabel) const {
  if (layer.outputs.empty())
    return;
  Tensor& output = *layer.outputs.front();
  if (env->halfPrecision)
    output.halfToFloat();
  const float* values = output.data(layout::channelsLast);
  if (values == nullptr)
    return;
  const Range range = valueRange(values, output.count());
  layer.rangeMin = std::min(layer.rangeMin, range.smallest);
  layer.rangeMax = std::max(layer.rangeMax, range.largest);
  logPrint("%s min max:%f, %f\n", layerLabel.c_str(), static_cast<double>(range.smallest),
           static_cast<double>(range.largest));
}

void Net::dump(Layer& layer, const std::string& layerLabel) const {
  if (std::ranges::find(dumpLayers, layer.name) == dumpLayers.end())
    return;
  for (size_t i = 0; i < layer.outputs.size(); ++i) {
    Tensor& output = *layer.outputs[i];
    if (env->halfPrecision)
      output.halfToFloat();
    Tensor planes;
    const float* values = output.copyTo(planes) ? planes.data(layout::channelsFirst) : nullptr;
    if (values == nullptr)
      continue;
    logPrint("%s output%d(n:%d, c:%d, h:%d, w:%d):\n", layerLabel.c_str(), static_cast<int>(i),
             output.n, output.c, output.h, output.w);
    const auto columns = static_cast<int64_t>(output.w);
    const int64_t rows = columns > 0 ? static_cast<int64_t>(planes.count()) / columns : 0;
    for (int64_t row = std::max(dumpRowBegin, 0); row < std::min<int64_t>(dumpRowEnd, rows);
         ++row) {
      for (int64_t column = 0; column < columns; ++column)
        logPrint("%f,", static_cast<double>(values[row * columns + column]));
      logPrint("\n");
    }
  }
  logPrint("\n");
}

}  // namespace TavroRTC::FDModule
