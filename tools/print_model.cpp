// Prints the two tables of the embedded model as JSON, for the tools that read the network from
// outside: where each tensor's values begin in the weight block, and every field of every layer.

#include <algorithm>
#include <cstdio>
#include <span>

#include "engine/model/model_tables.h"

namespace {

using namespace TavroRTC::FDModule;

/// `print` for each item, with commas between them and brackets around them.
template <typename T, typename Print>
void printList(std::span<const T> items, const char* separator, Print print) {
  std::fputs("[", stdout);
  for (size_t i = 0; i < items.size(); ++i) {
    std::fputs(i == 0 ? "" : separator, stdout);
    print(items[i]);
  }
  std::fputs("]", stdout);
}

void printIntegers(std::span<const int32_t> values) {
  printList(values, ", ", [](int32_t value) { std::printf("%d", value); });
}

/// A list of names of a layer row, up to its end.
void printNames(std::span<const char* const> names) {
  const auto end = std::ranges::find_if(
      names, [](const char* name) { return name == nullptr || *name == '\0'; });
  printList(std::span(names.begin(), end), ", ",
            [](const char* name) { std::printf("\"%s\"", name); });
}

void printTensor(const TensorRow& row) {
  const auto* data = static_cast<const unsigned char*>(row.data);
  std::printf("{\"name\": \"%s\", \"dims\": ", row.name);
  printIntegers(row.dims);
  std::printf(", \"layout\": %d, \"dataType\": %d, \"offset\": %td}", row.layout,
              static_cast<int>(row.dataType), data - tavroModelWeights);
}

void printLayer(const LayerRow& row) {
  std::printf("{\"name\": \"%s\", \"type\": \"%s\", \"ints\": ", row.name, row.type);
  printIntegers(row.ints);
  std::fputs(", \"floats\": ", stdout);
  printList(std::span<const float>(row.floats), ", ",
            [](float value) { std::printf("%.9g", static_cast<double>(value)); });
  std::fputs(", \"io\": ", stdout);
  printNames(row.io);
  std::fputs(", \"weights\": ", stdout);
  printNames(row.weights);
  std::fputs("}", stdout);
}

}  // namespace

int main() {
  std::printf("{\"input\": \"%s\", \"outputs\": [\"%s\", \"%s\"], \"weightBytes\": %zu,\n",
              modelInput, modelScores, modelBoxes, weightBlockSize);
  std::fputs("\"tensors\": ", stdout);
  printList(modelTensors(), ",\n  ", printTensor);
  std::fputs(",\n\"layers\": ", stdout);
  printList(modelLayers(), ",\n  ", printLayer);
  std::fputs("}\n", stdout);
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
