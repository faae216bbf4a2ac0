#include "engine/simd/layers.h"

#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

// A pixel has few channels, too few for a call of the library's copy to pay.
float* copyValues(const float* source, float* destination, int32_t count) {
  int32_t i = 0;
  for (; i + Float4::lanes <= count; i += Float4::lanes)
    Float4::load(source + i).store(destination + i);
  for (; i < count; ++i)
    destination[i] = source[i];
  return destination + count;
}

}  // namespace

bool Concat::forward(core::RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  Tensor& output = *outputs[0];
  if (!output.holdsItsShape())
    return false;
  int64_t channels = 0;
  for (Tensor* input : inputs) {
    if (input == &output || !input->holdsItsShape() || input->h != output.h ||
        input->w != output.w || input->data(layout::channelsLast) == nullptr)
      return false;
    channels += input->c;
  }
  float* destination = output.data(layout::channelsLast);
  if (destination == nullptr || channels != output.c)
    return false;
  const int64_t pixels = static_cast<int64_t>(output.h) * output.w;
  for (int64_t pixel = 0; pixel < pixels; ++pixel)
    for (const Tensor* input : inputs)
      destination = copyValues(input->floatData + pixel * input->c, destination, input->c);
  return true;
}

}  // namespace TavroRTC::FDModule::simd
