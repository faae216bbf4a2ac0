#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "host/core/i420_frame.h"
#include "image/image_desc.h"

namespace tavro::bench {

/// The detector's first step, from a frame to the network's picture, with buffers of its own.
class ImageStep {
 public:
  /// The frame must stay.
  explicit ImageStep(const host::I420Frame& frame);

  void scale();
  void convert();
  /// Both. Throws std::runtime_error if the arguments are refused.
  void run();

  std::span<const uint8_t> picture() const { return picture_; }

 private:
  TavroRTC::FDModule::ImageDesc source_;
  TavroRTC::FDModule::ImageDesc scaled_;
  TavroRTC::FDModule::ImageDesc packed_;
  std::vector<uint8_t> planes_;
  std::vector<uint8_t> picture_;
};

}  // namespace tavro::bench
