#include "modules/face_detection/impl.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>

#include "engine/cpu_info.h"
#include "engine/log.h"
#include "engine/model/model_tables.h"
#include "engine/net.h"
#include "engine/weight_packing.h"
#include "impl_x86/x86_run_env.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/network_input.h"

namespace TavroRTC::FDModule {

class Impl final : public Net {
 public:
  using Net::Net;
};

namespace {

constexpr int32_t processorBackend = 0;
constexpr int32_t inputChannels = 3;
constexpr float byteToUnit = 1.0F / 255.0F;  // the network was trained on colours from 0 to 1

/// Lends the picture to the network's input, which reads the bytes in place.
bool setInput(Net& net, uint8_t* picture) {
  Tensor* input = net.findTensor(net.inputs.front());
  if (input == nullptr)
    return false;
  input->n = 1;
  input->h = inputHeight;
  input->w = inputWidth;
  input->c = inputChannels;
  input->layout = layout::channelsLast;
  input->borrow(picture);
  std::ranges::fill(input->mean, 0.0F);
  std::ranges::fill(input->scale, byteToUnit);
  return input->byteData != nullptr;
}

/// The values of an output, or null if there aren't `valuesPerPrior` of them for each prior box.
float* outputValues(Net& net, const std::string& name, uint64_t valuesPerPrior) {
  Tensor* output = net.findTensor(name);
  if (output == nullptr || output->count() != priorCount * valuesPerPrior)
    return nullptr;
  if (net.env->halfPrecision)
    output->halfToFloat();
  return output->data(layout::channelsLast);
}

}  // namespace

Impl* createImpl(int32_t backend, int32_t /*precision*/) {
  // The rows of the picture are SSSE3 code; the plain code would compute other bytes.
  if (backend != processorBackend || !cpuInfo().hasSsse3())
    return nullptr;
  auto env = std::make_unique<x86::RunEnv>();
  auto impl = std::make_unique<Impl>(env.get());
  static_cast<void>(env.release());  // the net owns it now
  impl->addConstants(modelTensors());
  impl->addInput(modelInput);
  impl->addOutput(modelScores);
  impl->addOutput(modelBoxes);
  impl->addLayers(modelLayers());
  impl->env->rewriteGraph(impl.get());
  if (impl->init(impl->env))
    logPrint("Load net config successfully!\n");
  return impl.release();
}

int32_t runImpl(Impl* impl, uint8_t* picture, float** boxes, float** scores) {
  if (impl == nullptr || !setInput(*impl, picture))
    return -1;
  // A layer without memory leaves the last frame's values behind, or none at all. They must not
  // pass for this frame's result. The next run starts again.
  impl->warmup();
  if (!impl->run())
    return -1;
  float* scoreValues = outputValues(*impl, impl->outputs[0], 2);
  float* boxValues = outputValues(*impl, impl->outputs[1], 4);
  if (scoreValues == nullptr || boxValues == nullptr)
    return -1;
  *scores = scoreValues;
  *boxes = boxValues;
  return 0;
}

int32_t releaseImpl(Impl* impl) {
  delete impl;
  return 0;
}

}  // namespace TavroRTC::FDModule
