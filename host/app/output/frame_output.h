#pragma once

// What can be made of the frames and their faces, one FrameOutput each: text, an annotated file,
// pictures of the faces. run.cpp finds the faces and hands every frame to each output that the user
// has asked for; outputs.cpp lists them. To add one, implement FrameOutput in a file of its own and
// give it a row there.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/app/annotation.h"
#include "host/core/face_numbers.h"
#include "host/app/options.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// What the detector said about one frame.
struct FrameResult {
  int64_t frame = 0;  ///< index among the decoded frames
  double time = 0.0;  ///< seconds
  int32_t width = 0;
  int32_t height = 0;
  std::span<const TavroRTC::FDModule::FaceRect> faces = {};
  double milliseconds = 0.0;                  ///< what the detector took
  std::span<const int64_t> faceNumbers = {};  ///< of each face, as of FaceNumbers
  std::span<const FaceNumbers::Lost> lost = {};
};

struct AnalysedFrame {
  const I420Frame& picture;
  const I420Frame* shown = nullptr;  ///< annotated or anonymised; null if nobody wants it
  FrameResult result = {};
  bool analysed = true;  ///< false between two detections: the faces are those of the last one
};

class FrameOutput {
 public:
  virtual ~FrameOutput() = default;
  /// Called for every decoded frame. False on failure, with a line for the user in `error`.
  virtual bool take(const AnalysedFrame& frame, std::string& error) = 0;
  /// Completes what was written; `endTime` is when the last frame ends. Called after a failure too.
  virtual bool finish(double endTime, std::string& error) = 0;
};

struct OutputRequest {
  const Options& options;
  SinkFormat format;             ///< of the first picture
  std::FILE* results = nullptr;  ///< open stream for the results as text
};

/// The outputs that the options ask for. Nothing, with a line for the user in `error`, if one of
/// them can't be opened.
bool openOutputs(const OutputRequest& request, std::vector<std::unique_ptr<FrameOutput>>& outputs,
                 std::string& error);

/// True if one of the outputs needs `shown`.
bool showsFrames(const Options& options);

// The outputs, each in a file of its own.
std::unique_ptr<FrameOutput> openTextOutput(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openAnnotatedFile(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openFacePictures(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openReport(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openLiveOutput(const OutputRequest& request, std::string& error);

}  // namespace tavro::host
