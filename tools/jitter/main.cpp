// How steady the rectangles are: prints figures for a clip, the boxes of single frames ("raw")
// beside the rectangles that the tracker makes of them ("tracked").
//
//   jitter CLIP             any video; its camera and faces should be at rest, since what really
//                           moves counts as well
//   jitter --slide PHOTO    slides a photograph of a face to and fro, whose way is known, and tells
//                           also how far behind the rectangles are
//
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
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/app/input/stream_damage.h"
#include "host/app/input/video_input.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/core/utf8_path.h"
#include "tools/jitter/face_recorder.h"
#include "tools/jitter/moving_picture.h"
#include "tools/jitter/steadiness.h"

namespace {

using namespace tavro;
using namespace tavro::jitter;

struct Arguments {
  std::string input;
  std::string csv;
  bool slides = false;
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

void printRow(std::FILE* target, const char* name, double raw, double tracked, int decimals = 4) {
  std::fprintf(target, "%-44s", name);
  for (const double value : {raw, tracked})
    if (std::isnan(value))
      std::fprintf(target, " %10s", "-");
    else
      std::fprintf(target, " %10.*f", decimals, value);
  std::fputc('\n', target);
}

void printSteadiness(std::FILE* target, const FaceRecorder& recorder) {
  const Steadiness raw = measure(recorder.raw());
  const Steadiness tracked = measure(recorder.tracked());
  const auto frames = static_cast<int64_t>(recorder.raw().size());
  std::fprintf(target, "%s\n%-44s %10s %10s\n", host::counted(frames, "frame").c_str(), "", "raw",
               "tracked");
  printRow(target, "steps from frame to frame", static_cast<double>(raw.steps),
           static_cast<double>(tracked.steps), 0);
  printRow(target, "centre's change / size: standard deviation", raw.centreDeviation,
           tracked.centreDeviation);
  printRow(target, "centre's change / size: 99th percentile", raw.centreP99, tracked.centreP99);
  printRow(target, "size's change / size: standard deviation", raw.sizeDeviation,
           tracked.sizeDeviation);
  printRow(target, "size's change / size: 99th percentile", raw.sizeP99, tracked.sizeP99);
  printRow(target, "mean of 1 - IoU with the frame before", raw.meanLoss, tracked.meanLoss);
  printRow(target, "faces lost and found again, per minute", raw.flipsPerMinute,
           tracked.flipsPerMinute, 1);
  printRow(target, "faces that change identity, per minute", raw.switchesPerMinute,
           tracked.switchesPerMinute, 1);
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
  const auto resting = FaceRecorder::make();
  if (resting == nullptr || !resting->record(photo, 0.0) || resting->raw().front().faces.empty()) {
    error = "no face is found in the photograph";
    return false;
  }
  const auto& faces = resting->raw().front().faces;
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
  const auto recorder = FaceRecorder::make();
  if (recorder == nullptr)
    return fail("the network can't be built");
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
  printSteadiness(target, *recorder);
  if (!truth.empty()) {
    const Following raw = compare(recorder->raw(), truth);
    const Following tracked = compare(recorder->tracked(), truth);
    printRow(target, "frames behind the known way", raw.lagFrames, tracked.lagFrames, 2);
    printRow(target, "mean distance from the true centre / size", raw.meanDistance,
             tracked.meanDistance);
    printRow(target, "share of the frames in which it is found", raw.foundShare,
             tracked.foundShare);
  }
  if (std::fflush(target) != 0)
    return fail("the figures can't be written");
  if (!arguments.csv.empty()) {
    std::ofstream file(host::pathFromUtf8(arguments.csv), std::ios::binary);
    file << "way,frame,left,top,right,bottom\n";
    for (size_t frame = 0; frame < truth.size(); ++frame)
      writeRow(file, "truth", frame, truth[frame]);
    for (const auto& [frame, face] : longestWay(recorder->raw()))
      writeRow(file, "raw", frame, face);
    for (const auto& [frame, face] : longestWay(recorder->tracked()))
      writeRow(file, "tracked", frame, face);
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
