#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// A fully connected layer: a constant matrix times a vector, plus a bias. Of the input and the
/// matrix, one must be a single row or column.
class Gemm : public virtual Layer {
 public:
  bool reshape(RunEnv* env) override;

  float alpha = 1;     ///< read from the row, applied nowhere
  float beta = 1;      ///< likewise
  int32_t transA = 0;  ///< not 0: the input is read transposed
  int32_t transB = 0;  ///< not 0: the matrix is read transposed
  Tensor* matrix = nullptr;
  Tensor* bias = nullptr;  ///< one value for each output; may be missing

 protected:
  Gemm(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

  /// The product's sizes: M rows of K values times K values for each of N columns.
  struct Sizes {
    int32_t m = 0;
    int32_t k = 0;
    int32_t n = 0;
    int32_t length() const { return n != 1 ? n : m; }
  };
  /// As reshape found them: asking the input for its data may change what it counts as.
  Sizes sizes;
  /// True if one side is a vector and the tensors hold as many values as the product reads.
  bool fitsTensors() const;

 private:
  Sizes findSizes() const;
};

}  // namespace TavroRTC::FDModule::core
