// Stands in for opencv_peer.cpp where OpenCV isn't installed.

#include "bench/peers/peers.h"
#include "bench/peers/picture_tasks.h"

namespace tavro::bench {

std::unique_ptr<NetworkPeer> makeOpenCvNetwork(const PeerSetup& /*setup*/) {
  return nullptr;
}
std::unique_ptr<ImagePeer> makeOpenCvImage(const host::I420Frame& /*frame*/) {
  return nullptr;
}
std::unique_ptr<ImagePeer> makeOpenCvImageColorsFirst(const host::I420Frame& /*frame*/) {
  return nullptr;
}
std::unique_ptr<FramePeer> makeOpenCvFrame(const PeerSetup& /*setup*/,
                                           const host::I420Frame& /*frame*/) {
  return nullptr;
}

PictureTask openCvConversion(TavroRTC::FDModule::ColorOp /*op*/, FrameSize /*size*/) {
  return {};
}
PictureTask openCvScale(int32_t /*bytesPerPixel*/, FrameSize /*from*/, FrameSize /*to*/) {
  return {};
}

}  // namespace tavro::bench
