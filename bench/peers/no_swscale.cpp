// Stands in for swscale_peer.cpp where swscale isn't installed.

#include "bench/peers/peers.h"
#include "bench/peers/picture_tasks.h"

namespace tavro::bench {

std::unique_ptr<ImagePeer> makeSwscale(const host::I420Frame& /*frame*/) {
  return nullptr;
}

PictureTask swscaleConversion(TavroRTC::FDModule::ColorOp /*op*/, FrameSize /*size*/) {
  return {};
}
PictureTask swscaleScale(int32_t /*bytesPerPixel*/, FrameSize /*from*/, FrameSize /*to*/) {
  return {};
}

}  // namespace tavro::bench
