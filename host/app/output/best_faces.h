#pragma once

// BestFaces: for each numbered face the frame that shows it best, as a square JPEG cut out of it,
// and when the face was seen.

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "host/app/search/frame_result.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

struct FaceStory {
  double firstSeen = 0.0;  ///< seconds
  double lastSeen = 0.0;
  int64_t frames = 0;  ///< analysed frames with the face
  double quality = 0.0;
  double bestTime = 0.0;
  std::vector<uint8_t> jpeg;  ///< at the best frame
};

class BestFaces {
 public:
  /// `largestSide` is that of the pictures, 0 for no limit; `colorMatrix` as of VideoInput.
  BestFaces(int32_t largestSide, int32_t colorMatrix)
      : largestSide_(largestSide), colorMatrix_(colorMatrix) {}

  /// False if a picture can't be made.
  bool add(const I420Frame& picture, const FrameResult& result);

  const std::map<int64_t, FaceStory>& stories() const { return stories_; }  ///< by number

 private:
  int32_t largestSide_;
  int32_t colorMatrix_;
  std::map<int64_t, FaceStory> stories_;
};

/// How good a picture of a face this is: large, sharp and inside the frame. 0 for none at all; only
/// comparable for one face.
double faceQuality(const I420Frame& picture, const TavroRTC::FDModule::FaceRect& face);

/// The face with half its size around it, a square as far as the picture has room for one. Sides
/// longer than `largestSide` are brought below it by whole factors. Nothing if no sample of the
/// face is in the picture, or memory runs out.
std::optional<I420Frame> cutOut(const I420Frame& picture, const TavroRTC::FDModule::FaceRect& face,
                                int32_t largestSide);

}  // namespace tavro::host
