// tavro-image: converts, scales and crops one picture with the image subsystem. catalog.h has the
// formats, filters and operations as tables, and everything else reads them: options.h looks the
// names up in them, picture.h lays planes out by them and reads and writes files. Here two pictures
// are handed to the image subsystem.

#include <algorithm>
#include <cstdio>
#include <exception>

#include "host/app/platform/process.h"
#include "host/image_app/options.h"
#include "host/image_app/picture.h"
#include "image/image_dispatch.h"

namespace tavro::host::image {
namespace {

using TavroRTC::FDModule::CropRect;

bool isInside(const CropRect& rect, Size size) {
  return rect.x <= size.width - rect.width && rect.y <= size.height - rect.height;
}

std::optional<Picture> convert(const Options& options, Picture& source, std::string& error) {
  Picture result(*options.to, source.size());
  if (convertImage(source.desc(), result.desc(), options.conversion->code) == 0)
    return result;
  error = "the conversion " + std::string(options.conversion->operation) + " was refused";
  return std::nullopt;
}

std::optional<Picture> scale(const Options& options, Picture& source, std::string& error) {
  const Size size = source.size();
  const CropRect rect = options.rect.value_or(CropRect{0, 0, size.width, size.height});
  if (!isInside(rect, size)) {
    error = "the rectangle isn't inside the picture of " + asText(size) + " pixels";
    return std::nullopt;
  }
  Picture result(*options.to, options.targetSize.value_or(Size{rect.width, rect.height}));
  if (cropAndScaleImage(source.desc(), result.desc(), rect, options.filter->code) == 0)
    return result;
  error = "scaling " + std::string(options.from->name) + " from " +
          asText({rect.width, rect.height}) + " to " + asText(result.size()) + " was refused";
  if (options.from->planes[0].bytesPerPixel > 1 && std::max(rect.width, rect.height) >= maximumSide)
    error += ": packed pixels need sides of less than " + std::to_string(maximumSide);
  return std::nullopt;
}

/// The exit code. Nothing is written before everything else has succeeded.
int run(const Options& options) {
  std::string error;
  auto source = readPicture(options.input, *options.from, options.rawSize, error);
  if (source.has_value()) {
    const auto result = options.conversion != nullptr ? convert(options, *source, error)
                                                      : scale(options, *source, error);
    if (result.has_value() && writePicture(options.output, *result, error))
      return exitSuccess;
  }
  std::fprintf(stderr, "tavro-image: %s\n", error.c_str());
  return exitRefused;
}

}  // namespace
}  // namespace tavro::host::image

int main(int argumentCount, char** arguments) {
  using namespace tavro::host::image;
  tavro::host::holdStandardStreams();
  try {
    const ParsedOptions parsed = parseOptions(argumentCount, arguments);
    return parsed.exitCode.has_value() ? *parsed.exitCode : run(parsed.options);
  } catch (const std::exception& failure) {  // no memory, for one
    std::fprintf(stderr, "tavro-image: %s\n", failure.what());
    return exitRefused;
  }
}
