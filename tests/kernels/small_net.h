#pragma once

// SmallNet: a net of a few layers made by hand, from the layer classes that ship. Layers come from
// the registry through rows of the same form as the model's. Their operands end at a guard page.

#include <cstdint>
#include <initializer_list>
#include <list>
#include <vector>

#include "engine/net.h"
#include "tests/kernels/conv_reference.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/processor.h"

namespace tavro::test {

using TavroRTC::FDModule::Layer;
using TavroRTC::FDModule::LayerRow;
using TavroRTC::FDModule::Net;
using TavroRTC::FDModule::Tensor;

/// The environment of the machine, without the report that each new one prints.
class QuietEnv : public TavroRTC::FDModule::core::RunEnv {
 public:
  int32_t key() const override;
  bool rewriteGraph(Net* net) override;
};

/// A layer's row; unlike LayerRow it can be written in one expression.
struct RowOf {
  const char* type = "";
  std::vector<const char*> io = {};  ///< the inputs, then the output
  std::vector<int32_t> ints = {};
  std::vector<float> floats = {};
  std::vector<const char*> weights = {};

  /// `name` defaults to the output's name.
  LayerRow row(const char* name = nullptr) const;
};

class SmallNet {
 public:
  SmallNet() : net(new QuietEnv) {}

  /// An activation with values, in plain order of the given layout code.
  Tensor& addInput(const char* name, const Extents& extents, const std::vector<float>& values,
                   int32_t layout = 0);
  /// A picture: bytes without floats.
  Tensor& addPicture(const char* name, const Extents& extents, const std::vector<uint8_t>& bytes);
  /// A constant, of layout code 1 like the model's.
  Tensor& addConstant(const char* name, const Extents& extents, const std::vector<float>& values,
                      int32_t layout = 1);
  /// Null if the registry has no such type.
  Layer* addLayer(const RowOf& row);

  /// Shapes all layers, without the timer line of Net::warmup.
  bool reshape();
  bool run() { return net.run(); }
  /// Shapes and runs; false if either fails.
  bool compute() { return reshape() && run(); }

  Tensor& tensor(const char* name) { return *net.findTensor(name); }
  std::vector<float> values(const char* name);

  Net net;

 private:
  template <typename T>
  static Tensor& lend(Tensor& tensor, const Extents& extents, int32_t layout,
                      std::list<GuardedBuffer<T>>& buffers, const std::vector<T>& values);

  std::list<GuardedBuffer<float>> floats_;
  std::list<GuardedBuffer<uint8_t>> bytes_;
};

}  // namespace tavro::test
