// The media of a build without FFmpeg: pictures by headers and by the image subsystem's
// conversions, which know one matrix only.

#define STBI_ONLY_PNG
#define STBI_NO_STDIO
#define STBI_MAX_DIMENSIONS 65535
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>
#define STBI_WRITE_NO_STDIO
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

#include <limits>
#include <memory>

#include "host/app/platform/media.h"
#include "host/app/platform/plain_media.h"
#include "host/core/frame_image.h"
#include "image/image_dispatch.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::ColorOp;
using TavroRTC::FDModule::convertImage;
using TavroRTC::FDModule::ImageDesc;
using TavroRTC::FDModule::ImageFormat;

constexpr int channels = 3;
constexpr int64_t mostPixels = int64_t{1} << 28;

struct PixelDeleter {
  void operator()(uint8_t* pixels) const { stbi_image_free(pixels); }
};

ImageDesc rgbImage(const uint8_t* pixels, int32_t width, int32_t height) {
  return packedImage(pixels, width * channels, width, height, ImageFormat::Packed24);
}

void append(void* file, void* bytes, int size) {
  auto* target = static_cast<std::vector<uint8_t>*>(file);
  const auto* first = static_cast<const uint8_t*>(bytes);
  target->insert(target->end(), first, first + size);
}

/// Packed pixels without gaps; none if the picture is too large.
std::vector<uint8_t> toRgb(const I420Frame& frame) {
  const int32_t width = frame.width();
  const int32_t height = frame.height();
  if (int64_t{width} * height > mostPixels)
    return {};
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * channels);
  if (convertImage(imageOf(frame), rgbImage(pixels.data(), width, height), ColorOp::I420ToRgb24) !=
      0)
    pixels.clear();
  return pixels;
}

}  // namespace

void prepareMedia() {}

MediaHelp mediaHelp() {
  return {
      .input = "Y4M video, PNG picture or raw I420 samples; - for the standard input",
      .inputFormat = "yuv4mpegpipe, png or rawvideo, where it can't be found out",
      .inputOption =
          "For rawvideo: video_size=WIDTHxHEIGHT, framerate=N, pixel_format=yuv420p; may be "
          "repeated",
      .annotate =
          "Video (.y4m) or picture (.png, the first frame) to write with the rectangles drawn",
      .examples = R"(  tavro-fd clip.y4m                              the rectangles of every frame
  tavro-fd photo.png --annotate boxes.png        a picture with the rectangles drawn
  tavro-fd clip.y4m --annotate boxes.y4m --stats --output faces.jsonl
  tavro-fd --output-dir out --annotate {}.y4m --resume clips photo.png
  tavro-fd clip.yuv --input-format rawvideo --input-option video_size=640x360
  ffmpeg -i clip.mp4 -pix_fmt yuv420p -f yuv4mpegpipe - | tavro-fd -
)",
      .conversion = "8-bit 4:2:0 video in limited range reaches the detector byte for byte."};
}

std::vector<std::string> annotationExtensions() {
  return {".png", ".y4m"};
}

std::vector<std::string> videoExtensions() {
  return {".y4m"};
}

std::optional<I420Frame> decodePng(const std::vector<uint8_t>& file, std::string& error) {
  int width = 0;
  int height = 0;
  int found = 0;
  if (file.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    error = "the picture is too large";
    return std::nullopt;
  }
  const auto size = static_cast<int>(file.size());
  if (stbi_info_from_memory(file.data(), size, &width, &height, &found) != 0 &&
      int64_t{width} * height > mostPixels) {
    error = "the picture is too large";
    return std::nullopt;
  }
  const std::unique_ptr<uint8_t, PixelDeleter> pixels(
      stbi_load_from_memory(file.data(), size, &width, &height, &found, channels));
  if (pixels == nullptr) {
    const char* reason = stbi_failure_reason();  // there isn't one for every fault
    error = std::string("the picture is damaged") +
            (reason != nullptr && *reason != '\0' ? ": " + std::string(reason) : "");
    return std::nullopt;
  }
  auto frame = I420Frame::allocate(width, height);
  if (!frame.has_value() || convertImage(rgbImage(pixels.get(), width, height), imageOf(*frame),
                                         ColorOp::Rgb24ToI420) != 0) {
    error = "out of memory";
    return std::nullopt;
  }
  return frame;
}

std::vector<uint8_t> encodePng(const I420Frame& frame, int32_t /*colorMatrix*/) {
  std::vector<uint8_t> file;
  std::vector<uint8_t> pixels = toRgb(frame);
  if (pixels.empty() || stbi_write_png_to_func(&append, &file, frame.width(), frame.height(),
                                               channels, pixels.data(), 0) == 0)
    file.clear();
  return file;
}

std::vector<uint8_t> encodeJpeg(const I420Frame& frame, int32_t /*colorMatrix*/) {
  constexpr int quality = 90;
  std::vector<uint8_t> file;
  std::vector<uint8_t> pixels = toRgb(frame);
  if (pixels.empty() || stbi_write_jpg_to_func(&append, &file, frame.width(), frame.height(),
                                               channels, pixels.data(), quality) == 0)
    file.clear();
  return file;
}

}  // namespace tavro::host
