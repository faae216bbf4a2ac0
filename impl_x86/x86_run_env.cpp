#include "impl_x86/x86_run_env.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "engine/cpu_info.h"
#include "engine/log.h"
#include "engine/net.h"

namespace TavroRTC::FDModule::x86 {
namespace {

void reportFeature(const char* name, bool isThere) {
  logPrint(isThere ? "Support %s!\n" : "Not support %s!\n", name);
}

bool isActivation(const Layer& layer) {
  static constexpr std::array<std::string_view, 5> types = {"Activation", "Relu", "PRelu",
                                                            "Sigmoid", "LeakyRelu"};
  return std::ranges::find(types, layer.type) != types.end();
}

void workInPlace(Layer& layer) {
  if (layer.inputs.empty() || layer.outputs.empty())
    return;
  Tensor* input = layer.inputs[0];
  Tensor* output = layer.outputs[0];
  if (input->consumers.size() != 1 || !isActivation(layer) || input == output ||
      input->producer == nullptr)
    return;
  Layer& before = *input->producer;
  // A reshape's output is its input's memory, which others may read.
  if (before.lendsInputs())
    return;
  std::ranges::replace(before.outputs, input, output);
  output->producer = &before;
  layer.inputs[0] = output;
  // An activation that already works in place on the tensor goes along with it.
  for (Layer* follower : before.successors) {
    std::ranges::replace(follower->inputs, input, output);
    std::ranges::replace(follower->outputs, input, output);
  }
  if (std::ranges::find(before.successors, &layer) == before.successors.end())
    before.successors.push_back(&layer);
}

}  // namespace

RunEnv::RunEnv() {
  const CpuInfo& info = cpuInfo();
  reportFeature("AVX512F", info.hasAvx512F());
  reportFeature("AVX2", info.hasAvx2());
  reportFeature("AVX", info.hasAvx());
  reportFeature("F16C", info.hasF16c());
}

bool RunEnv::rewriteGraph(Net* net) {
  for (Layer* layer : net->layers)
    workInPlace(*layer);
  return true;
}

}  // namespace TavroRTC::FDModule::x86
