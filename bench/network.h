#pragma once

// The network of the module, opened up. The detector keeps its Net to itself, so the benches build
// one from the same tables. They time each layer and run the path of processors without AVX and
// FMA.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "engine/cpu_info.h"
#include "engine/net.h"

namespace tavro::bench {

/// Which kernels a network takes. On a processor without AVX and FMA both are narrow.
enum class Path : uint8_t {
  wide,          ///< as the processor allows
  twins256,      ///< no twins of more than 256 bits
  withoutTwins,  ///< the named kernels only
  narrow         ///< 128-bit kernels only
};

/// While it lives, the processor seems to have only what the path allows. One at a time.
class PathGuard {
 public:
  explicit PathGuard(Path path);
  ~PathGuard();
  PathGuard(const PathGuard&) = delete;
  PathGuard& operator=(const PathGuard&) = delete;

 private:
  TavroRTC::FDModule::CpuInfo narrow_;
};

inline constexpr int32_t inputSide = 192;
inline constexpr size_t pictureBytes = size_t{3} * inputSide * inputSide;

/// A network that is ready to run: its first pass, which packs the weights, is done.
class Network {
 public:
  /// `picture` holds pictureBytes bytes B, G, R and must outlive the network. Throws
  /// std::runtime_error if a layer fails.
  Network(std::span<uint8_t> picture, Path path);

  /// One pass, on the path.
  void run();

  std::vector<float> scores() { return values("scores"); }
  std::vector<float> boxes() { return values("Reshape_0"); }

  TavroRTC::FDModule::Net& net() { return *net_; }

  /// The layers that do work of their own: those that no neighbour has merged.
  std::vector<TavroRTC::FDModule::Layer*> workingLayers();

 private:
  std::vector<float> values(const char* tensorName);

  Path path_;
  std::unique_ptr<TavroRTC::FDModule::Net> net_;
};

/// The least that one pass of a layer has to do.
struct LayerWork {
  std::string shape;      ///< "3x3 s1 d2, 24x24x16 to 24x24x16"
  double operations = 0;  ///< two for each multiply-add
  double bytes = 0;       ///< inputs, weights and outputs, each once

  /// Cycles that a core with two 256-bit units and 32 bytes a cycle of memory traffic needs.
  double cycles() const;
  bool isBoundByArithmetic() const;
};

LayerWork workOf(const TavroRTC::FDModule::Layer& layer);

}  // namespace tavro::bench
