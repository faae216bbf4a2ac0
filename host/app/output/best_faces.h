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

/// The names of the files in the folder of --crop-faces.
inline constexpr const char* facePicturePattern = "face-%04lld.jpg";

struct FaceStory {
  double firstSeen = 0.0;  ///< seconds
  double lastSeen = 0.0;
  int64_t frames = 0;  ///< analysed frames with the face
  double quality = 0.0;
  double bestTime = 0.0;
  std::vector<uint8_t> jpeg;  ///< at the best frame; empty without pictures
};

class BestFaces {
 public:
  /// `largestSide` is that of the pictures, 0 for no limit; `colorMatrix` is that of VideoInput.
  BestFaces(int32_t largestSide, int32_t colorMatrix, bool withPictures = true)
      : largestSide_(largestSide), colorMatrix_(colorMatrix), withPictures_(withPictures) {}

  /// False if a picture can't be made.
  bool add(const I420Frame& picture, const FrameResult& result);

  const std::map<int64_t, FaceStory>& stories() const { return stories_; }  ///< by number

 private:
  int32_t largestSide_;
  int32_t colorMatrix_;
  bool withPictures_;
  std::map<int64_t, FaceStory> stories_;
};

/// How good a picture of a face this is: large, sharp and inside the frame. 0 if none of it is
/// inside. Only values of the same face can be compared.
double faceQuality(const I420Frame& picture, const TavroRTC::FDModule::FaceRect& face);

/// The face with a quarter of its size on each side, as a square if the picture has room for one.
/// Longer sides than `largestSide` are divided by a whole number. Empty if no sample of the face is
/// in the picture, or if there is no memory.
std::optional<I420Frame> cutOut(const I420Frame& picture, const TavroRTC::FDModule::FaceRect& face,
                                int32_t largestSide);

}  // namespace tavro::host
