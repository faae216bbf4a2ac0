#pragma once

// Programs that solve the same problems in another way: they run the exported network, bring a
// frame to the network's size and colours, do both, or do one operation of the image code.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/sampler.h"
#include "bench/scenes.h"
#include "host/core/i420_frame.h"
#include "image/image_desc.h"

namespace tavro::bench {

struct NetworkOutputs {
  std::vector<float> scores;
  std::vector<float> boxes;
};

class NetworkPeer {
 public:
  virtual ~NetworkPeer() = default;
  virtual std::string name() const = 0;
  /// Its outputs for a picture (planesOf in scenes.h), which it keeps for `measure`.
  virtual NetworkOutputs outputs(const std::vector<float>& planes) = 0;
  virtual void measure(int runs, RunTimes& times) = 0;
  /// Median times of the layers during `measure`, in nanoseconds, by the names of our layers. Empty
  /// if the peer doesn't report them; merged layers are missing.
  virtual std::map<std::string, double> layerTimes() const { return {}; }
};

/// Makes B, G, R bytes of the network's size out of one frame.
class ImagePeer {
 public:
  virtual ~ImagePeer() = default;
  virtual std::string name() const = 0;
  virtual void run() = 0;
  virtual std::span<const uint8_t> picture() const = 0;
};

/// Scales a frame and runs the network on it.
class FramePeer {
 public:
  virtual ~FramePeer() = default;
  virtual std::string name() const = 0;
  virtual void run() = 0;
};

/// What peers are made of and for.
struct PeerSetup {
  std::string model;          ///< the network as an ONNX file
  std::string peersFolder;    ///< where onnxruntime.mjs and node_modules are
  std::string scratchFolder;  ///< for the files that go to and from a child process
  std::string identityModel;  ///< a network that does nothing
};

/// ONNX Runtime in a child process, one thread; null if it isn't installed. All peers throw
/// std::runtime_error if they fail.
std::unique_ptr<NetworkPeer> makeOnnxRuntime(const PeerSetup& setup);
/// The same with the network that does nothing: what a call costs without any work.
std::unique_ptr<NetworkPeer> makeOnnxRuntimeIdentity(const PeerSetup& setup);

std::unique_ptr<NetworkPeer> makeOpenCvNetwork(const PeerSetup& setup);
/// Resizes the three planes and converts what comes out: the order of work of our own.
std::unique_ptr<ImagePeer> makeOpenCvImage(const host::I420Frame& frame);
/// Converts the whole frame and resizes the colours, as most programs do.
std::unique_ptr<ImagePeer> makeOpenCvImageColorsFirst(const host::I420Frame& frame);
std::unique_ptr<FramePeer> makeOpenCvFrame(const PeerSetup& setup, const host::I420Frame& frame);

std::unique_ptr<ImagePeer> makeSwscale(const host::I420Frame& frame);

/// One operation on buffers of its own, of one picture size, done once a call. Empty where the
/// library has nothing like it.
using PictureTask = std::function<void()>;

PictureTask openCvConversion(TavroRTC::FDModule::ColorOp op, FrameSize size);
PictureTask swscaleConversion(TavroRTC::FDModule::ColorOp op, FrameSize size);

/// Bilinear, of packed pixels.
PictureTask openCvScale(int32_t bytesPerPixel, FrameSize from, FrameSize to);
PictureTask swscaleScale(int32_t bytesPerPixel, FrameSize from, FrameSize to);

}  // namespace tavro::bench
