// How steady the rectangles are: prints figures for a clip, the boxes of single frames ("raw")
// beside the rectangles that the tracker makes of them ("tracked").
//
//   jitter CLIP             any video; its camera and faces should be at rest, since what really
//                           moves counts as well
//   jitter --slide PHOTO    slides a photograph of a face to and fro, whose way is known, and tells
//                           also how far behind the rectangles are
//
// --smallest-face N has a third column, the rectangles of tavro-fd --smallest-face N ("windows").
// --csv FILE writes where the face was in every frame; plot.py draws it.
//
// The frames go through the module's own scaler and network, the static library tavro_fd. The exit
// code is that of tavro-fd: 1 if only part of a damaged clip could be read, 2 for bad usage or
// input.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/app/input/stream_damage.h"
#include "host/app/input/video_input.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/app/search/detector_session.h"
#include "host/core/utf8_path.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/frame_analysis.h"
#include "tools/jitter/moving_picture.h"
#include "tools/jitter/steadiness.h"

namespace {

using namespace tavro;
using namespace tavro::jitter;
namespace fd = TavroRTC::FDModule;

struct Arguments {
  std::string input;
  std::string csv;
  bool slides = false;
  int32_t smallestFace = 0;
};

int fail(const std::string& message) {
  std::fprintf(stderr, "jitter: %s\n", message.c_str());
  return 2;
}

/// Nullopt, with the exit code set, if there is nothing to do.
std::optional<Arguments> parse(const std::vector<std::string>& words, int& exitCode) {
  Arguments arguments;
  CLI::App app(
      "Tells how steady the rectangles are: the boxes of single frames beside the tracked ones.",
      "jitter");
  app.add_option("CLIP", arguments.input,
                 "Video of faces at rest, or with --slide a photograph of a face")
      ->required();
  app.add_flag("--slide", arguments.slides,
               "Slide the photograph to and fro and tell how far behind the rectangles are");
  app.add_option("--smallest-face", arguments.smallestFace,
                 "Look through windows as well, for faces of so many pixels and more")
      ->check(CLI::Range(1, host::largestFace));
  app.add_option("--csv", arguments.csv, "Table to write of where the face is in every frame");
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    return arguments;
  } catch (const CLI::Success& request) {  // help
    exitCode = app.exit(request);
    return std::nullopt;
  } catch (const CLI::ParseError& fault) {
    exitCode = fail(std::string(fault.what()) + " (see jitter --help)");
    return std::nullopt;
  }
}

// --- The faces of a clip ---

/// The faces of each frame so far, found in one way.
struct Record {
  const char* way;
  std::vector<Sighting> sightings = {};
};

/// Finds them in each frame by itself, lets the tracker make them steady, and on demand also looks
/// through windows of the frame.
class FaceRecorder {
 public:
  /// With a smallest face, the frames are also searched as tavro-fd --smallest-face does. Null if
  /// it fails.
  static std::unique_ptr<FaceRecorder> make(int32_t smallestFace, std::string& error);

  /// The next frame of the clip. False if the detector refuses it.
  bool record(const host::I420Frame& frame, double time);

  /// Those of single frames first, then the tracked ones, then those through windows, if any.
  const std::vector<Record>& records() const { return records_; }

 private:
  FaceRecorder() = default;

  fd::FrameAnalysis analysis_;
  std::vector<fd::FaceTrack> tracks_;
  std::unique_ptr<host::DetectorSession> windows_;
  host::FaceRects faces_;
  std::vector<Record> records_ = {{"raw"}, {"tracked"}};
};

std::unique_ptr<FaceRecorder> FaceRecorder::make(int32_t smallestFace, std::string& error) {
  std::unique_ptr<FaceRecorder> made(new FaceRecorder);
  if (!made->analysis_.init()) {
    error = "the network can't be built";
    return nullptr;
  }
  if (smallestFace == 0)
    return made;
  made->windows_ =
      host::DetectorSession::open("", {.windows = {.smallestFace = smallestFace}}, error);
  made->records_.push_back({"windows"});
  return made->windows_ != nullptr ? std::move(made) : nullptr;
}

bool FaceRecorder::record(const host::I420Frame& frame, double time) {
  const auto boxes = analysis_.findBoxes(fd::viewOf(frame), fd::defaultThreshold);
  if (!boxes.has_value())
    return false;
  std::vector<FaceRect> faces = fd::truncated(*boxes);
  records_[0].sightings.push_back({.time = time, .faces = faces});
  fd::updateTracks(faces, tracks_);
  faces.clear();
  for (const fd::FaceTrack& track : tracks_)
    faces.push_back(track.faceRect());
  records_[1].sightings.push_back({.time = time, .faces = std::move(faces)});
  if (windows_ == nullptr)
    return true;
  if (!windows_->search().search(frame, faces_).ok())
    return false;
  const auto seen = faces_.view();
  records_[2].sightings.push_back({.time = time, .faces = {seen.begin(), seen.end()}});
  return true;
}

// --- What is printed and written ---

/// One of the figures for each way.
template <typename Figures, typename Number>
void printRow(std::FILE* target, const char* name, const std::vector<Figures>& ways,
              Number Figures::*figure, int decimals = 4) {
  std::fprintf(target, "%-44s", name);
  for (const Figures& way : ways) {
    const auto value = static_cast<double>(way.*figure);
    if (std::isnan(value))
      std::fprintf(target, " %10s", "-");
    else
      std::fprintf(target, " %10.*f", decimals, value);
  }
  std::fputc('\n', target);
}

void printSteadiness(std::FILE* target, const std::vector<Record>& records) {
  const auto frames = static_cast<int64_t>(records.front().sightings.size());
  std::fprintf(target, "%s\n%-44s", host::counted(frames, "frame").c_str(), "");
  std::vector<Steadiness> ways;
  for (const auto& [way, sightings] : records) {
    std::fprintf(target, " %10s", way);
    ways.push_back(measure(sightings));
  }
  std::fputc('\n', target);
  printRow(target, "steps from frame to frame", ways, &Steadiness::steps, 0);
  printRow(target, "centre's change / size: standard deviation", ways,
           &Steadiness::centreDeviation);
  printRow(target, "centre's change / size: 99th percentile", ways, &Steadiness::centreP99);
  printRow(target, "size's change / size: standard deviation", ways, &Steadiness::sizeDeviation);
  printRow(target, "size's change / size: 99th percentile", ways, &Steadiness::sizeP99);
  printRow(target, "mean of 1 - IoU with the frame before", ways, &Steadiness::meanLoss);
  printRow(target, "faces lost and found again, per minute", ways, &Steadiness::flipsPerMinute, 1);
  printRow(target, "faces that change identity, per minute", ways, &Steadiness::switchesPerMinute,
           1);
}

void printFollowing(std::FILE* target, const std::vector<Record>& records,
                    std::span<const FaceRect> truth) {
  std::vector<Following> ways;
  ways.reserve(records.size());
  for (const auto& [way, sightings] : records)
    ways.push_back(compare(sightings, truth));
  printRow(target, "frames behind the known way", ways, &Following::lagFrames, 2);
  printRow(target, "mean distance from the true centre / size", ways, &Following::meanDistance);
  printRow(target, "share of the frames in which it is found", ways, &Following::foundShare);
}

/// The rectangles of the face that is seen in most frames, by the index of the frame.
std::map<size_t, FaceRect> longestWay(std::span<const Sighting> sightings) {
  std::map<size_t, FaceRect> longest;
  for (auto& [number, way] : follow(sightings))
    if (way.size() > longest.size())
      longest = way;
  return longest;
}

void writeRow(std::ostream& file, const char* way, size_t frame, const FaceRect& face) {
  file << way << ',' << frame << ',' << face.left << ',' << face.top << ',' << face.right << ','
       << face.bottom << '\n';
}

/// Slides the photograph; the truth is where its face is when it rests.
bool slide(const host::I420Frame& photo, FaceRecorder& recorder, std::vector<FaceRect>& truth,
           std::string& error) {
  const auto resting = FaceRecorder::make(0, error);
  if (resting == nullptr || !resting->record(photo, 0.0) ||
      resting->records()[0].sightings[0].faces.empty()) {
    error = "no face is found in the photograph";
    return false;
  }
  const auto& faces = resting->records()[0].sightings[0].faces;
  const MovingPicture moving(photo, *std::ranges::max_element(faces, {}, &sizeOf), 0.75);
  for (size_t i = 0; i < MovingPicture::frameCount; ++i) {
    const auto frame = moving.frame(i);
    if (!frame.has_value() || !recorder.record(*frame, MovingPicture::time(i))) {
      error = "a frame can't be analysed";
      return false;
    }
    truth.push_back(moving.face(i));
  }
  return true;
}

int run(const Arguments& arguments) {
  host::prepareMedia();
  const host::StreamHandle output = host::divertStandardOutput();  // the engine prints lines too
  if (output == nullptr)
    return fail("the standard output is closed");
  std::FILE* target = output.get();
  std::string error;
  std::error_code failure;
  if (std::filesystem::equivalent(host::pathFromUtf8(arguments.csv),
                                  host::pathFromUtf8(arguments.input), failure))
    return fail("the input would be overwritten: " + arguments.csv);
  const auto input = host::VideoInput::open({arguments.input, {}, {}}, error);
  if (input == nullptr)
    return fail(arguments.input + ": " + error);
  const auto recorder = FaceRecorder::make(arguments.smallestFace, error);
  if (recorder == nullptr)
    return fail(error);
  if (!input->read())
    return fail(arguments.input + ": no frame could be decoded");
  std::vector<FaceRect> truth;
  if (arguments.slides) {
    if (!slide(input->picture(), *recorder, truth, error))
      return fail(arguments.input + ": " + error);
  } else {
    do
      if (!recorder->record(input->picture(), input->time()))
        return fail(arguments.input + ": the detector refuses a frame");
    while (input->read());
  }
  printSteadiness(target, recorder->records());
  if (!truth.empty())
    printFollowing(target, recorder->records(), truth);
  if (std::fflush(target) != 0)
    return fail("the figures can't be written");
  if (!arguments.csv.empty()) {
    std::ofstream file(host::pathFromUtf8(arguments.csv), std::ios::binary);
    file << "way,frame,left,top,right,bottom\n";
    for (size_t frame = 0; frame < truth.size(); ++frame)
      writeRow(file, "truth", frame, truth[frame]);
    for (const auto& [way, sightings] : recorder->records())
      for (const auto& [frame, face] : longestWay(sightings))
        writeRow(file, way, frame, face);
    if (!file.flush())
      return fail(arguments.csv + ": the table can't be written");
  }
  if (input->damage().any()) {
    std::fprintf(stderr, "jitter: warning: %s: %s\n", arguments.input.c_str(),
                 input->damage().summary().c_str());
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argumentCount, char** words) {
  try {
    int exitCode = 0;
    const auto arguments = parse(host::commandLine(argumentCount, words), exitCode);
    return arguments.has_value() ? run(*arguments) : exitCode;
  } catch (const std::exception& failure) {
    return fail(failure.what());
  }
}
