#include "engine/net.h"

#include <algorithm>

#include "engine/aligned_memory.h"
#include "engine/run_timer.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t zeroTensorCount = 1024;
constexpr size_t layersPerFlush = 8;

void addOnce(std::vector<std::string>& names, const std::string& name) {
  if (std::ranges::find(names, name) == names.end())
    names.push_back(name);
}

// The rows' data is constant; a tensor that borrows it never writes it, it only repacks it into a
// buffer of its own.
template <typename T>
void borrowConstant(Tensor& tensor, const void* data) {
  tensor.borrow(static_cast<T*>(const_cast<void*>(data)));
}

}  // namespace

Net::Net(core::RunEnv* environment) : env(environment) {
  Tensor& zeros = weights[zeroTensorName];
  zeros.n = zeros.h = zeros.w = 1;
  zeros.c = zeroTensorCount;
  zeros.name = zeroTensorName;
  if (float* values = zeros.data(layout::channelsLast))
    std::fill_n(values, zeroTensorCount, 0.0F);
}

Net::~Net() {
  Net::clear();
  delete env;
}

void Net::addConstants(std::span<const TensorRow> rows) {
  for (const TensorRow& row : rows) {
    if (row.name == nullptr)
      continue;
    Tensor& tensor = weights[row.name];
    tensor.n = row.dims[0];
    tensor.h = row.dims[1];
    tensor.w = row.dims[2];
    tensor.c = row.dims[3];
    tensor.layout = row.layout;
    switch (row.dataType) {
      case DataType::float32:
        borrowConstant<float>(tensor, row.data);
        break;
      case DataType::float16:
        borrowConstant<uint16_t>(tensor, row.data);
        break;
      default:
        borrowConstant<uint8_t>(tensor, row.data);
    }
  }
}

void Net::addLayers(std::span<const LayerRow> rows) {
  layers.reserve(layers.size() + rows.size());  // a layer made must find its place
  for (const LayerRow& row : rows)
    if (Layer* layer = createLayer(env->key(), row, tensors, weights))
      layers.push_back(layer);
}

void Net::addInput(const std::string& tensorName) {
  addOnce(inputs, tensorName);
}

void Net::addOutput(const std::string& tensorName) {
  addOnce(outputs, tensorName);
}

Tensor* Net::findTensor(const std::string& tensorName) {
  const auto entry = tensors.find(tensorName);
  return entry == tensors.end() ? nullptr : &entry->second;
}

bool Net::init(core::RunEnv* environment) {
  if (!environment->prepare())
    return false;
  for (Layer* layer : layers)
    layer->prepare(environment);
  return true;
}

void Net::convertConstants() {
  for (auto& [name, tensor] : weights) {
    if (!env->halfPrecision && tensor.halfData != nullptr && tensor.floatData == nullptr)
      tensor.halfToFloat();
    if (env->halfPrecision && tensor.floatData != nullptr && tensor.halfData == nullptr)
      tensor.floatToHalf();
  }
}

// All activations lie in one block, in the order in which they are written: the first frame touches
// all of it, and the system has large pages for large blocks only. Without the block each
// activation takes memory of its own when a layer first asks for it.
void Net::reserveActivations() {
  const auto forEach = [this](auto&& use) {
    for (const Layer* layer : layers)
      for (Tensor* output : layer->outputs)
        if (output->producer == layer && output->floatData == nullptr && !layer->lendsInputs() &&
            packedElementCount({output->n, output->h, output->w, output->c},
                               layout::channelsLast) == output->count())
          use(*output, alignedSize(output->count() * sizeof(float)));
  };
  size_t size = 0;
  forEach([&size](const Tensor&, size_t bytes) { size += bytes; });
  const std::shared_ptr<std::byte> block = reserveMemory(size);
  if (block == nullptr)
    return;
  std::byte* next = block.get();
  forEach([&](Tensor& output, size_t bytes) {
    output.settle(reinterpret_cast<float*>(next), block);
    next += bytes;
  });
}

bool Net::warmup() {
  if (warmedUp)
    return true;
  const RunTimer timer("Warmup", true, false);
  env->beginWarmup();
  convertConstants();
  bool shaped = true;
  totalCost = 0;
  for (Layer* layer : layers) {
    shaped &= layer->reshape(env);
    totalCost += layer->cost;
  }
  if (shaped)
    reserveActivations();
  env->endWarmup();
  env->afterWarmup(this);
  warmedUp = true;
  return shaped;
}

bool Net::run() {
  RunTimer timer("Net run", false, false);
  bool succeeded = true;
  if (env->deferred)
    env->beginRun();
  for (size_t i = 0; i < layers.size(); ++i) {
    Layer& layer = *layers[i];
    if (layer.skip || layer.fused)
      continue;
    const std::string layerLabel = timeLayers || dumpOutputs ? label(layer) : std::string();
    const bool timed = timeLayers && !env->deferred;
    if (timed)
      timer.start(layerLabel);
    succeeded &= layer.forward(env);
    if (timed) {
      env->sync();
      timer.stop();
    }
    if (trackRanges)
      reportRange(layer, layerLabel);
    if (dumpOutputs && !env->deferred)
      dump(layer, layerLabel);
    if (i != 0 && i % layersPerFlush == 0)
      env->flush();
    if (env->deferred)
      layer.sync();
  }
  env->afterRun(this);
  if (env->deferred)
    env->endRun();
  return succeeded;
}

bool Net::clear() {
  for (Layer* layer : layers)
    delete layer;
  layers.clear();
  tensors.clear();
  weights.clear();
  return true;
}

}  // namespace TavroRTC::FDModule
