#include "host/image_app/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include "host/app/help_formatter.h"
#include "host/image_app/picture.h"

namespace tavro::host::image {
namespace {

using TavroRTC::FDModule::CropRect;

constexpr const char* description =
    "Converts, scales and crops pictures with the detector's image code.\n"
    "Files are raw samples without gaps, or PNG where the name ends in .png; - is the standard "
    "input or output, for raw data.";

constexpr const char* examples = R"(Examples:
  tavro-image convert --from rgb24 --to i420 photo.png photo.yuv
  tavro-image convert --from i420 --to bgra32 --size 640x480 photo.yuv photo.png
  tavro-image scale --format rgb24 --to-size 192x192 photo.png small.png
  tavro-image crop --format i420 --size 640x480 --rect 10,20,100,80 photo.yuv part.yuv
  ffmpeg -i clip.mp4 -frames 1 -f rawvideo -pix_fmt yuv420p - |
    tavro-image scale --format i420 --size 1280x720 --to-size 192x192 - small.yuv

tavro-image --list prints the formats, the filters and what converts to what. The exit code is 2, with one line on the standard error, for bad usage, unreadable input or unwritable output.)";

/// The command line as it was typed. Texts are empty where the option wasn't given.
struct Texts {
  std::string input, output;
  std::string from, to, format, filter = "bilinear";
  std::string size, targetSize, rect;
};

/// Exactly `count` whole numbers with `separator` between them; empty for any other text.
std::optional<std::vector<int32_t>> parseNumbers(const std::string& text, char separator,
                                                 size_t count) {
  std::vector<int32_t> numbers;
  const char* position = text.data();
  const char* const end = text.data() + text.size();
  while (numbers.size() < count) {
    if (!numbers.empty() && (position == end || *position++ != separator))
      return std::nullopt;
    const auto [next, failure] = std::from_chars(position, end, numbers.emplace_back());
    if (failure != std::errc())
      return std::nullopt;
    position = next;
  }
  return position == end ? std::optional(std::move(numbers)) : std::nullopt;
}

/// A picture of another kind would be taken for raw samples.
const CLI::Validator pictureName(
    [](const std::string& path) -> std::string {
      constexpr const char* others[] = {".jpg", ".jpeg", ".webp", ".gif", ".bmp", ".tif", ".tiff"};
      const auto hasExtension = [&path](const char* extension) { return isNamed(path, extension); };
      return std::ranges::any_of(others, hasExtension)
                 ? "only PNG and raw samples can be read and written, not " + path
                 : "";
    },
    "");

/// Turns texts into options; the first fault ends it, as a line for the user.
class Interpreter {
 public:
  Interpreter(const Texts& texts, Options& options) : texts_(texts), options_(options) {}

  /// Empty if all is well.
  std::string convert() {
    if (readFormat(texts_.from, options_.from) && readFormat(texts_.to, options_.to) &&
        readConversion() && readFiles())
      return {};
    return fault_;
  }

  std::string scale() {
    if (readFormat(texts_.format, options_.from) && readScaling() && readTargetSize() &&
        readRect() && readFiles())
      return {};
    return fault_;
  }

 private:
  bool refuse(std::string fault) {
    fault_ = std::move(fault);
    return false;
  }

  bool readFormat(const std::string& name, const PictureFormat*& format) {
    format = findFormat(name);
    return format != nullptr || refuse("unknown format " + name + ", not one of " + formatNames());
  }

  bool readConversion() {
    options_.conversion = findConversion(*options_.from, *options_.to);
    if (options_.conversion != nullptr)
      return true;
    const std::string from(options_.from->name);
    const std::string targets = targetNames(*options_.from);
    return refuse("no operation converts " + from + " to " + std::string(options_.to->name) + ", " +
                  (targets.empty() ? "nor to anything else" : "only to " + targets));
  }

  bool readScaling() {
    options_.to = options_.from;
    if (!options_.from->scaledAs.has_value())
      return refuse(std::string(options_.from->name) + " can't be scaled or cropped");
    options_.filter = findFilter(texts_.filter);
    return options_.filter != nullptr ||
           refuse("unknown filter " + texts_.filter + ", not one of " + filterNames());
  }

  bool readSize(const char* option, const std::string& text, Size& size) {
    const auto numbers = parseNumbers(text, 'x', 2);
    if (!numbers.has_value())
      return refuse(std::string(option) + " needs WIDTHxHEIGHT: " + text);
    size = {numbers->at(0), numbers->at(1)};
    return isAllowed(size) ||
           refuse(std::string(option) + " needs sides from 1 to " + std::to_string(maximumSide) +
                  " and " + std::to_string(maximumPixels) + " pixels at most: " + text);
  }

  bool readTargetSize() {
    return texts_.targetSize.empty() ||
           readSize("--to-size", texts_.targetSize, options_.targetSize.emplace());
  }

  bool readRect() {
    if (texts_.rect.empty())
      return true;
    const auto numbers = parseNumbers(texts_.rect, ',', 4);
    if (!numbers.has_value() || *std::min_element(numbers->begin(), numbers->end()) < 0 ||
        numbers->at(2) < 1 || numbers->at(3) < 1)
      return refuse("--rect needs X,Y,WIDTH,HEIGHT with positive sides: " + texts_.rect);
    options_.rect = CropRect{numbers->at(0), numbers->at(1), numbers->at(2), numbers->at(3)};
    return true;
  }

  bool readFiles() {
    options_.input = texts_.input;
    options_.output = texts_.output;
    if (!checkPng(options_.input, *options_.from) || !checkPng(options_.output, *options_.to))
      return false;
    std::error_code ignored;
    if (std::filesystem::equivalent(options_.input, options_.output, ignored) &&
        std::filesystem::is_regular_file(options_.input, ignored))
      return refuse("the input would be overwritten: " + options_.output);
    if (isPngName(options_.input))
      return texts_.size.empty() ||
             refuse("--size is for raw input, " + options_.input + " has a size of its own");
    return texts_.size.empty() ? refuse("--size is needed for raw input: " + options_.input)
                               : readSize("--size", texts_.size, options_.rawSize);
  }

  bool checkPng(const std::string& path, const PictureFormat& format) {
    return !isPngName(path) || format.pngFormat.has_value() ||
           refuse("a PNG can't hold " + std::string(format.name) + ": " + path);
  }

  const Texts& texts_;
  Options& options_;
  std::string fault_;
};

ParsedOptions badUsage(std::string message) {
  std::replace(message.begin(), message.end(), '\n', ' ');
  std::fprintf(stderr, "tavro-image: %s (see tavro-image --help)\n", message.c_str());
  return {.options = {}, .exitCode = exitRefused};
}

void addFiles(CLI::App& command, Texts& texts) {
  command.add_option("IN", texts.input, "Picture to read; - for the standard input")
      ->required()
      ->check(pictureName);
  command.add_option("OUT", texts.output, "Picture to write; - for the standard output")
      ->required()
      ->check(pictureName);
  command.add_option("--size", texts.size, "Size of a raw input")->type_name("WIDTHxHEIGHT");
}

/// The options that scaling and cropping share. A crop needs no size.
CLI::Option* addScaling(CLI::App& command, Texts& texts) {
  command.add_option("--format", texts.format, "Format of both pictures")
      ->type_name("NAME")
      ->required();
  command.add_option("--filter", texts.filter, "How samples are found")
      ->type_name("NAME")
      ->capture_default_str();
  return command.add_option("--to-size", texts.targetSize, "Size of the result")
      ->type_name("WIDTHxHEIGHT");
}

}  // namespace

ParsedOptions parseOptions(int argumentCount, const char* const* arguments) {
  ParsedOptions parsed;
  Texts texts;
  bool list = false;

  CLI::App app(description, "tavro-image");
  app.formatter(std::make_shared<HelpFormatter>());
  app.allow_windows_style_options(false);  // a slash begins a path
  app.footer(examples);
  app.set_version_flag("--version", std::string("tavro-image ") + TAVRO_VERSION);
  addManual(app, std::string("tavro-image ") + TAVRO_VERSION);
  app.add_flag("--list", list, "Print the formats, filters and conversions");
  app.require_subcommand(0, 1);

  CLI::App* convert = app.add_subcommand("convert", "Convert from one format to another");
  convert->add_option("--from", texts.from, "Format of IN")->type_name("NAME")->required();
  convert->add_option("--to", texts.to, "Format of OUT")->type_name("NAME")->required();
  addFiles(*convert, texts);

  CLI::App* scale = app.add_subcommand("scale", "Scale to another size");
  addScaling(*scale, texts)->required();
  addFiles(*scale, texts);

  CLI::App* crop = app.add_subcommand("crop", "Cut a rectangle out, and scale it if asked to");
  addScaling(*crop, texts);
  crop->add_option("--rect", texts.rect, "The part to keep, in pixels")
      ->type_name("X,Y,WIDTH,HEIGHT")
      ->required();
  addFiles(*crop, texts);

  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::Success& request) {  // help or version
    parsed.exitCode = app.exit(request);
    return parsed;
  } catch (const CLI::ParseError& fault) {
    return badUsage(fault.what());
  }
  if (list) {
    if (std::fputs(listing().c_str(), stdout) < 0 || std::fflush(stdout) != 0)
      return badUsage("the list can't be written");
    parsed.exitCode = exitSuccess;
    return parsed;
  }
  if (app.get_subcommands().empty())
    return badUsage("what to do is missing: convert, scale or crop");
  Interpreter interpreter(texts, parsed.options);
  std::string fault = *convert ? interpreter.convert() : interpreter.scale();
  return fault.empty() ? parsed : badUsage(std::move(fault));
}

}  // namespace tavro::host::image
