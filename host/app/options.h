#pragma once

// What the user asks for on the command line, and the exit codes of the application.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/app/input/video_input.h"
#include "host/app/output/frame_output.h"
#include "host/core/frame_search.h"

namespace CLI {
class App;
}

namespace tavro::host {

inline constexpr int exitSuccess = 0;
inline constexpr int exitIncomplete = 1;  ///< results were written, but not for all of the input
inline constexpr int exitBadInput = 2;    ///< bad usage, unreadable input or unwritable output
inline constexpr int exitStopped = 128;  ///< and the signal's number: the files are complete so far

/// The options that name what a run writes.
inline constexpr std::pair<const char*, std::string OutputOptions::*> writtenNames[] = {
    {"--output", &OutputOptions::results},
    {"--annotate", &OutputOptions::annotate},
    {"--report", &OutputOptions::report},
    {"--crop-faces", &OutputOptions::cropFaces}};

struct Options {
  InputRequest input;
  OutputOptions output;
  SearchOptions search;
  std::string module;  ///< the detector module's file; empty: looked for beside the program

  int64_t every = 1;      ///< detect on frames 0, every, 2 * every, ...
  int64_t maxFrames = 0;  ///< stop after that many decoded frames; 0: at the end
  int32_t repeat = 1;     ///< passes over the input; only the first one writes anything
  bool stats = false;
};

/// Several inputs, whose results go to one folder.
struct Batch {
  std::vector<std::string> inputs;  ///< as they are named: files, folders of videos, URLs
  std::string folder;               ///< for the results; empty: there is a single input
  bool resumes = false;             ///< leaves out what is complete
  std::vector<std::string> words;   ///< of the command line, but for what each run has of its own

  std::vector<Options> runs;  ///< what is to be done, one for each input
  int64_t alreadyComplete = 0;
};

struct ParsedOptions {
  Options options;
  Batch batch;
  std::optional<int> exitCode;  ///< set if there is nothing to run: help, version or bad usage
};

/// Parses the arguments, which are in UTF-8. Help and version go to the standard output, bad usage
/// to the standard error as one line.
ParsedOptions parseOptions(const std::vector<std::string>& arguments);

/// Fills `batch.runs`. In `common`, the names of files to write have {} for the input's name.
/// Returns what is wrong, as contradiction() does.
std::string planBatch(const Options& common, Batch& batch);

/// What is wrong between two options of a run. Empty if nothing is.
std::string contradiction(const Options& options);

/// A file in the folder that could be taken for one of this run's; empty if there is none.
std::string earlierFacePicture(const std::string& folder);

/// The words of a command line as a shell takes them, behind the program's name.
std::string commandOf(const std::vector<std::string>& words);

/// Adds what can be said about hiding to the command line: how, where, when and whom. Parsing it
/// fills `options`, which must live until then.
void addHidingOptions(CLI::App& app, HidingOptions& options);

}  // namespace tavro::host
