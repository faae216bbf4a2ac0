#include "host/app/run.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>

#include "host/app/input/video_input.h"
#include "host/app/output/drawing.h"
#include "host/app/output/frame_output.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/app/search/detector_session.h"
#include "host/app/search/statistics.h"
#include "host/core/face_numbers.h"

namespace tavro::host {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The state of one run. A step that fails for good returns false, with a line for the user in
/// `error_`.
class Run {
 public:
  explicit Run(const Options& options) : options_(options) {}

  int execute() {
    const auto start = Clock::now();
    bool completed = openInput() && openResults();
    for (int32_t pass = 0; completed && pass < options_.repeat && !isStopRequested(); ++pass)
      completed = runPass(pass);
    statistics_.seconds = secondsSince(start);
    progress_.erase();
    completed = closeOutputs() && completed;
    if (!completed) {
      std::fprintf(stderr, "tavro-fd: %s\n", error_.c_str());
      return exitBadInput;
    }
    if (options_.stats)
      std::fputs(statistics_.report().c_str(), stderr);
    return reportShortcomings();
  }

 private:
  bool fail(std::string error) {
    if (error_.empty())
      error_ = std::move(error);
    return false;
  }

  bool openInput() {
    std::string error;
    input_ = VideoInput::open(options_.input, error);
    return input_ != nullptr || fail(options_.input.path + ": " + error);
  }

  /// Opened after the input, so that nothing is overwritten if that can't be read.
  bool openResults() {
    if (const std::string& file = options_.output.results; !file.empty()) {
      results_.reset(openFile(file, "wb"));
      if (results_ == nullptr)
        return fail(file + ": " + std::strerror(errno));
    }
    StreamHandle standardOutput = divertStandardOutput();
    if (results_ == nullptr)
      results_ = std::move(standardOutput);
    if (results_ == nullptr)
      return fail("the standard output is closed");
    if (isTerminal(results_.get()))
      progress_.disable();
    return true;
  }

  /// Opened with the first picture. The module prints lines of its own, and a fault of the input or
  /// the outputs is to be told in a single line.
  bool openDetector() {
    std::string error;
    if (detector_ != nullptr)
      return true;
    const I420Frame& picture = input_->picture();
    for (const Window& region : options_.search.windows.regions)
      if (!touchesFrame(region, picture.width(), picture.height()))
        return fail("--roi lies outside of the frame: " + std::to_string(region.x) + "," +
                    std::to_string(region.y) + " in " + std::to_string(picture.width()) + "x" +
                    std::to_string(picture.height()));
    detector_ = DetectorSession::open(options_.module, options_.search, error);
    return detector_ != nullptr || fail(error);
  }

  bool runPass(int32_t pass) {
    if (input_ == nullptr && !openInput())
      return false;
    const bool writes = pass == 0;
    int64_t total = input_->expectedFrames();
    if (options_.maxFrames > 0)
      total = total > 0 ? std::min(total, options_.maxFrames) : options_.maxFrames;
    int64_t frames = 0;
    while ((options_.maxFrames == 0 || frames < options_.maxFrames) && input_->read()) {
      ++frames;
      if (writes && frames == 1 && !openAllOutputs())
        return false;
      if (!openDetector())
        return false;
      const bool detects = input_->index() % options_.every == 0;
      const double milliseconds = detects ? detect() : 0.0;
      if (writes && !writeOut(detects, milliseconds))
        return false;
      progress_.update(pass * total + frames, total * options_.repeat);
    }
    statistics_.decodedFrames += frames;
    if (writes)
      damage_ = input_->damage();
    input_.reset();
    if (frames == 0 && !isStopRequested())
      return fail(options_.input.path + ": no frame could be decoded" +
                  (damage_.any() ? ", " + damage_.summary() : ""));
    return true;
  }

  /// Milliseconds that the detector took for the current picture.
  double detect() {
    const auto start = Clock::now();
    const FrameSearch& search = detector_->search();
    const Status status = detector_->search().search(input_->picture(), faces_);
    const double milliseconds = secondsSince(start) * 1000.0;
    refusedLast_ = !status.ok();
    if (!status.ok() && refusedFrames_++ == 0 && search.windows().size() > 1)
      windowFailure_ = ", " + status.error;
    if (options_.stats) {
      statistics_.milliseconds.push_back(milliseconds);
      statistics_.addWindows(search.windows());
      statistics_.smallestFace = search.smallestFace();
    }
    return milliseconds;
  }

  /// Opened with the first picture, whose size the outputs need.
  bool openAllOutputs() {
    std::string error;
    const SinkFormat format = {.width = input_->picture().width(),
                               .height = input_->picture().height(),
                               .frameRate = input_->frameRate(),
                               .colorMatrix = input_->colorMatrix()};
    return openOutputs({.options = options_.output,
                        .input = options_.input.path,
                        .format = format,
                        .results = results_.get()},
                       outputs_, error) ||
           fail(error);
  }

  bool writeOut(bool analysed, double milliseconds) {
    const I420Frame& picture = input_->picture();
    if (analysed)
      shownNumbers_ = numbers_.update(faces_.view(), input_->time());
    const FrameResult result = {.frame = input_->index(),
                                .time = input_->time(),
                                .width = picture.width(),
                                .height = picture.height(),
                                .faces = faces_.view(),
                                .milliseconds = milliseconds,
                                .faceNumbers = shownNumbers_,
                                .lost = numbers_.lost()};
    std::optional<I420Frame> shown;
    if (showsFrames(options_.output)) {
      shown = options_.output.blur ? anonymised(picture) : withRectangles(picture, faces_.view());
      if (!shown.has_value())
        return fail("out of memory");
    }
    endTime_ = result.time + 1.0 / input_->frameRate().perSecond();
    std::string error;
    return std::ranges::all_of(outputs_,
                               [&](const auto& output) {
                                 return output->take(
                                     {.picture = picture,
                                      .shown = shown.has_value() ? &*shown : nullptr,
                                      .result = result,
                                      .analysed = analysed},
                                     error);
                               }) ||
           fail(error);
  }

  /// The picture without the faces that were found in it, and without those lost a moment ago: a
  /// detector misses a face now and then. If it has refused the frame, nothing of it is shown.
  std::optional<I420Frame> anonymised(const I420Frame& picture) const {
    auto copy = copyOf(picture);
    if (!copy.has_value())
      return copy;
    for (const auto& face : numbers_.lost())
      pixelate(*copy, face.face);
    for (const auto& face : faces_.view())
      pixelate(*copy, face);
    if (refusedLast_)
      pixelate(*copy, {0, 0, picture.width(), picture.height()});
    return copy;
  }

  /// Completes the files as far as they got, after a failure too.
  bool closeOutputs() {
    bool closed = true;
    for (const auto& output : outputs_)
      if (std::string error; !output->finish(endTime_, error))
        closed = fail(error);
    if (results_ != nullptr && std::fclose(results_.release()) != 0)
      closed = fail(std::string("the results can't be written: ") + std::strerror(errno));
    return closed;
  }

  int reportShortcomings() const {
    if (damage_.any())
      std::fprintf(stderr, "tavro-fd: warning: %s: %s\n", options_.input.path.c_str(),
                   damage_.summary().c_str());
    if (refusedFrames_ != 0)
      std::fprintf(stderr, "tavro-fd: warning: the detector refused %s%s\n",
                   counted(refusedFrames_, "frame").c_str(), windowFailure_.c_str());
    return damage_.any() || refusedFrames_ != 0 ? exitIncomplete : exitSuccess;
  }

  const Options& options_;
  std::unique_ptr<DetectorSession> detector_;
  std::unique_ptr<VideoInput> input_;
  StreamHandle results_;
  ProgressLine progress_;
  std::vector<std::unique_ptr<FrameOutput>> outputs_;
  FaceRects faces_;
  FaceNumbers numbers_;
  std::span<const int64_t> shownNumbers_;
  double endTime_ = 0.0;  ///< of the last frame
  RunStatistics statistics_;
  StreamDamage damage_;
  int64_t refusedFrames_ = 0;
  bool refusedLast_ = false;
  std::string windowFailure_;  ///< of the first frame that a part of was refused
  std::string error_;
};

}  // namespace

int run(const Options& options) {
  prepareMedia();
  catchStopSignals();
  return Run(options).execute();
}

}  // namespace tavro::host
