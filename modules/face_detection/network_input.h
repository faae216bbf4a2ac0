#pragma once

// The picture that the network sees: the frame, whatever its shape, stretched to a square and
// packed as B, G, R bytes.
//
//   frame --scale--> 192x192 I420 --convert--> 192x192 B, G, R

#include <cstddef>
#include <cstdint>

#include "modules/face_detection/frame_view.h"

namespace TavroRTC::FDModule {

inline constexpr int32_t inputWidth = 192;  ///< in pixels
inline constexpr int32_t inputHeight = 192;

/// Bytes of the two buffers: the picture's three planes in one block, and its packed pixels without
/// gaps between the rows.
inline constexpr size_t planarInputSize = size_t{inputWidth} * inputHeight * 3 / 2;
inline constexpr size_t packedInputSize = size_t{inputWidth} * inputHeight * 3;

/// Fills both buffers. False, with the packed one as it was, if the frame's planes or its size are
/// refused or there is no memory for a work row.
bool prepareNetworkInput(const FrameView& frame, uint8_t* planar, uint8_t* packed);

}  // namespace TavroRTC::FDModule
