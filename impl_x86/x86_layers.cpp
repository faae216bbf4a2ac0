// The layer classes of this kind of machine. Their registrations are the last static objects of the
// module to be set up, so this file comes last in the module's list of sources.

#include "engine/layer.h"
#include "engine/ref/reshape.h"
#include "engine/simd/layers.h"
#include "impl_x86/x86_conv.h"
#include "impl_x86/x86_run_env.h"

namespace TavroRTC::FDModule::x86 {
namespace {

struct Registration {
  Registration(const char* type, LayerCreator creator) {
    registerLayer(registryKey, type, creator);
  }
};

const Registration registrations[] = {
    {"Activation", makeLayer<simd::Activation>},
    {"Relu", makeLayer<simd::Activation>},
    {"Concat", makeLayer<simd::Concat>},
    {"Conv", makeLayer<x86::Conv>},
    {"DepthwiseConv", makeLayer<x86::DepthwiseConv>},
    {"Gemm", makeLayer<simd::Gemm>},
    {"Softmax", makeLayer<simd::Softmax>},
    {"AveragePool", makeLayer<simd::Pooling>},
    {"Reshape", makeLayer<ref::Reshape>},
    {"Add", makeLayer<simd::BinaryOp>},
};

}  // namespace

// Here and not beside the other members, so that whoever links the environment from a static
// library gets the registrations with it.
int32_t RunEnv::key() const {
  return registryKey;
}

}  // namespace TavroRTC::FDModule::x86
