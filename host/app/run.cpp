#include "host/app/run.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <optional>
#include <vector>

#include "host/app/input/live_pace.h"
#include "host/app/input/video_input.h"
#include "host/app/output/drawing.h"
#include "host/app/output/frame_output.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/app/search/detector_session.h"
#include "host/app/search/statistics.h"
#include "host/core/face_numbers.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// What the detector has said about one frame, kept until the frame is written.
struct Finding {
  int64_t frame = 0;
  double time = 0.0;
  bool analysed = true;  ///< false between two detections
  bool refused = false;
  double milliseconds = 0.0;
  std::vector<TavroRTC::FDModule::FaceRect> faces = {};
  std::vector<int64_t> numbers = {};
  std::vector<FaceNumbers::Lost> lost = {};
};

/// The state of one run. Faces are hidden by what is known from the frames behind, too: a file is
/// read twice, first to find the faces and then to show it; of other inputs the pictures wait. A
/// step that fails for good returns false, with a line for the user in `error_`.
class Run {
 public:
  Run(const Options& options, ProgressLine& progress)
      : options_(options),
        looksAhead_(canLookAhead(options)),
        progress_(progress),
        hiding_(options.output.hiding) {}

  int execute() {
    const auto start = Clock::now();
    bool completed = openInput() && openResults() && (!looksAhead_ || findAllFaces());
    for (int32_t pass = 0; completed && pass < options_.repeat && !isStopRequested(); ++pass)
      completed = runPass(pass);
    statistics_.seconds = secondsSince(start);
    progress_.erase();
    completed = closeOutputs() && completed;
    if (!completed && isStopRequested() && error_.empty())
      return exitStopped + stopSignal();
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
    if (input_ == nullptr && isStopRequested())  // that is all that is wrong
      return false;
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
    if (options_.output.isOneOfSeveral)
      return true;
    if (results_ == nullptr)
      results_ = std::move(standardOutput);
    if (results_ == nullptr)
      return fail("the standard output is closed");
    if (!isTerminal(results_.get()))
      return true;
    if (options_.output.format.empty() && writesOrShows(options_.output))
      results_.reset();  // the lines would run past for hours
    else
      progress_.disable();
    return true;
  }

  bool isInFrame(const char* option, const Window& area) {
    const I420Frame& picture = input_->picture();
    return touchesFrame(area, picture.width(), picture.height()) ||
           fail(std::string(option) + " lies outside of the frame: " + std::to_string(area.x) +
                "," + std::to_string(area.y) + " in " + std::to_string(picture.width()) + "x" +
                std::to_string(picture.height()));
  }

  /// Opened with the first picture. The module prints lines of its own, and a fault of the input or
  /// the outputs is to be told in a single line.
  bool openDetector() {
    std::string error;
    if (detector_ != nullptr)
      return true;
    for (const Window& region : options_.search.windows.regions)
      if (!isInFrame("--roi", region))
        return false;
    for (const TimedArea& area : options_.output.hiding.hide)
      if (!isInFrame("--hide", area.area))
        return false;
    for (const TimedArea& area : options_.output.hiding.keep)
      if (!isInFrame("--keep", area.area))
        return false;
    detector_ = DetectorSession::open(options_.module, options_.search, error);
    // Each window has an instance, which would print what the first one has printed.
    if (options_.search.windows.hasWindows())
      discardStandardOutput();
    return detector_ != nullptr || fail(error);
  }

  static bool hidesFaces(const Options& options) {
    return options.output.hiding.isWanted && showsFrames(options.output);
  }

  /// With --serve somebody is watching.
  static bool canLookAhead(const Options& options) {
    std::error_code ignored;
    return hidesFaces(options) && options.output.serve.empty() &&
           std::filesystem::is_regular_file(pathFromUtf8(options.input.path), ignored);
  }

  bool readNext(int64_t frames) {
    if (options_.maxFrames != 0 && frames >= options_.maxFrames)
      return false;
    while (input_->read()) {
      if (!options_.input.live ||
          !pace_.isLate(input_->time(),
                        std::chrono::duration<double>(Clock::now().time_since_epoch()).count()))
        return true;
      ++statistics_.decodedFrames;
    }
    return false;
  }

  void showProgress(int64_t pass, int64_t frames) {
    int64_t total = input_->expectedFrames();
    if (options_.maxFrames > 0)
      total = total > 0 ? std::min(total, options_.maxFrames) : options_.maxFrames;
    progress_.update(pass * total + frames, total * (options_.repeat + (looksAhead_ ? 1 : 0)));
  }

  /// The first pass over a file whose faces are hidden.
  bool findAllFaces() {
    while (readNext(std::ssize(found_))) {
      if (!openAllOutputs() || !openDetector())  // nobody should wait in vain
        return false;
      found_.push_back(analyse());
      showProgress(0, std::ssize(found_));
    }
    input_.reset();
    return true;
  }

  bool runPass(int32_t pass) {
    if (input_ == nullptr && !openInput())
      return false;
    const bool writes = pass == 0;
    const bool isKnown = writes && looksAhead_;
    int64_t frames = 0;
    while ((!isKnown || frames < std::ssize(found_)) && readNext(frames)) {
      ++frames;
      if (writes && !openAllOutputs())
        return false;
      if (!openDetector())
        return false;
      if (!writes) {
        if (isDue())
          detect();
      } else if (isKnown ? !writeOut(input_->picture(), found_[static_cast<size_t>(frames - 1)])
                         : !takePicture())
        return false;
      showProgress(pass + (looksAhead_ ? 1 : 0), frames);
    }
    if (writes && !writeHeld(0.0))
      return false;
    statistics_.decodedFrames += frames;
    if (writes)
      damage_ = input_->damage();
    input_.reset();
    if (frames == 0 && !isStopRequested())
      return fail(options_.input.path + ": no frame could be decoded" +
                  (damage_.any() ? ", " + damage_.summary() : ""));
    return true;
  }

  /// Writes the current picture, at once or when what follows is known.
  bool takePicture() {
    Finding finding = analyse();
    if (!hidesFaces(options_))
      return writeOut(input_->picture(), finding);
    auto picture = copyOf(input_->picture());
    if (!picture.has_value())
      return fail("out of memory");
    held_.push_back({std::move(*picture), std::move(finding)});
    return writeHeld(options_.output.hiding.delay);
  }

  /// Writes the pictures that have waited for that many seconds.
  bool writeHeld(double delay) {
    while (!held_.empty() && hiding_.secondsAhead() >= delay) {
      if (!writeOut(held_.front().picture, held_.front().finding))
        return false;
      held_.pop_front();
    }
    return true;
  }

  Finding analyse() {
    Finding finding = {.frame = input_->index(), .time = input_->time()};
    finding.analysed = isDue();
    if (finding.analysed) {
      finding.milliseconds = detect();
      shownNumbers_ = numbers_.update(faces_.view(), input_->time());
    }
    finding.refused = refusedLast_;
    finding.faces.assign(faces_.view().begin(), faces_.view().end());
    finding.numbers.assign(shownNumbers_.begin(), shownNumbers_.end());
    finding.lost.assign(numbers_.lost().begin(), numbers_.lost().end());
    if (hidesFaces(options_))
      hiding_.add(finding.time, finding.faces, finding.numbers);
    return finding;
  }

  bool isDue() const { return input_->index() % options_.every == 0; }

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
    if (!outputs_.empty())
      return true;
    const SinkFormat format = {.width = input_->picture().width(),
                               .height = input_->picture().height(),
                               .frameRate = input_->frameRate(),
                               .colorMatrix = input_->colorMatrix(),
                               .tags = input_->tags(),
                               .source = &options_.input,
                               .otherStreams = input_->otherStreams(),
                               .mostFrames = options_.maxFrames,
                               .hidesFaces = hidesFaces(options_)};
    return openOutputs({.options = options_.output,
                        .input = options_.input.path,
                        .format = format,
                        .windows = options_.search.windows,
                        .results = results_.get()},
                       outputs_, error) ||
           fail(error);
  }

  bool writeOut(const I420Frame& picture, const Finding& finding) {
    const FrameResult result = {.frame = finding.frame,
                                .time = finding.time,
                                .width = picture.width(),
                                .height = picture.height(),
                                .faces = finding.faces,
                                .milliseconds = finding.milliseconds,
                                .faceNumbers = finding.numbers,
                                .lost = finding.lost};
    std::optional<I420Frame> shown;
    if (showsFrames(options_.output)) {
      shown = hidesFaces(options_) ? hiding_.shown(picture, finding.time, finding.refused)
                                   : withRectangles(picture, finding.faces);
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
                                      .analysed = finding.analysed},
                                     error);
                               }) ||
           fail(error);
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
    for (const int64_t number : hiding_.missing())
      std::fprintf(stderr, "tavro-fd: warning: --keep-face %lld: no such face was found\n",
                   static_cast<long long>(number));
    if (isStopRequested())
      return exitStopped + stopSignal();
    return damage_.any() || refusedFrames_ != 0 ? exitIncomplete : exitSuccess;
  }

  const Options& options_;
  const bool looksAhead_;  ///< a file whose faces are hidden is read twice
  std::unique_ptr<DetectorSession> detector_;
  std::unique_ptr<VideoInput> input_;
  StreamHandle results_;
  LivePace pace_;
  ProgressLine& progress_;
  std::vector<std::unique_ptr<FrameOutput>> outputs_;
  FaceRects faces_;
  FaceNumbers numbers_;
  std::span<const int64_t> shownNumbers_;
  struct Held {
    I420Frame picture;
    Finding finding;
  };
  std::deque<Held> held_;       ///< pictures that wait for what follows
  std::vector<Finding> found_;  ///< in all of a file, before anything of it is shown
  FaceHiding hiding_;
  double endTime_ = 0.0;  ///< of the last frame
  RunStatistics statistics_;
  StreamDamage damage_;
  int64_t refusedFrames_ = 0;
  bool refusedLast_ = false;
  std::string windowFailure_;  ///< of the first frame that a part of was refused
  std::string error_;
};

}  // namespace

int run(const Options& options, ProgressLine& progress) {
  return Run(options, progress).execute();
}

}  // namespace tavro::host
