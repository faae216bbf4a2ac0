#pragma once

// What can be made of the frames and their faces, one FrameOutput each: text, an annotated file,
// pictures of the faces. run.cpp finds the faces and hands every frame to each output that the user
// has asked for; outputs.cpp lists them. To add one, implement FrameOutput and give it a row there.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/app/output/drawing.h"
#include "host/app/output/frame_sink.h"
#include "host/app/search/frame_result.h"
#include "host/core/i420_frame.h"
#include "host/core/window_plan.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// The outputs that the user asks for.
struct OutputOptions {
  std::string results;          ///< file for the results; empty: the standard output
  bool isOneOfSeveral = false;  ///< nothing goes to the standard output
  std::string format;           ///< of the results: a name of text_format.h; empty: the first
  std::string annotate;         ///< picture or video to write; empty: none
  HidingOptions hiding;
  std::string command;          ///< all that was asked for, as a shell takes it
  bool reportPictures = false;  ///< of faces that are hidden elsewhere
  std::string cropFaces;        ///< folder for a picture of each face; empty: none
  std::string report;           ///< HTML page to write; empty: none
  std::string serve;            ///< where a browser can watch, a WebAddress; empty: nowhere
};

struct AnalysedFrame {
  const I420Frame& picture;
  const I420Frame* shown = nullptr;  ///< annotated or anonymised; null if no output wants it
  FrameResult result = {};
  bool analysed = true;  ///< false between two detections: the faces are those of the last one
};

class FrameOutput {
 public:
  virtual ~FrameOutput() = default;
  /// Called for every decoded frame. False if it fails, with a line for the user in `error`.
  virtual bool take(const AnalysedFrame& frame, std::string& error) = 0;
  /// Completes what was written; `endTime` is when the last frame ends. Called after a failure too.
  virtual bool finish(double endTime, std::string& error) = 0;
};

struct OutputRequest {
  const OutputOptions& options;
  const std::string& input;      ///< its name, for a title
  SinkFormat format;             ///< of the first picture
  WindowWish windows = {};       ///< what the faces are looked for through
  std::FILE* results = nullptr;  ///< open stream for the results as text; null: none
};

/// Opens the outputs that the options ask for. False, with a line for the user in `error`, if one
/// of them can't be opened.
bool openOutputs(const OutputRequest& request, std::vector<std::unique_ptr<FrameOutput>>& outputs,
                 std::string& error);

/// True if anything but the results as text is asked for.
bool writesOrShows(const OutputOptions& options);

/// True if one of the outputs needs `shown`.
bool showsFrames(const OutputOptions& options);

// Each kind of output.
std::unique_ptr<FrameOutput> openTextOutput(const OutputRequest& request);
std::unique_ptr<FrameOutput> openAnnotatedFile(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openFacePictures(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openReport(const OutputRequest& request, std::string& error);
std::unique_ptr<FrameOutput> openLiveOutput(const OutputRequest& request, std::string& error);

}  // namespace tavro::host
