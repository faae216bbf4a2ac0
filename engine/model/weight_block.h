#pragma once

#include <cstddef>

namespace TavroRTC::FDModule {

/// Every tensor begins at a multiple of this, and so does the block itself.
inline constexpr size_t weightAlignment = 128;
inline constexpr size_t weightBlockSize = 391296;

}  // namespace TavroRTC::FDModule

/// The bytes of weights.bin, in read-only memory (weights.S).
extern "C" const unsigned char tavroModelWeights[TavroRTC::FDModule::weightBlockSize];
