#include "host/app/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include "host/app/help_formatter.h"
#include "host/app/output/best_faces.h"
#include "host/app/output/serve/web_address.h"
#include "host/app/output/text_format.h"
#include "host/app/platform/media.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

constexpr const char* description =
    "Finds the faces in a video and prints their rectangles, by default one JSON object per "
    "frame:\n"
    R"({"frame":0,"time":0.0,"width":1280,"height":720,)"
    "\n"
    R"( "faces":[{"number":1,"left":426,"top":167,"right":670,"bottom":435}],"ms":1.318})"
    "\n"
    "A face keeps its number from frame to frame. left, top, right, bottom are corners in pixels "
    "of "
    "the upright picture, time is in seconds, ms is what the detector took.";

constexpr const char* exitCodes = R"(
Exit codes:
  0  all frames were analysed
  1  the input is damaged or cut off, or the detector refused a frame: the results are incomplete;
     with --output-dir, one of the inputs failed
  2  bad usage, an input that can't be read or an output that can't be written
  130, 143  stopped by Ctrl-C or SIGTERM: the files are complete up to there

)";

/// Splits KEY=VALUE; empty if there is no key.
std::optional<std::pair<std::string, std::string>> keyAndValue(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0)
    return std::nullopt;
  return std::pair{text.substr(0, equals), text.substr(equals + 1)};
}

/// Whether two names lead to the same file, which needn't exist yet.
bool sameFile(const std::string& first, const std::string& second) {
  std::error_code failure;
  return std::filesystem::equivalent(pathFromUtf8(first), pathFromUtf8(second), failure) ||
         placeOf(first) == placeOf(second);
}

/// Whether the name stands for one of the files of a pattern such as frame_%03d.png.
bool isOfPattern(const std::string& target, const std::string& pattern) {
  const std::filesystem::path file = pathFromUtf8(target);
  const std::filesystem::path files = pathFromUtf8(pattern);
  const std::string name = utf8FromPath(file.filename());
  const std::string names = utf8FromPath(files.filename());
  const size_t begin = names.find('%');
  const size_t end = begin == std::string::npos ? begin : names.find('d', begin);
  if (end == std::string::npos || name.size() + (end + 1 - begin) < names.size() + 1)
    return false;
  const std::string rest = names.substr(end + 1);
  const auto isDigit = [](char letter) { return '0' <= letter && letter <= '9'; };
  return name.starts_with(names.substr(0, begin)) && name.ends_with(rest) &&
         std::all_of(name.begin() + static_cast<ptrdiff_t>(begin),
                     name.end() - static_cast<ptrdiff_t>(rest.size()), isDigit) &&
         sameFile(utf8FromPath(file.parent_path() / "."), utf8FromPath(files.parent_path() / "."));
}

/// Whether writing a file of that name would destroy the input: by any of its names, as the
/// standard input or as one of several pictures.
bool isInput(const std::string& target, const std::string& input) {
  if (input == "-") {
    std::error_code failure;
    return std::filesystem::is_regular_file("/dev/stdin", failure) &&
           sameFile(target, "/dev/stdin");
  }
  const std::string url = "file:";
  const std::string name = input.starts_with(url) ? input.substr(url.size()) : input;
  return sameFile(target, name) || isOfPattern(target, name);
}

/// The numbers of frames and passes. The limit keeps their products within 64 bits.
CLI::Validator wholeNumber(int64_t limit = 1000000000) {
  return {[limit](const std::string& text) -> std::string {
            int64_t value = 0;
            const char* end = text.data() + text.size();
            const auto [rest, failure] = std::from_chars(text.data(), end, value);
            if (failure == std::errc() && rest == end && value >= 1 && value <= limit)
              return {};
            return "must be a whole number from 1 to " + std::to_string(limit) + ", not " + text;
          },
          ""};
}

/// An unset variable of a shell shouldn't mean that nothing is written.
const CLI::Validator fileName(
    [](const std::string& text) { return text.empty() ? "needs a name" : ""; }, "");

/// The standard output is for the results.
const CLI::Validator ownName(
    [](const std::string& text) { return text.empty() || text == "-" ? "needs a name" : ""; }, "");

const CLI::Validator webAddress(
    [](const std::string& text) {
      return parseWebAddress(text).has_value() ? "" : "must be [ADDRESS:]PORT, not " + text;
    },
    "");

const CLI::Validator region(
    [](const std::string& text) {
      return parseRegion(text).has_value() ? "" : "must be X,Y,W,H in pixels, not " + text;
    },
    "");

/// Milliseconds, with or without their unit.
std::optional<double> parseBudget(const std::string& text) {
  double value = 0.0;
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value);
  const std::string_view unit(rest, static_cast<size_t>(end - rest));
  if (failure != std::errc() || !(unit.empty() || unit == "ms") || !(value > 0.0 && value <= 1e6))
    return std::nullopt;
  return value;
}

const CLI::Validator budget(
    [](const std::string& text) {
      return parseBudget(text).has_value() ? "" : "must be a time such as 8ms, not " + text;
    },
    "");

/// "a, b or c"
std::string anyOf(const std::vector<std::string>& names) {
  std::string list = names.front();
  for (size_t i = 1; i < names.size(); ++i)
    list += (i + 1 < names.size() ? ", " : " or ") + names[i];
  return list;
}

/// One line for each format, below the option's name.
std::string formatHelp() {
  std::string lines;
  for (const TextFormatKind& kind : textFormats())
    lines += "\n" + std::string(kind.name) + ": " + kind.summary;
  return lines;
}

/// The line for a fault. Arguments left over come first: INPUT is often missing because of a
/// mistyped option, or a file that is named like one.
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
  return {.options = {}, .batch = {}, .exitCode = exitBadInput};
}

/// The words that say again what was said, without what a batch's runs have of their own.
std::vector<std::string> commonWords(const CLI::App& app) {
  std::vector<std::string> words;
  for (const CLI::Option* option : app.get_options()) {
    const std::string name = option->get_name();
    const bool isOwn =
        option->get_positional() || name == "--output-dir" || name == "--resume" ||
        std::ranges::any_of(writtenNames, [&](const auto& own) { return name == own.first; });
    if (isOwn || option->count() == 0)
      continue;
    for (const std::string& value : option->results()) {
      words.push_back(name);
      if (option->get_items_expected_max() > 0)
        words.push_back(value);
    }
  }
  return words;
}

}  // namespace

std::string earlierFacePicture(const std::string& folder) {
  std::error_code failure;
  if (!folder.empty())
    for (const auto& file : std::filesystem::directory_iterator(pathFromUtf8(folder), failure))
      if (std::string name = utf8FromPath(file.path());
          isOfPattern(name, utf8FromPath(file.path().parent_path() / facePicturePattern)))
        return name;
  return {};
}

std::string commandOf(const std::vector<std::string>& words) {
  std::string command = "tavro-fd";
  for (const std::string& argument : words) {
    const bool isPlain =
        !argument.empty() && std::ranges::all_of(argument, [](unsigned char letter) {
          return std::isalnum(letter) != 0 || letter > 127 ||
                 std::string_view("-_=+,./:@%").find(static_cast<char>(letter)) !=
                     std::string_view::npos;
        });
    command += ' ';
    if (isPlain) {
      command += argument;
      continue;
    }
    command += '\'';
    for (const char letter : argument)
      command += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    command += '\'';
  }
  return command;
}

/// What is wrong between two options. Empty if nothing is.
std::string contradiction(const Options& options) {
  const std::string& input = options.input.path;
  const OutputOptions& output = options.output;
  if (input.empty())
    return "INPUT is empty";
  if (options.repeat > 1 && input == "-")
    return "--repeat needs an input that can be opened again, not the standard input";
  std::error_code ignored;
  if (std::filesystem::is_directory(pathFromUtf8(input), ignored))
    return input + " is a folder, which needs --output-dir, and there must be a video in it";
  if (options.input.live && std::filesystem::is_regular_file(pathFromUtf8(input), ignored))
    return "--live is for what comes as it happens, not for a file: " + input;
  if (options.input.live && (options.every > 1 || output.format == "blur-filter"))
    return "--live leaves frames out as it must, without --every and not for blur-filter";
  if (options.search.budget > 0.0 && options.search.windows.smallestFace == 0)
    return "--budget needs --smallest-face";
  const std::vector<std::string> known = annotationExtensions();
  if (!output.annotate.empty() &&
      std::none_of(known.begin(), known.end(), [&](const std::string& extension) {
        return hasExtension(output.annotate, extension);
      }))
    return "--annotate needs a name that ends in " + anyOf(known) + ": " + output.annotate;
  if (output.hiding.isWanted && !showsFrames(output))
    return "--blur needs an output that shows frames, such as --annotate";
  if ((output.hiding.isWanted || output.format == "blur-filter") && options.every > 1)
    return "hiding faces needs every frame, and --every leaves some out";
  if (output.hiding.isWanted && !output.cropFaces.empty())
    return "--blur hides the faces that --crop-faces shows";
  if (output.reportPictures && output.report.empty())
    return "--report-pictures needs --report";
  if (!output.cropFaces.empty() &&
      isInput(utf8FromPath(pathFromUtf8(output.cropFaces) / pathFromUtf8(input).filename()), input))
    return "--crop-faces needs another folder than the input's: " + output.cropFaces;
  if (const std::string earlier = earlierFacePicture(output.cropFaces); !earlier.empty())
    return "--crop-faces needs a folder without faces of an earlier run: " + earlier;
  const std::pair<const char*, std::string> targets[] = {
      {"--output", output.results}, {"--annotate", output.annotate}, {"--report", output.report}};
  for (const auto& [name, target] : targets) {
    if (target.empty())
      continue;
    if (isInput(target, input))
      return "the input would be overwritten: " + target;
    for (const auto* other = targets; other->first != name; ++other)
      if (!other->second.empty() && sameFile(target, other->second))
        return std::string(other->first) + " and " + name + " name the same file: " + target;
  }
  return {};
}

ParsedOptions parseOptions(const std::vector<std::string>& arguments) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  Batch& batch = parsed.batch;
  std::vector<std::string> inputOptions;
  std::vector<std::string> regions;
  std::string budgetText;

  const MediaHelp help = mediaHelp();
  CLI::App app(description, "tavro-fd");
  app.formatter(std::make_shared<HelpFormatter>());
  app.allow_windows_style_options(false);  // a slash begins a path
  app.footer(std::string("Examples:\n") + help.examples + exitCodes + help.conversion +
             "\nMessages go to the standard error.");
  app.set_version_flag("--version", std::string("tavro-fd ") + TAVRO_VERSION);
  addManual(app, std::string("tavro-fd ") + TAVRO_VERSION);
  app.add_option("INPUT", batch.inputs, help.input)->type_name("")->required();
  app.add_option(
         "-o,--output", options.output.results,
         "File for the results. Without it they go to the standard output, but to a terminal "
         "only if nothing else is written or shown")
      ->type_name("FILE")
      ->check(fileName);
  app.add_option("--format", options.output.format, "Form of the results:" + formatHelp())
      ->type_name("NAME")
      ->check(CLI::Validator(
          [](const std::string& name) -> std::string {
            if (findTextFormat(name) != nullptr)
              return {};
            std::vector<std::string> names;
            for (const TextFormatKind& kind : textFormats())
              names.emplace_back(kind.name);
            return "must be " + anyOf(names) + ", not " + name;
          },
          ""));
  app.add_option("--annotate", options.output.annotate, help.annotate)
      ->type_name("FILE")
      ->check(ownName);
  addHidingOptions(app, options.output.hiding);
  app.add_option(
         "--crop-faces", options.output.cropFaces,
         "Folder for a JPEG of each face, from the frame that shows it best; it must not hold "
         "those of an earlier run")
      ->type_name("DIR")
      ->check(ownName);
  app.add_option(
         "--report", options.output.report,
         "HTML page with a timeline of the faces, a picture of each and the time per frame. "
         "With --blur it lists the moments that are worth a look, and shows no face")
      ->type_name("FILE")
      ->check(ownName);
  app.add_flag("--report-pictures", options.output.reportPictures,
               "Show the faces that --blur hides in the report");
  app.add_option(
         "--serve", options.output.serve,
         "Show the frames with their faces in a browser, at http://ADDRESS:PORT/ and at the "
         "pace of the video; the results are at /events. Without ADDRESS only this machine "
         "can watch, with another address anybody who can reach it")
      ->type_name("[ADDRESS:]PORT")
      ->check(webAddress);
  app.add_option(
         "--output-dir", batch.folder,
         "Folder for the files of several inputs. A folder among these stands for the videos in "
         "and "
         "below it. Names of files to write need {}, which stands for the input's name without its "
         "ending, as in --annotate {}.mp4. The results go to {}.jsonl, or what --format says, if "
         "no other file is asked for. A file has .part in its name until it is complete")
      ->type_name("DIR")
      ->check(ownName);
  app.add_flag("--resume", batch.resumes,
               "Leave out inputs whose files are in --output-dir already, complete and not older "
               "than the input")
      ->needs("--output-dir");
  app.add_option("--every", options.every, "Detect on every N-th frame only")
      ->type_name("N")
      ->check(wholeNumber());
  app.add_option("--max-frames", options.maxFrames, "Stop after N frames of the input")
      ->type_name("N")
      ->check(wholeNumber());
  app.add_option("--repeat", options.repeat,
                 "Run over the input N times, for timing; results are those of the first pass")
      ->type_name("N")
      ->check(wholeNumber());
  app.add_option("--smallest-face", options.search.windows.smallestFace,
                 "Find faces from that size on, by looking at parts of the frame as well. Without "
                 "it, a face must cover about 12 of 192 parts of the frame")
      ->type_name("PIXELS")
      ->check(wholeNumber(largestFace));
  app.add_option("--roi", regions, "Look in that part of the frame only; may be repeated")
      ->type_name("X,Y,W,H")
      ->expected(1)
      ->allow_extra_args(false)  // what follows may be INPUT
      ->take_all()
      ->check(region);
  app.add_option("--max-windows", options.search.windows.mostWindows,
                 "Look at N parts of a frame at most, though that may not show the smallest faces; "
                 "default 64")
      ->type_name("N")
      ->check(wholeNumber(mostPanes));
  app.add_option("--threads", options.search.threads,
                 "Look at N parts at once; default: as many as there are processors")
      ->type_name("N")
      ->check(wholeNumber(mostPanes));
  app.add_option("--budget", budgetText,
                 "For live inputs: time for a frame, such as 8ms. Parts without a face take turns, "
                 "so that the results depend on the machine")
      ->type_name("TIME")
      ->check(budget);
  app.add_flag(
      "--live", options.input.live,
      "For pipes, cameras and network streams: begin at once, and leave out frames that come "
      "more than a fifth of a second late because the detector was busy");
  app.add_flag(
      "--stats", options.stats,
      "Print timings, the parts that were looked at and peak memory to the standard error");
  app.add_option("--module", options.module, "The detector module's file")->type_name("FILE");
  app.add_option("--input-format", options.input.format, help.inputFormat)->type_name("NAME");
  app.add_option("--input-option", inputOptions, help.inputOption)
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->allow_extra_args(false)  // what follows may be INPUT
      ->take_all();

  try {
    // It takes them in reverse order.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
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
    options.input.options.push_back(std::move(*option));
  }
  for (const std::string& text : regions)
    options.search.windows.regions.push_back(*parseRegion(text));
  options.search.budget = parseBudget(budgetText).value_or(0.0);
  if (const TimeSpan& when = options.output.hiding.when; when.from >= when.to)
    return badUsage("--to must be later than --from");
  if (options.output.results == "-")  // as for INPUT
    options.output.results.clear();
  std::string fault;
  if (batch.folder.empty()) {
    options.input.path = batch.inputs.front();
    options.output.command = commandOf(arguments);
    fault = batch.inputs.size() > 1
                ? "unexpected argument " + batch.inputs[1] + ": several inputs need --output-dir"
                : contradiction(options);
  } else {
    batch.words = commonWords(app);
    fault = planBatch(options, batch);
  }
  if (!fault.empty())
    return badUsage(std::move(fault));
  return parsed;
}

}  // namespace tavro::host
