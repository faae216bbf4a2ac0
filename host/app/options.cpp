#include "host/app/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <filesystem>

namespace tavro::host {

namespace {

constexpr const char* description =
    "Finds the faces in a video and prints their rectangles, one JSON object per frame:\n"
    R"({"frame":0,"time":0.0,"width":1280,"height":720,)"
    "\n"
    R"( "faces":[{"left":426,"top":167,"right":670,"bottom":435}],"ms":1.318})"
    "\n"
    "left, top, right, bottom are corners in pixels of the upright picture, time is in seconds,\n"
    "ms is what the detector took.";

constexpr const char* examples = R"(Examples:
  tavro-fd clip.mp4                              the rectangles of every frame
  tavro-fd photo.jpg --annotate boxes.png        a picture with the rectangles drawn
  tavro-fd clip.mp4 --annotate boxes.mp4 --stats --output faces.jsonl
  tavro-fd /dev/video0 --every 3                 a camera, every third frame
  ffmpeg -i clip.mp4 -f yuv4mpegpipe - | tavro-fd -

Exit codes:
  0  all frames were analysed
  1  the input is damaged or cut off, or the detector refused a frame: the results are incomplete
  2  bad usage, an input that can't be read or an output that can't be written

8-bit 4:2:0 video in limited range reaches the detector byte for byte; anything else is converted
to that first. Rotation stored in the file is applied. Messages go to the standard error.)";

const std::vector<std::string> annotationExtensions = {".png", ".mp4", ".mkv", ".mov"};

/// Splits KEY=VALUE; nothing if there is no key.
std::optional<std::pair<std::string, std::string>> keyAndValue(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0)
    return std::nullopt;
  return std::pair{text.substr(0, equals), text.substr(equals + 1)};
}

/// Whether two names lead to one file, be it there yet or not.
bool sameFile(const std::string& first, const std::string& second) {
  std::error_code failure;
  const auto place = [&failure](const std::string& name) {
    return std::filesystem::weakly_canonical(std::filesystem::absolute(name, failure), failure);
  };
  return std::filesystem::equivalent(first, second, failure) || place(first) == place(second);
}

/// The numbers of frames and passes. The limit keeps their products within 64 bits.
const CLI::Validator wholeNumber(
    [](const std::string& text) -> std::string {
      constexpr int64_t limit = 1000000000;
      int64_t value = 0;
      const char* end = text.data() + text.size();
      const auto [rest, failure] = std::from_chars(text.data(), end, value);
      if (failure == std::errc() && rest == end && value >= 1 && value <= limit)
        return {};
      return "must be a whole number from 1 to " + std::to_string(limit) + ", not " + text;
    },
    "");

/// Faults that only show between options. Empty if there is none.
std::string contradiction(const Options& options) {
  if (options.input.empty())
    return "INPUT is empty";
  if (options.repeat > 1 && options.input == "-")
    return "--repeat needs an input that can be opened again, not the standard input";
  if (!options.annotate.empty() &&
      std::none_of(annotationExtensions.begin(), annotationExtensions.end(),
                   [&](const std::string& known) { return hasExtension(options.annotate, known); }))
    return "--annotate needs a name that ends in .png, .mp4, .mkv or .mov: " + options.annotate;
  for (const std::string& target : {options.output, options.annotate})
    if (!target.empty() && sameFile(target, options.input))
      return "the input would be overwritten: " + target;
  if (!options.output.empty() && !options.annotate.empty() &&
      sameFile(options.output, options.annotate))
    return "--output and --annotate name the same file: " + options.output;
  return {};
}

/// What to say of a fault. Arguments left over come first: a mistyped option, or a file named like
/// one, is why INPUT is missing.
std::string faultOf(const CLI::App& app, const CLI::ParseError& fault) {
  const std::vector<std::string> extra = app.remaining();
  if (extra.empty())
    return fault.what();
  return (extra.front().starts_with('-') ? "unknown option " : "unexpected argument ") +
         extra.front();
}

ParsedOptions badUsage(std::string message) {
  std::replace(message.begin(), message.end(), '\n', ' ');
  std::fprintf(stderr, "tavro-fd: %s (see tavro-fd --help)\n", message.c_str());
  return {.options = {}, .exitCode = exitBadInput};
}

}  // namespace

bool hasExtension(const std::string& path, const std::string& extension) {
  const auto sameLetter = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  return path.size() > extension.size() &&
         std::equal(extension.rbegin(), extension.rend(), path.rbegin(), sameLetter);
}

ParsedOptions parseOptions(int argumentCount, const char* const* arguments) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  std::vector<std::string> inputOptions;

  CLI::App app(description, "tavro-fd");
  app.footer(examples);
  app.set_version_flag("--version", std::string("tavro-fd ") + TAVRO_VERSION);
  app.add_option("INPUT", options.input,
                 "Video, picture, URL or device that FFmpeg opens; - for the standard input")
      ->required();
  app.add_option("--output", options.output, "File for the results")->type_name("FILE");
  app.add_option("--annotate", options.annotate,
                 "Video (.mp4, .mkv, .mov) or picture (.png, the first frame) to write with the "
                 "rectangles drawn")
      ->type_name("FILE");
  app.add_option("--every", options.every, "Detect on every N-th frame only")
      ->type_name("N")
      ->check(wholeNumber);
  app.add_option("--max-frames", options.maxFrames, "Stop after N frames of the input")
      ->type_name("N")
      ->check(wholeNumber);
  app.add_option("--repeat", options.repeat,
                 "Run over the input N times, for timing; results are those of the first pass")
      ->type_name("N")
      ->check(wholeNumber);
  app.add_flag("--stats", options.stats, "Print timings and peak memory to the standard error");
  app.add_option("--module", options.module, "The detector module's file")->type_name("FILE");
  app.add_option("--input-format", options.inputFormat,
                 "FFmpeg's name of the input format, such as v4l2, lavfi or rawvideo")
      ->type_name("NAME");
  app.add_option("--input-option", inputOptions,
                 "Option of FFmpeg's demuxer, such as video_size=640x480; may be repeated")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->take_all();

  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::Success& request) {  // help or version
    parsed.exitCode = app.exit(request);
    return parsed;
  } catch (const CLI::ParseError& fault) {
    return badUsage(faultOf(app, fault));
  }
  for (const std::string& text : inputOptions) {
    auto option = keyAndValue(text);
    if (!option.has_value())
      return badUsage("--input-option needs KEY=VALUE: " + text);
    options.inputOptions.push_back(std::move(*option));
  }
  if (std::string fault = contradiction(options); !fault.empty())
    return badUsage(std::move(fault));
  return parsed;
}

}  // namespace tavro::host
