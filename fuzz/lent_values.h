#pragma once

// Values that tensors borrow, each buffer exactly as long as the tensor's shape says.

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "engine/tensor.h"

namespace tavro::fuzz {

class LentValues {
 public:
  /// `value()` returns one value after the other. The extents must be those of a small tensor.
  template <typename Value>
  float* lendFloats(TavroRTC::FDModule::Tensor& tensor, Value value) {
    const size_t count = countOf(tensor);
    float* memory = floats_.emplace_back(new float[count]).get();
    for (size_t i = 0; i < count; ++i)
      memory[i] = value();
    tensor.borrow(memory);
    return memory;
  }
  template <typename Value>
  void lendBytes(TavroRTC::FDModule::Tensor& tensor, Value value) {
    const size_t count = countOf(tensor);
    uint8_t* memory = bytes_.emplace_back(new uint8_t[count]).get();
    for (size_t i = 0; i < count; ++i)
      memory[i] = value();
    tensor.borrow(memory);
  }

 private:
  static size_t countOf(const TavroRTC::FDModule::Tensor& tensor) {
    return static_cast<size_t>(tensor.n) * static_cast<size_t>(tensor.h) *
           static_cast<size_t>(tensor.w) * static_cast<size_t>(tensor.c);
  }

  std::list<std::unique_ptr<float[]>> floats_;
  std::list<std::unique_ptr<uint8_t[]>> bytes_;
};

}  // namespace tavro::fuzz
