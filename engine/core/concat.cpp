#include "engine/core/concat.h"

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Concat::Concat(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/) : Layer(row) {
  connectManyToOne(row, tensors);
}

bool Concat::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  int64_t channels = 0;
  for (const Tensor* input : inputs)
    channels += input->c;
  if (channels < 0 || channels > INT32_MAX)
    return false;
  copyShape(*inputs[0], *outputs[0]);
  outputs[0]->c = static_cast<int32_t>(channels);
  return true;
}

}  // namespace TavroRTC::FDModule::core
