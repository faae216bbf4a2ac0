#include "tests/kernels/small_net.h"

#include <algorithm>

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

template <typename T>
Tensor& SmallNet::lend(Tensor& tensor, const Extents& extents, int32_t layout,
                       std::list<GuardedBuffer<T>>& buffers, const std::vector<T>& values) {
  tensor.n = extents.n;
  tensor.h = extents.h;
  tensor.w = extents.w;
  tensor.c = extents.c;
  tensor.layout = layout;
  tensor.borrow(buffers.emplace_back(values).data());
  return tensor;
}

Tensor& SmallNet::addInput(const char* name, const Extents& extents,
                           const std::vector<float>& values, int32_t layout) {
  return lend(net.tensors[name], extents, layout, floats_, values);
}

Tensor& SmallNet::addPicture(const char* name, const Extents& extents,
                             const std::vector<uint8_t>& bytes) {
  return lend(net.tensors[name], extents, 0, bytes_, bytes);
}

Tensor& SmallNet::addConstant(const char* name, const Extents& extents,
                              const std::vector<float>& values, int32_t layout) {
  return lend(net.weights[name], extents, layout, floats_, values);
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
