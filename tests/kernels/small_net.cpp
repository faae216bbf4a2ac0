#include "tests/kernels/small_net.h"

#include <algorithm>
#include <utility>

#include "engine/layer_registry.h"
#include "impl_x86/x86_run_env.h"
#include "tests/support/captured_stdout.h"

namespace tavro::test {
namespace {

namespace fd = TavroRTC::FDModule;

fd::x86::RunEnv& machine() {
  static fd::x86::RunEnv env = [] {
    const CapturedStdout report;
    return fd::x86::RunEnv();
  }();
  return env;
}

void setExtents(Tensor& tensor, const Extents& extents, int32_t layout) {
  tensor.n = extents.n;
  tensor.h = extents.h;
  tensor.w = extents.w;
  tensor.c = extents.c;
  tensor.layout = layout;
}

}  // namespace

int32_t QuietEnv::key() const {
  return machine().key();
}
bool QuietEnv::rewriteGraph(Net* net) {
  return machine().rewriteGraph(net);
}

LayerRow RowOf::row(const char* name) const {
  LayerRow row;
  row.name = name != nullptr || io.empty() ? name : io.back();
  row.type = type;
  std::ranges::copy(ints, row.ints);
  std::ranges::copy(floats, row.floats);
  std::ranges::copy(io, row.io);
  std::ranges::copy(weights, row.weights);
  return row;
}

Tensor& SmallNet::addInput(const char* name, const Extents& extents, std::vector<float> values,
                           int32_t layout) {
  Tensor& tensor = net.tensors[name];
  setExtents(tensor, extents, layout);
  tensor.borrow(constants_.emplace_back(std::move(values)).data());
  return tensor;
}

Tensor& SmallNet::addPicture(const char* name, const Extents& extents, std::vector<uint8_t> bytes) {
  Tensor& tensor = net.tensors[name];
  setExtents(tensor, extents, 0);
  tensor.borrow(pictures_.emplace_back(std::move(bytes)).data());
  return tensor;
}

Tensor& SmallNet::addConstant(const char* name, const Extents& extents, std::vector<float> values,
                              int32_t layout) {
  Tensor& tensor = net.weights[name];
  setExtents(tensor, extents, layout);
  tensor.borrow(constants_.emplace_back(std::move(values)).data());
  return tensor;
}

Layer* SmallNet::addLayer(const RowOf& row) {
  const size_t before = net.layers.size();
  const LayerRow rows[] = {row.row()};
  net.addLayers(rows);
  return net.layers.size() > before ? net.layers.back() : nullptr;
}

bool SmallNet::reshape() {
  bool shaped = true;
  for (Layer* layer : net.layers)
    shaped &= layer->reshape(net.env);
  return shaped;
}

std::vector<float> SmallNet::values(const char* name) {
  const Tensor& source = tensor(name);
  return {source.floatData, source.floatData + source.count()};
}

}  // namespace tavro::test
