#include "engine/core/softmax.h"

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Softmax::Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/) : Layer(row) {
  connectOneToOne(row, tensors);
}

bool Softmax::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  copyShape(*inputs[0], *outputs[0]);
  return true;
}

}  // namespace TavroRTC::FDModule::core
