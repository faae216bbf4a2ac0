#include "host/app/output/frame_output.h"

namespace tavro::host {

std::unique_ptr<FrameOutput> openLiveOutput(const OutputRequest& /*request*/, std::string& error) {
  error = "--serve isn't part of this build";
  return nullptr;
}

}  // namespace tavro::host
