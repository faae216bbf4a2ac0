extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "host/app/input/ffmpeg_conversion.h"
#include "host/app/input/ffmpeg_demuxer.h"
#include "host/app/input/video_input.h"
#include "host/app/platform/ffmpeg.h"
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

namespace {

constexpr const char* y4mFormat = "yuv4mpegpipe";

/// By the flag in its first chunk: the decoder says no more than that it finds no picture.
bool isAnimatedWebp(const AVPacket& packet) {
  constexpr int flags = 20;
  constexpr uint8_t animated = 0x02;
  return packet.size > flags && std::memcmp(packet.data + 12, "VP8X", 4) == 0 &&
         (packet.data[flags] & animated) != 0;
}

/// Packets come out of the demuxer, frames out of the decoder (one thread, so that decoding doesn't
/// disturb the detector's timing), pictures out of a FrameConverter. What is unreadable is skipped
/// and noted in damage().
class FfmpegInput final : public VideoInput {
 public:
  FfmpegInput() = default;
  ~FfmpegInput() override = default;
  FfmpegInput(const FfmpegInput&) = delete;
  FfmpegInput& operator=(const FfmpegInput&) = delete;

  bool openFormat(const InputRequest& request, std::string& error) {
    demuxer_ = openDemuxer(request, true, error);
    format_ = demuxer_.get();
    return format_ != nullptr;
  }
  bool openDecoder(std::string& error);

  bool read() override;
  int64_t expectedFrames() const override;
  int32_t colorMatrix() const override;
  PictureTags tags() const override;
  int32_t otherStreams() const override { return static_cast<int32_t>(format_->nb_streams) - 1; }

 private:
  Orientation streamOrientation() const;
  Orientation frameOrientation() const;
  bool decodeFrame();
  bool feedDecoder();
  void checkForCutOff();
  bool takePicture();

  DemuxerHandle demuxer_;
  AVFormatContext* format_ = nullptr;
  AVStream* stream_ = nullptr;
  CodecHandle decoder_;
  PacketHandle packet_;
  FrameHandle frame_;
  FrameConverter converter_;
  Orientation storedOrientation_;
  bool drained_ = false;
  int64_t lastPacketEnd_ = -1;
};

bool FfmpegInput::openDecoder(std::string& error) {
  const AVCodec* codec = nullptr;
  const int streamIndex = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (streamIndex < 0) {
    error = streamIndex == AVERROR_DECODER_NOT_FOUND ? "no decoder for its video"
                                                     : "there is no video in it";
    return false;
  }
  stream_ = format_->streams[streamIndex];
  for (unsigned i = 0; i < format_->nb_streams; ++i)
    if (format_->streams[i] != stream_)
      format_->streams[i]->discard = AVDISCARD_ALL;

  decoder_.reset(avcodec_alloc_context3(codec));
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (decoder_ == nullptr || packet_ == nullptr || frame_ == nullptr) {
    error = "out of memory";
    return false;
  }
  const int64_t errorsBefore = ffmpegErrorCount();
  int result = avcodec_parameters_to_context(decoder_.get(), stream_->codecpar);
  decoder_->pkt_timebase = stream_->time_base;
  decoder_->thread_count = 1;
  decoder_->flags |= AV_CODEC_FLAG_UNALIGNED;  // crops exactly, not to the decoder's alignment
  if (result >= 0)
    result = avcodec_open2(decoder_.get(), codec, nullptr);
  if (result < 0) {
    error = explainedError(result, errorsBefore);
    return false;
  }
  if (const AVRational rate = av_guess_frame_rate(format_, stream_, nullptr);
      rate.num > 0 && rate.den > 0)
    frameRate_ = {rate.num, rate.den};
  storedOrientation_ = streamOrientation();
  return true;
}

Orientation FfmpegInput::streamOrientation() const {
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(60, 15, 100)
  const AVPacketSideData* data =
      av_packet_side_data_get(stream_->codecpar->coded_side_data,
                              stream_->codecpar->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
  const uint8_t* matrix = data != nullptr ? data->data : nullptr;
#else
  const uint8_t* matrix = av_stream_get_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
#endif
  return matrix != nullptr ? orientationOf(reinterpret_cast<const int32_t*>(matrix))
                           : Orientation{};
}

Orientation FfmpegInput::frameOrientation() const {
  const AVFrameSideData* matrix = av_frame_get_side_data(frame_.get(), AV_FRAME_DATA_DISPLAYMATRIX);
  return matrix != nullptr ? orientationOf(reinterpret_cast<const int32_t*>(matrix->data))
                           : storedOrientation_;
}

bool FfmpegInput::read() {
  picture_.reset();
  while (!isStopRequested() && decodeFrame())
    if (takePicture())
      return true;
  return false;
}

bool FfmpegInput::decodeFrame() {
  const int64_t errorsBefore = ffmpegErrorCount();
  bool decoded = false;
  while (true) {
    av_frame_unref(frame_.get());
    const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
    decoded = result >= 0;
    if (decoded || result == AVERROR_EOF)
      break;
    if (result != AVERROR(EAGAIN))
      damage_.noteUnreadablePacket();
    // After an error the next packet gets the decoder going again. If it still fails once it has
    // been drained, nothing will.
    if (drained_ || !feedDecoder())
      break;
  }
  if (ffmpegErrorCount() > errorsBefore)
    damage_.noteMessage(latestFfmpegError());
  return decoded;
}

/// Sends one packet of the video, or the end of the input. False if there is nothing left to
/// decode.
bool FfmpegInput::feedDecoder() {
  int result = 0;
  do {
    av_packet_unref(packet_.get());
    result = av_read_frame(format_, packet_.get());
  } while (result >= 0 && packet_->stream_index != stream_->index);

  if (isStopRequested())
    return false;
  if (result < 0) {
    if (result != AVERROR_EOF)
      damage_.noteUnreadablePacket();
    checkForCutOff();
    drained_ = true;
    return avcodec_send_packet(decoder_.get(), nullptr) >= 0;
  }
  if (packet_->pos >= 0)
    lastPacketEnd_ = packet_->pos + packet_->size;
  if ((packet_->flags & AV_PKT_FLAG_CORRUPT) != 0)
    damage_.noteUnreadablePacket();
  if (stream_->codecpar->codec_id == AV_CODEC_ID_WEBP && isAnimatedWebp(*packet_))
    damage_.noteUnsupported("FFmpeg reads no animated WebP");
  result = avcodec_send_packet(decoder_.get(), packet_.get());
  if (result < 0 && result != AVERROR(EAGAIN))
    damage_.noteUnreadablePacket();
  return true;
}

/// At the end of the input: is the file shorter than it promised? Demuxers take it for complete as
/// long as it breaks off between two packets.
void FfmpegInput::checkForCutOff() {
  if (format_->pb == nullptr)
    return;
  const int64_t position = avio_tell(format_->pb);
  const int64_t size = avio_size(format_->pb);
  const int64_t end = size > 0 ? size : position;
  for (int i = 0; i < avformat_index_get_entries_count(stream_); ++i) {
    const AVIndexEntry* entry = avformat_index_get_entry(stream_, i);
    if (entry->pos + entry->size > end) {
      damage_.noteCutOff();
      return;
    }
  }
  // Y4M has no index, but nothing may follow its last whole frame either.
  if (std::string_view(format_->iformat->name) == y4mFormat && lastPacketEnd_ >= 0 &&
      position > lastPacketEnd_)
    damage_.noteCutOff();
}

/// Turns the decoded frame into the current picture. False if it can't be converted.
bool FfmpegInput::takePicture() {
  if (frame_->decode_error_flags != 0 || (frame_->flags & AV_FRAME_FLAG_CORRUPT) != 0)
    damage_.noteDamagedFrame();
  std::string error;
  picture_ = converter_.convert(*frame_, frameOrientation(), error);
  ++index_;
  if (!picture_.has_value()) {
    damage_.noteDamagedFrame();
    damage_.noteMessage(error);
    return false;
  }
  if (frame_->best_effort_timestamp != AV_NOPTS_VALUE) {
    const double start = static_cast<double>(startOf(*format_)) / AV_TIME_BASE;
    time_ = static_cast<double>(frame_->best_effort_timestamp) * av_q2d(stream_->time_base) - start;
  } else {
    time_ = static_cast<double>(index_) / frameRate_.perSecond();
  }
  return true;
}

int32_t FfmpegInput::colorMatrix() const {
  const AVPixFmtDescriptor* descriptor =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame_->format));
  const bool wasRgb = descriptor != nullptr && (descriptor->flags & AV_PIX_FMT_FLAG_RGB) != 0;
  return wasRgb ? AVCOL_SPC_SMPTE170M : frame_->colorspace;
}

PictureTags FfmpegInput::tags() const {
  AVRational shape = av_guess_sample_aspect_ratio(format_, stream_, frame_.get());
  if (shape.num > 0 && frameOrientation().transpose)
    shape = av_inv_q(shape);
  return {.primaries = frame_->color_primaries,
          .transfer = frame_->color_trc,
          .chromaLocation = frame_->chroma_location,
          .pixelWidth = shape.num,
          .pixelHeight = shape.den,
          .clock = {stream_->time_base.den, stream_->time_base.num}};
}

int64_t FfmpegInput::expectedFrames() const {
  constexpr double most = 1e9;  // a file that claims more is damaged
  if (stream_->nb_frames > 0 && stream_->nb_frames <= std::llround(most))
    return stream_->nb_frames;
  double seconds = 0.0;
  if (stream_->duration > 0)
    seconds = static_cast<double>(stream_->duration) * av_q2d(stream_->time_base);
  else if (format_->duration > 0)
    seconds = static_cast<double>(format_->duration) / AV_TIME_BASE;
  const double frames = seconds * frameRate_.perSecond();
  return frames <= most ? std::llround(frames) : 0;
}

}  // namespace

std::unique_ptr<VideoInput> VideoInput::open(const InputRequest& request, std::string& error) {
  auto input = std::make_unique<FfmpegInput>();
  if (!input->openFormat(request, error) || !input->openDecoder(error))
    return nullptr;
  return input;
}

}  // namespace tavro::host
