#pragma once

// The detector as the training code calls it, through C functions that any language can load: each
// step of the module on its own, by the module's own code.
//
//   B, G, R picture --tavroConvertPicture--> I420 frame --tavroPrepareInput--> 192x192 B, G, R
//     --tavroRunNetwork--> scores and offsets
//   I420 frame --tavroDetect--> boxes of this frame alone, at any threshold
//   frame size --tavroPlanWindows--> the host's windows
//   boxes seen through windows --tavroGroupBoxes--> which of them the host takes for one face
//
// Nothing is kept from call to call and nothing is tracked. Functions return 0 or a count, or -1 if
// they refuse the arguments or there is no memory; what they should have written is then undefined.
// One detector takes one call at a time.

#include <stdint.h>

#define TAVRO_TRAINING_API __attribute__((visibility("default")))

extern "C" {

/// A frame's planes in 4:2:0 sampling, 1 to 32768 pixels wide and high; a chroma plane holds
/// (width + 1) / 2 by (height + 1) / 2 samples. No row has a gap behind it.
struct TavroFrame {
  uint8_t* y;
  uint8_t* u;
  uint8_t* v;
  int32_t width;
  int32_t height;
};

/// A box in pixels of the frame. It may reach over the frame's edges.
struct TavroBox {
  float x1;
  float y1;
  float x2;
  float y2;
  float score;
};

/// A part of a frame, in its pixels.
struct TavroWindow {
  int32_t x;
  int32_t y;
  int32_t width;
  int32_t height;
};

struct TavroDetector;

/// Writes the frame's planes from `picture`: rows of B, G, R bytes, `stride` bytes apart. BT.601,
/// limited range.
TAVRO_TRAINING_API int32_t tavroConvertPicture(const uint8_t* picture, int32_t stride,
                                               const TavroFrame* frame);

/// Writes what the network sees of the frame: 192x192 pixels of three bytes B, G, R.
TAVRO_TRAINING_API int32_t tavroPrepareInput(const TavroFrame* frame, uint8_t* picture);

/// Null if this processor can't run the network or there is no memory.
TAVRO_TRAINING_API TavroDetector* tavroCreateDetector(void);

/// Null is allowed.
TAVRO_TRAINING_API void tavroReleaseDetector(TavroDetector* detector);

/// One pass over 192x192 pixels of B, G, R bytes: `scores` gets 2088 x 2 probabilities (no face,
/// face), `offsets` 2088 x 4.
TAVRO_TRAINING_API int32_t tavroRunNetwork(TavroDetector* detector, const uint8_t* picture,
                                           float* scores, float* offsets);

/// The boxes that score above `threshold`, best first, at most `capacity` of them; returns their
/// count. The box that exceeds `keepLimit` is the last one. At 0.65 and 5 these are, before they
/// are truncated to whole pixels, what the module reports for its first frame.
TAVRO_TRAINING_API int32_t tavroDetect(TavroDetector* detector, const TavroFrame* frame,
                                       float threshold, int32_t keepLimit, TavroBox* boxes,
                                       int32_t capacity);

/// The windows through which a host looks at such a frame (host/core/window_plan.h); returns their
/// count, of which at most `capacity` are written. At least one window must be allowed.
TAVRO_TRAINING_API int32_t tavroPlanWindows(int32_t width, int32_t height, int32_t smallestFace,
                                            int32_t mostWindows, TavroWindow* windows,
                                            int32_t capacity);

/// Groups boxes of one frame by face as a host does (host/core/face_merging.h). `windowOf` has the
/// index of the window that saw each box, `best` gets the index of the best seen box of its face.
TAVRO_TRAINING_API int32_t tavroGroupBoxes(int32_t width, int32_t height,
                                           const TavroWindow* windows, int32_t windowCount,
                                           const TavroBox* boxes, const int32_t* windowOf,
                                           int32_t count, int32_t* best);

/// The weight block that is built in, 391,296 bytes.
TAVRO_TRAINING_API const uint8_t* tavroWeights(void);
}
