// FFmpeg's libraries as the media of a build: their log, and single pictures by their encoders. For
// these a frame goes to RGB by its own matrix, and from there to what the encoder takes.

extern "C" {
#include <libavutil/log.h>
}

#include <cstdio>
#include <mutex>
#include <utility>

#include "host/app/platform/ffmpeg.h"
#include "host/app/platform/media.h"

namespace tavro::host {

namespace {

struct CapturedLog {
  struct Side {
    int64_t errors = 0;
    std::string latest;
  };
  std::mutex mutex;
  Side input;
  Side output;
};

thread_local bool isOutputThread = false;

CapturedLog& capturedLog() {
  static CapturedLog log;
  return log;
}

CapturedLog::Side& sideOfThread() {
  return isOutputThread ? capturedLog().output : capturedLog().input;
}

void capture(void* /*source*/, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_ERROR)
    return;
  char text[512] = "";
  std::vsnprintf(text, sizeof text, format, arguments);
  std::string line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == ' ' || line.back() == '.'))
    line.pop_back();
  const std::lock_guard lock(capturedLog().mutex);
  ++sideOfThread().errors;
  sideOfThread().latest = std::move(line);
}

constexpr int wholeContrast = 1 << 16;
constexpr int wholeSaturation = 1 << 16;

/// A picture of that size and format, its samples to be written. Null if there is no memory.
FrameHandle allocatePicture(int width, int height, AVPixelFormat format) {
  FrameHandle picture(av_frame_alloc());
  if (picture == nullptr)
    return nullptr;
  picture->width = width;
  picture->height = height;
  picture->format = format;
  return av_frame_get_buffer(picture.get(), 0) >= 0 ? std::move(picture) : nullptr;
}

/// Packed RGB24. Null if there is no memory.
FrameHandle toRgb(const I420Frame& frame, int32_t colorMatrix) {
  const int width = frame.width();
  const int height = frame.height();
  FrameHandle rgb = allocatePicture(width, height, AV_PIX_FMT_RGB24);
  const ScalerHandle scaler(sws_getContext(
      width, height, AV_PIX_FMT_YUV420P, width, height, AV_PIX_FMT_RGB24,
      SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
  if (rgb == nullptr || scaler == nullptr)
    return nullptr;
  const int* matrix = sws_getCoefficients(colorMatrix);
  sws_setColorspaceDetails(scaler.get(), matrix, 0, matrix, 1, 0, wholeContrast, wholeSaturation);
  return scaleFrame(*scaler, frame, *rgb) >= 0 ? std::move(rgb) : nullptr;
}

/// Full-range BT.601, which a JPEG is by definition. Null if there is no memory.
FrameHandle toFullRange(const AVFrame& rgb) {
  FrameHandle picture = allocatePicture(rgb.width, rgb.height, AV_PIX_FMT_YUVJ420P);
  const ScalerHandle scaler(sws_getContext(rgb.width, rgb.height, AV_PIX_FMT_RGB24, rgb.width,
                                           rgb.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                           nullptr, nullptr));
  if (picture == nullptr || scaler == nullptr)
    return nullptr;
  const int* matrix = sws_getCoefficients(SWS_CS_ITU601);
  sws_setColorspaceDetails(scaler.get(), matrix, 1, matrix, 1, 0, wholeContrast, wholeSaturation);
  return sws_scale(scaler.get(), rgb.data, rgb.linesize, 0, rgb.height, picture->data,
                   picture->linesize) >= 0
             ? std::move(picture)
             : nullptr;
}

/// The file's bytes, empty if it fails. The quality is on FFmpeg's scale, from 2 to 31, or 0 for an
/// encoder that knows none.
std::vector<uint8_t> encoded(AVFrame& picture, AVCodecID id, int quality) {
  const AVCodec* codec = avcodec_find_encoder(id);
  const CodecHandle encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
  const PacketHandle packet(av_packet_alloc());
  if (encoder == nullptr || packet == nullptr)
    return {};
  encoder->width = picture.width;
  encoder->height = picture.height;
  encoder->pix_fmt = static_cast<AVPixelFormat>(picture.format);
  encoder->time_base = {1, 25};
  encoder->thread_count = 1;
  if (quality != 0) {
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = picture.quality = quality * FF_QP2LAMBDA;
  }
  if (avcodec_open2(encoder.get(), codec, nullptr) < 0 ||
      avcodec_send_frame(encoder.get(), &picture) < 0 ||
      avcodec_send_frame(encoder.get(), nullptr) < 0 ||
      avcodec_receive_packet(encoder.get(), packet.get()) < 0)
    return {};
  return {packet->data, packet->data + packet->size};
}

}  // namespace

void prepareMedia() {
  captureFfmpegLog();
}

MediaHelp mediaHelp() {
  return {
      .input = "Video, picture, URL or device that FFmpeg opens; - for the standard input",
      .inputFormat = "FFmpeg's name of the input format, such as v4l2, lavfi or rawvideo",
      .inputOption = "Option of FFmpeg's demuxer, such as video_size=640x480; may be repeated",
      .annotate =
          "Video (.mp4, .mkv, .mov) or picture (.png, the first frame) to write with the "
          "rectangles drawn. Sound, subtitles, chapters and titles of an input file are copied; "
          "one "
          "that the container can't hold is named in a warning",
      .examples = R"(  tavro-fd clip.mp4                              the rectangles of every frame
  tavro-fd photo.jpg --annotate boxes.png        a picture with the rectangles drawn
  tavro-fd clip.mp4 --annotate boxes.mp4 --stats --output faces.jsonl
  tavro-fd --output-dir out --annotate {}.mp4 --resume clips photo.png
  tavro-fd /dev/video0 --every 3                 a camera, every third frame
  ffmpeg -i clip.mp4 -f yuv4mpegpipe - | tavro-fd -
)",
      .conversion =
          R"(8-bit 4:2:0 video in limited range reaches the detector byte for byte; anything else is converted to that first. Rotation stored in the file is applied.)"};
}

std::vector<std::string> annotationExtensions() {
  return {".png", ".mp4", ".mkv", ".mov"};
}

std::vector<std::string> videoExtensions() {
  return {".3gp", ".asf", ".avi", ".flv", ".m2ts", ".m4v", ".mkv",  ".mov", ".mp4", ".mpeg",
          ".mpg", ".mts", ".mxf", ".ogv", ".ts",   ".vob", ".webm", ".wmv", ".y4m"};
}

void captureFfmpegLog() {
  capturedLog();  // made before, and so destroyed after, anything that logs
  av_log_set_callback(&capture);
}

OutputLogScope::OutputLogScope() : before_(std::exchange(isOutputThread, true)) {}

OutputLogScope::~OutputLogScope() {
  isOutputThread = before_;
}

int64_t ffmpegErrorCount() {
  const std::lock_guard lock(capturedLog().mutex);
  return sideOfThread().errors;
}

std::string latestFfmpegError() {
  const std::lock_guard lock(capturedLog().mutex);
  return sideOfThread().latest;
}

std::string explainedError(int code, int64_t errorsBefore) {
  std::string text = ffmpegError(code);
  if (ffmpegErrorCount() > errorsBefore)
    text += " (" + latestFfmpegError() + ")";
  return text;
}

std::vector<uint8_t> encodeJpeg(const I420Frame& frame, int32_t colorMatrix) {
  constexpr int quality = 4;  // good, at a quarter of the bytes of 2
  const FrameHandle rgb = toRgb(frame, colorMatrix);
  const FrameHandle picture = rgb != nullptr ? toFullRange(*rgb) : nullptr;
  return picture != nullptr ? encoded(*picture, AV_CODEC_ID_MJPEG, quality)
                            : std::vector<uint8_t>();
}

std::vector<uint8_t> encodePng(const I420Frame& frame, int32_t colorMatrix) {
  const FrameHandle rgb = toRgb(frame, colorMatrix);
  return rgb != nullptr ? encoded(*rgb, AV_CODEC_ID_PNG, 0) : std::vector<uint8_t>();
}

}  // namespace tavro::host
