#include "host/image_app/picture.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <span>

namespace tavro::host::image {
namespace {

Size planeSize(const PlaneShape& plane, Size size) {
  using TavroRTC::FDModule::chromaSize;
  return plane.halved ? Size{chromaSize(size.width), chromaSize(size.height)} : size;
}

int64_t planeBytes(const PlaneShape& plane, Size size) {
  const Size inSamples = planeSize(plane, size);
  return int64_t{inSamples.width} * inSamples.height * plane.bytesPerPixel;
}

// The name that stands for the standard input or output.
constexpr const char* standardStream = "-";

struct StreamCloser {
  void operator()(std::FILE* stream) const {
    if (stream != stdin)
      std::fclose(stream);
  }
};

std::string reason(const char* what, const std::string& path) {
  return std::string("can't ") + what + " " + path + ": " + std::strerror(errno);
}

/// What is in the file, or its first `limit` bytes if it has more.
std::optional<std::vector<uint8_t>> readBytes(const std::string& path, int64_t limit,
                                              std::string& error) {
  const std::unique_ptr<std::FILE, StreamCloser> stream(
      path == standardStream ? stdin : std::fopen(path.c_str(), "rb"));
  if (stream == nullptr) {
    error = reason("read", path);
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  uint8_t block[1 << 16];
  size_t wanted = 0;
  size_t got = 0;
  do {
    wanted = std::min(sizeof block, static_cast<size_t>(limit) - bytes.size());
    got = std::fread(block, 1, wanted, stream.get());
    bytes.insert(bytes.end(), block, block + got);
  } while (got == wanted && wanted != 0);
  if (std::ferror(stream.get()) != 0) {
    error = reason("read", path);
    return std::nullopt;
  }
  return bytes;
}

bool writeBytes(const std::string& path, std::span<const uint8_t> bytes, std::string& error) {
  std::FILE* stream = path == standardStream ? stdout : std::fopen(path.c_str(), "wb");
  if (stream == nullptr) {
    error = reason("write", path);
    return false;
  }
  bool written = std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size();
  written = std::fflush(stream) == 0 && written;
  if (!written)
    error = reason("write", path);
  if (stream != stdout && std::fclose(stream) != 0 && written) {
    error = reason("write", path);
    written = false;
  }
  return written;
}

// Room for the largest picture even where it doesn't compress at all.
constexpr int64_t maximumPngBytes = maximumPixels * 5;

// libpng's record of one picture, released at the end of the scope.
struct PngImage {
  png_image image = {};

  PngImage() { image.version = PNG_IMAGE_VERSION; }
  ~PngImage() { png_image_free(&image); }
  PngImage(const PngImage&) = delete;
  PngImage& operator=(const PngImage&) = delete;
};

// Negative strides would mean bottom-up; here rows follow each other from the top.
constexpr png_int_32 tightRows = 0;

std::optional<Picture> readRaw(const std::string& path, const PictureFormat& format, Size size,
                               std::string& error) {
  const int64_t expected = byteCount(format, size);
  auto bytes = readBytes(path, expected + 1, error);
  if (!bytes.has_value())
    return std::nullopt;
  const auto found = static_cast<int64_t>(bytes->size());
  if (found != expected) {
    const std::string amount = found > expected ? "more bytes" : std::to_string(found) + " bytes";
    error = path + " has " + amount + ", a picture of " + asText(size) + " " +
            std::string(format.name) + " has " + std::to_string(expected);
    return std::nullopt;
  }
  Picture picture(format, size);
  picture.bytes() = std::move(*bytes);
  return picture;
}

std::optional<Picture> readPng(const std::string& path, const PictureFormat& format,
                               std::string& error) {
  const auto bytes = readBytes(path, maximumPngBytes, error);
  if (!bytes.has_value())
    return std::nullopt;
  const auto refuse = [&](const std::string& reason) {
    error = path + ": " + reason;
    return std::nullopt;
  };

  PngImage png;
  png_image& image = png.image;
  if (png_image_begin_read_from_memory(&image, bytes->data(), bytes->size()) == 0)
    return refuse(image.message);
  if (image.width > uint32_t{maximumSide} || image.height > uint32_t{maximumSide})
    return refuse("the picture is too large");
  const Size size = {static_cast<int32_t>(image.width), static_cast<int32_t>(image.height)};
  if (!isAllowed(size))
    return refuse("the picture is too large");
  // libpng would weigh the colours in its own way, unlike any of the conversions.
  const bool hasColours = (image.format & PNG_FORMAT_FLAG_COLOR) != 0;
  if (hasColours && (*format.pngFormat & PNG_FORMAT_FLAG_COLOR) == 0)
    return refuse("has colours; read it as rgb24 and convert that to " + std::string(format.name));

  image.flags |= PNG_IMAGE_FLAG_16BIT_sRGB;
  image.format = *format.pngFormat;
  Picture picture(format, size);
  const png_color black = {0, 0, 0};
  if (png_image_finish_read(&image, &black, picture.bytes().data(), tightRows, nullptr) == 0)
    return refuse(image.message);
  return picture;
}

bool writePng(const std::string& path, const Picture& picture, std::string& error) {
  PngImage png;
  png_image& image = png.image;
  image.width = static_cast<uint32_t>(picture.size().width);
  image.height = static_cast<uint32_t>(picture.size().height);
  image.format = *picture.format().pngFormat;

  // In memory first: what can't be encoded leaves no file behind.
  std::vector<uint8_t> file(PNG_IMAGE_PNG_SIZE_MAX(image));
  png_alloc_size_t size = file.size();
  if (png_image_write_to_memory(&image, file.data(), &size, 0, picture.bytes().data(), tightRows,
                                nullptr) == 0) {
    error = "can't encode " + path + ": " + image.message;
    return false;
  }
  file.resize(size);
  return writeBytes(path, file, error);
}

}  // namespace

bool isAllowed(Size size) {
  return size.width >= 1 && size.width <= maximumSide && size.height >= 1 &&
         size.height <= maximumSide && int64_t{size.width} * size.height <= maximumPixels;
}

std::string asText(Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

int64_t byteCount(const PictureFormat& format, Size size) {
  int64_t count = 0;
  for (const PlaneShape& plane : format.planes)
    count += planeBytes(plane, size);
  return count;
}

Picture::Picture(const PictureFormat& format, Size size)
    : format_(&format), size_(size), bytes_(static_cast<size_t>(byteCount(format, size))) {}

TavroRTC::FDModule::ImageDesc Picture::desc() {
  TavroRTC::FDModule::ImageDesc desc;
  uint8_t* start = bytes_.data();
  for (int i = 0; i < 3 && format_->planes[i].bytesPerPixel != 0; ++i) {
    const PlaneShape& plane = format_->planes[i];
    const Size inSamples = planeSize(plane, size_);
    desc.planes[i] = start;
    desc.widths[i] = inSamples.width;
    desc.heights[i] = inSamples.height;
    desc.strides[i] = inSamples.width * plane.bytesPerPixel;
    start += planeBytes(plane, size_);
  }
  if (format_->scaledAs.has_value())
    desc.format = *format_->scaledAs;
  return desc;
}

bool isNamed(const std::string& path, const char* extension) {
  std::string found = std::filesystem::path(path).extension().string();
  std::transform(found.begin(), found.end(), found.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return found == extension;
}

bool isPngName(const std::string& path) {
  return isNamed(path, ".png");
}

std::optional<Picture> readPicture(const std::string& path, const PictureFormat& format,
                                   Size rawSize, std::string& error) {
  return isPngName(path) ? readPng(path, format, error) : readRaw(path, format, rawSize, error);
}

bool writePicture(const std::string& path, const Picture& picture, std::string& error) {
  return isPngName(path) ? writePng(path, picture, error)
                         : writeBytes(path, picture.bytes(), error);
}

}  // namespace tavro::host::image
