#pragma once

// Impl: the engine as the detector knows it, a handle to a network that is ready to run. Behind it
// stands a Net over the run environment of this machine, built from the embedded model.

#include <cstdint>

namespace TavroRTC::FDModule {

class Impl;

/// Builds the network. `backend` 0 is this machine's processor, the only backend; any other returns
/// null, and so does a processor without SSSE3. `precision` is ignored: this backend always
/// computes in float. May throw std::bad_alloc, and then leaves nothing behind.
Impl* createImpl(int32_t backend, int32_t precision);

/// One pass of the network over `picture`: 192x192 pixels of three bytes B, G, R without gaps,
/// which must stay until the next run. Null runs it on the picture of the last run. The outputs
/// belong to the network and hold until the next run: `boxes` four and `scores` two floats for each
/// prior box.
/// Returns 0. Returns -1, with `boxes` and `scores` untouched, for a null handle, an incomplete
/// network or if there is no memory. May throw std::bad_alloc.
int32_t runImpl(Impl* impl, uint8_t* picture, float** boxes, float** scores);

/// Destroys the network; null is allowed. Always 0.
int32_t releaseImpl(Impl* impl);

}  // namespace TavroRTC::FDModule
