#include "engine/core/gemm.h"

#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::core {
namespace {

struct Matrix {
  int32_t rows;
  int32_t columns;
};

Matrix asMatrix(const Tensor& tensor) {
  if (tensor.layout == layout::channelsFirst)
    return {tensor.h, tensor.w};
  return {tensor.w, tensor.c};
}

Matrix transposedIf(bool isTransposed, Matrix matrix) {
  return isTransposed ? Matrix{matrix.columns, matrix.rows} : matrix;
}

}  // namespace

Gemm::Gemm(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row),
      alpha(row.floats[0]),
      beta(row.floats[1]),
      transA(row.ints[0]),
      transB(row.ints[1]) {
  connectOneToOne(row, tensors);
  const auto constants = findWeights(row, weights);
  if (!constants.empty())
    matrix = constants[0];
  if (constants.size() > 1)
    bias = constants[1];
}

Gemm::Sizes Gemm::findSizes() const {
  const Matrix a = transposedIf(transA != 0, asMatrix(*inputs[0]));
  const Matrix b = transposedIf(transB != 0, asMatrix(*matrix));
  return {a.rows, a.columns, b.columns};
}

bool Gemm::fitsTensors() const {
  if (!isConnected() || matrix == nullptr || inputs[0] == outputs[0])
    return false;
  const auto [m, k, n] = sizes;
  if (m < 1 || k < 1 || n < 1 || (m != 1 && n != 1))
    return false;
  const auto inputCount = static_cast<uint64_t>(m) * static_cast<uint64_t>(k);
  const auto matrixCount = static_cast<uint64_t>(k) * static_cast<uint64_t>(n);
  const auto length = static_cast<uint64_t>(sizes.length());
  const auto holds = [](const Tensor& tensor, uint64_t count) {
    return tensor.count() >= count && tensor.storageFits();
  };
  return holds(*inputs[0], inputCount) && holds(*matrix, matrixCount) &&
         holds(*outputs[0], length) && (bias == nullptr || holds(*bias, length));
}

bool Gemm::reshape(RunEnv* /*env*/) {
  if (!isConnected() || matrix == nullptr)
    return false;
  sizes = findSizes();
  if (sizes.n != 1 && sizes.m != 1)
    return false;
  const Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  const bool alongChannels = input.layout == layout::channelsLast;
  output.n = 1;
  output.h = 1;
  output.w = alongChannels ? 1 : sizes.length();
  output.c = alongChannels ? sizes.length() : 1;
  output.layout = input.layout;
  return fitsTensors();
}

}  // namespace TavroRTC::FDModule::core
