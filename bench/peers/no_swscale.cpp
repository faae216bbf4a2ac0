// Stands in for swscale_peer.cpp where swscale isn't installed.

#include "bench/peers/peers.h"

namespace tavro::bench {

std::unique_ptr<ImagePeer> makeSwscale(const host::I420Frame& /*frame*/) {
  return nullptr;
}

}  // namespace tavro::bench
