#include "bench/network.h"

#include <algorithm>
#include <stdexcept>

#include "bench/fma_peak.h"
#include "engine/core/windowed_layers.h"
#include "engine/model/model_tables.h"
#include "engine/weight_packing.h"
#include "impl_x86/twins.h"
#include "impl_x86/x86_run_env.h"

namespace tavro::bench {

using namespace TavroRTC::FDModule;

namespace {

constexpr double bytesPerCycle = 32;

std::string extents(const Tensor& tensor) {
  return std::to_string(tensor.h) + "x" + std::to_string(tensor.w) + "x" + std::to_string(tensor.c);
}

std::string windowOf(const core::Conv& conv) {
  std::string text = std::to_string(conv.kernelH) + "x" + std::to_string(conv.kernelW);
  if (conv.strideW != 1)
    text += " s" + std::to_string(conv.strideW);
  if (conv.dilationW != 1)
    text += " d" + std::to_string(conv.dilationW);
  return text + ", ";
}

double bytesOf(const Tensor& tensor) {
  const bool isPicture = tensor.floatData == nullptr && tensor.byteData != nullptr;
  return static_cast<double>(tensor.count()) * (isPicture ? 1.0 : sizeof(float));
}

}  // namespace

PathGuard::PathGuard(Path path) {
  if (path != Path::wide)
    x86::limitTwins(path == Path::twins256 ? 256 : 0);
  if (path != Path::narrow)
    return;
  narrow_ = cpuInfo();
  narrow_.leaf1Ecx &= ~CpuInfo::avxAndFma;
  overrideCpuInfo(&narrow_);
}

PathGuard::~PathGuard() {
  x86::limitTwins(512);
  overrideCpuInfo(nullptr);
}

Network::Network(std::span<uint8_t> picture, Path path)
    : path_(path), net_(std::make_unique<Net>(new x86::RunEnv)) {
  net_->addConstants(modelTensors());
  net_->addInput(modelInput);
  net_->addOutput(modelScores);
  net_->addOutput(modelBoxes);
  net_->addLayers(modelLayers());
  net_->env->rewriteGraph(net_.get());
  net_->init(net_->env);

  Tensor* input = net_->findTensor(modelInput);
  if (input == nullptr || picture.size() < pictureBytes)
    throw std::runtime_error("the network has no input");
  input->n = 1;
  input->h = input->w = inputSide;
  input->c = 3;
  input->layout = layout::channelsLast;
  input->borrow(picture.data());
  std::ranges::fill(input->scale, 1.0F / 255.0F);

  const PathGuard guard(path_);
  if (!net_->warmup() || !net_->run())
    throw std::runtime_error("a layer of the network fails");
}

void Network::run() {
  const PathGuard guard(path_);
  net_->run();
}

std::vector<Layer*> Network::workingLayers() {
  std::vector<Layer*> working;
  std::ranges::copy_if(net_->layers, std::back_inserter(working),
                       [](const Layer* layer) { return !layer->skip && !layer->fused; });
  return working;
}

std::vector<float> Network::values(const char* tensorName) {
  Tensor* tensor = net_->findTensor(tensorName);
  const float* data = tensor == nullptr ? nullptr : tensor->data(layout::channelsLast);
  if (data == nullptr)
    throw std::runtime_error(std::string("the network has no output ") + tensorName);
  return {data, data + tensor->count()};
}

double LayerWork::cycles() const {
  return std::max(operations / fmaOperationsPerCycle, bytes / bytesPerCycle);
}

bool LayerWork::isBoundByArithmetic() const {
  return operations / fmaOperationsPerCycle >= bytes / bytesPerCycle;
}

LayerWork workOf(const Layer& layer) {
  LayerWork work;
  work.operations = static_cast<double>(layer.cost);
  for (const Tensor* tensor : layer.inputs)
    work.bytes += bytesOf(*tensor);
  for (const Tensor* tensor : layer.outputs)
    work.bytes += bytesOf(*tensor);
  if (const auto* conv = dynamic_cast<const core::Conv*>(&layer)) {
    work.bytes += bytesOf(*conv->weight) + bytesOf(*conv->bias);
    work.shape = windowOf(*conv);
  }
  if (!layer.inputs.empty() && !layer.outputs.empty())
    work.shape += extents(*layer.inputs[0]) + " to " + extents(*layer.outputs[0]);
  return work;
}

}  // namespace tavro::bench
