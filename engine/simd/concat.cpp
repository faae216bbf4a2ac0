#include "engine/simd/concat.h"

#include <cstring>

#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {

bool Concat::forward(core::RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  Tensor& output = *outputs[0];
  int64_t channels = 0;
  for (Tensor* input : inputs) {
    if (input == &output || input->n != output.n || input->h != output.h || input->w != output.w ||
        input->c < 0 || input->data(layout::channelsLast) == nullptr)
      return false;
    channels += input->c;
  }
  float* destination = output.data(layout::channelsLast);
  if (destination == nullptr || output.n != 1 || output.h < 0 || output.w < 0 ||
      channels != output.c)
    return false;
  const int64_t pixels = static_cast<int64_t>(output.h) * output.w;
  for (int64_t pixel = 0; pixel < pixels; ++pixel) {
    for (const Tensor* input : inputs) {
      std::memcpy(destination, input->floatData + pixel * input->c,
                  static_cast<size_t>(input->c) * sizeof(float));
      destination += input->c;
    }
  }
  return true;
}

}  // namespace TavroRTC::FDModule::simd
