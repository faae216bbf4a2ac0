#include "host/app/input/ffmpeg_demuxer.h"

extern "C" {
#include <libavdevice/avdevice.h>
}

#include <filesystem>

#include "host/app/platform/process.h"

namespace tavro::host {

namespace {

/// The device file if the path is a camera or a link to one, as in /dev/v4l/by-id; else empty.
std::string cameraAt(const std::string& path) {
  std::error_code failure;
  std::string file = std::filesystem::canonical(path, failure).string();
  return file.starts_with("/dev/video") ? file : std::string();
}

/// The name under which FFmpeg opens the input. A file may be called anything, so an existing one
/// must not be read as PROTOCOL:REST.
std::string ffmpegUrl(const std::string& path) {
  if (path == "-")
    return "pipe:0";
  if (std::string camera = cameraAt(path); !camera.empty())
    return camera;
  std::error_code failure;
  if (path.find(':') != std::string::npos && std::filesystem::exists(path, failure))
    return "file:" + path;
  return path;
}

int stopCheck(void* /*context*/) {
  return isStopRequested() ? 1 : 0;
}

}  // namespace

DemuxerHandle openDemuxer(const InputRequest& request, bool canBeStopped, std::string& error) {
  std::string formatName = request.format;
  if (formatName.empty() && !cameraAt(request.path).empty())
    formatName = "v4l2";
  const AVInputFormat* inputFormat = nullptr;
  if (!formatName.empty()) {
    avdevice_register_all();
    inputFormat = av_find_input_format(formatName.c_str());
    if (inputFormat == nullptr) {
      error = "FFmpeg knows no input format '" + formatName + "'";
      return nullptr;
    }
  }
  OptionDictionary options;
  std::error_code failure;
  if (std::filesystem::exists(request.path, failure))
    options.set("pattern_type",
                "none");  // a picture's name is a name, whatever characters are in it
  if (request.live) {  // FFmpeg looks at up to 5 s or 1 MiB of some streams to tell what they are
    options.set("analyzeduration", "100000");
    options.set("formatprobesize", "65536");
  }
  for (const auto& [key, value] : request.options)
    options.set(key, value);

  const int64_t errorsBefore = ffmpegErrorCount();
  AVFormatContext* format = avformat_alloc_context();
  if (format == nullptr) {
    error = "out of memory";
    return nullptr;
  }
  if (canBeStopped)
    format->interrupt_callback = {.callback = &stopCheck, .opaque = nullptr};
  int result =
      avformat_open_input(&format, ffmpegUrl(request.path).c_str(), inputFormat, options.address());
  // On failure FFmpeg frees what it was given.
  DemuxerHandle opened(result >= 0 ? format : nullptr);
  if (result >= 0)
    result = avformat_find_stream_info(format, nullptr);
  if (result < 0) {
    error = explainedError(result, errorsBefore);
    return nullptr;
  }
  for (const auto& [key, value] : request.options)
    if (options.has(key.c_str())) {
      error =
          "input format '" + std::string(format->iformat->name) + "' has no option '" + key + "'";
      return nullptr;
    }
  return opened;
}

}  // namespace tavro::host
