#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <utility>

#include "host/app/output/ffmpeg_stream_copy.h"
#include "host/app/output/frame_sink.h"
#include "host/app/platform/ffmpeg.h"
#include "host/app/platform/process.h"

namespace tavro::host {

namespace {

/// Ticks that hold every time stamp of the input, and others between, for stamps that have to be
/// moved. The MPEG-4 encoder counts to 65535; 1/60000 fits every usual rate, 30000/1001 nearly.
AVRational ticksFor(const FrameRate& clock, AVCodecID encoder) {
  constexpr int64_t finest = 1000000;
  const int64_t parts = std::max(int64_t{1}, 10000 * int64_t{clock.denominator} / clock.numerator);
  if (encoder == AV_CODEC_ID_MPEG4 || clock.numerator * parts > finest * clock.denominator ||
      clock.numerator * parts > std::numeric_limits<int>::max())
    return {1, 60000};
  return {clock.denominator, static_cast<int>(clock.numerator * parts)};
}

constexpr int evenCeiling(int size) {
  return size + size % 2;
}

/// An H.264 video, or MPEG-4 where FFmpeg has no H.264 encoder, with the other streams of the
/// input. Frames of another size than the first are scaled to it, and odd sizes to the next even
/// one, as the encoders want. The file is written in fragments of a second or more: one that is cut
/// short can be played up to there.
class VideoSink final : public FrameSink {
 public:
  VideoSink() = default;
  ~VideoSink() override {
    if (muxer_ != nullptr)
      avio_closep(&muxer_->pb);
    avformat_free_context(muxer_);
  }
  VideoSink(const VideoSink&) = delete;
  VideoSink& operator=(const VideoSink&) = delete;

  bool open(const std::string& path, const SinkFormat& format, std::string& error) {
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    if (frame_ == nullptr || packet_ == nullptr ||
        avformat_alloc_output_context2(&muxer_, nullptr, nullptr, path.c_str()) < 0) {
      error = "out of memory";
      return false;
    }
    // The encoder comes first: it refuses some sizes, and then no empty file must be left.
    if (!openEncoder(format, error) ||
        !succeeded(avio_open(&muxer_->pb, path.c_str(), AVIO_FLAG_WRITE), error))
      return false;
    if (writeHeader(format, true, error))
      return true;
    if (copy_.hasStreams() && reopen(path, error) && writeHeader(format, false, error))
      return true;
    if (muxer_ != nullptr)
      avio_closep(&muxer_->pb);
    std::error_code failure;
    if (std::filesystem::is_regular_file(path, failure))
      std::filesystem::remove(path, failure);
    return false;
  }

  bool write(const I420Frame& frame, double time, std::string& error) override {
    if (!succeeded(av_frame_make_writable(frame_.get()), error) || !fit(frame, error))
      return false;
    // Strictly rising, whatever the input's time stamps do: the muxer takes nothing else.
    const AVRational tick = encoder_->time_base;
    lastTime_ = std::max(lastTime_ + 1, int64_t{std::llround(time * tick.den / tick.num)});
    frame_->pts = lastTime_;
    ++frames_;
    return encode(frame_.get(), error);
  }

  bool finish(std::string& error) override {
    // What is cut short ends with its last frame, but sound may go on longer than the video.
    const bool isCutShort = isStopRequested() || (mostFrames_ != 0 && frames_ >= mostFrames_);
    const double end = isCutShort ? seconds(lastTime_) + 1.0 / av_q2d(encoder_->framerate)
                                  : std::numeric_limits<double>::infinity();
    if (!encode(nullptr, error) || !copyUntil(end, error))
      return false;
    copy_.warnOfLosses();
    return succeeded(av_write_trailer(muxer_), error) && succeeded(avio_closep(&muxer_->pb), error);
  }

 private:
  bool succeeded(int result, std::string& error) const {
    if (result < 0)
      error = explainedError(result, errorsBefore_);
    return result >= 0;
  }

  bool openEncoder(const SinkFormat& format, std::string& error) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr)
      codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    encoder_.reset(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (encoder_ == nullptr) {
      error = "FFmpeg has neither an H.264 nor an MPEG-4 encoder";
      return false;
    }
    encoder_->width = evenCeiling(format.width);
    encoder_->height = evenCeiling(format.height);
    encoder_->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder_->color_range = AVCOL_RANGE_MPEG;
    encoder_->colorspace = static_cast<AVColorSpace>(format.colorMatrix);
    encoder_->color_primaries = static_cast<AVColorPrimaries>(format.tags.primaries);
    encoder_->color_trc = static_cast<AVColorTransferCharacteristic>(format.tags.transfer);
    encoder_->chroma_sample_location = static_cast<AVChromaLocation>(format.tags.chromaLocation);
    encoder_->sample_aspect_ratio = {format.tags.pixelWidth, format.tags.pixelHeight};
    encoder_->time_base = ticksFor(format.tags.clock, codec->id);
    encoder_->framerate = {format.frameRate.numerator, format.frameRate.denominator};
    encoder_->thread_count = 1;  // keeps the detector's timings its own
    if ((muxer_->oformat->flags & AVFMT_GLOBALHEADER) != 0)
      encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    OptionDictionary options;
    if (codec->id == AV_CODEC_ID_MPEG4) {
      encoder_->flags |= AV_CODEC_FLAG_QSCALE;
      encoder_->global_quality = 3 * FF_QP2LAMBDA;
    } else {
      options.set("preset", "veryfast");
      options.set("crf", "18");
    }
    if (!succeeded(avcodec_open2(encoder_.get(), codec, options.address()), error))
      return false;
    frame_->format = encoder_->pix_fmt;
    frame_->width = encoder_->width;
    frame_->height = encoder_->height;
    return succeeded(av_frame_get_buffer(frame_.get(), 0), error);
  }

  /// Begins again with an empty container.
  bool reopen(const std::string& path, std::string& error) {
    avio_closep(&muxer_->pb);
    avformat_free_context(std::exchange(muxer_, nullptr));
    return succeeded(avformat_alloc_output_context2(&muxer_, nullptr, nullptr, path.c_str()),
                     error) &&
           succeeded(avio_open(&muxer_->pb, path.c_str(), AVIO_FLAG_WRITE), error);
  }

  bool writeHeader(const SinkFormat& format, bool withStreams, std::string& error) {
    AVStream* stream = avformat_new_stream(muxer_, nullptr);
    if (stream == nullptr) {
      error = "out of memory";
      return false;
    }
    stream->time_base = encoder_->time_base;
    stream->avg_frame_rate = encoder_->framerate;
    stream->sample_aspect_ratio = encoder_->sample_aspect_ratio;
    if (!succeeded(avcodec_parameters_from_context(stream->codecpar, encoder_.get()), error))
      return false;
    mostFrames_ = format.mostFrames;
    if (format.source != nullptr)
      copy_.open(format, withStreams, *muxer_);
    OptionDictionary options;
    // The header waits for the first fragment: only then the muxer knows all of the streams.
    options.set("movflags", "+frag_keyframe+delay_moov+default_base_moof");
    options.set("frag_duration", "1000000");
    options.set("cluster_time_limit", "1000");
    muxer_->flush_packets = 1;
    muxer_->max_interleave_delta = 1000000;  // subtitles are rare, and the rest waits for them
    if (!succeeded(avformat_write_header(muxer_, options.address()), error))
      return false;
    copy_.warnOfOmissions();
    return true;
  }

  /// Brings the picture into the encoder's frame; a plain copy if the sizes agree.
  bool fit(const I420Frame& picture, std::string& error) {
    scaler_.reset(sws_getCachedContext(scaler_.release(), picture.width(), picture.height(),
                                       AV_PIX_FMT_YUV420P, frame_->width, frame_->height,
                                       AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (scaler_ == nullptr) {
      error = "out of memory";
      return false;
    }
    return succeeded(scaleFrame(*scaler_, picture, *frame_), error);
  }

  /// Encodes a frame, or what the encoder still holds if it is null, and writes what comes out.
  bool encode(const AVFrame* frame, std::string& error) {
    if (!succeeded(avcodec_send_frame(encoder_.get(), frame), error))
      return false;
    while (true) {
      const int result = avcodec_receive_packet(encoder_.get(), packet_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
        return true;
      if (!succeeded(result, error))
        return false;
      if (!copyUntil(seconds(packet_->dts), error))
        return false;
      packet_->stream_index = 0;
      av_packet_rescale_ts(packet_.get(), encoder_->time_base, muxer_->streams[0]->time_base);
      const int written = av_interleaved_write_frame(muxer_, packet_.get());
      av_packet_unref(packet_.get());
      if (!succeeded(written, error))
        return false;
    }
  }

  double seconds(int64_t time) const {
    return static_cast<double>(time) * av_q2d(encoder_->time_base);
  }

  bool copyUntil(double time, std::string& error) {
    int failure = 0;
    return copy_.writeUntil(time, *muxer_, failure) || succeeded(failure, error);
  }

  AVFormatContext* muxer_ = nullptr;
  CodecHandle encoder_;
  FrameHandle frame_;
  PacketHandle packet_;
  ScalerHandle scaler_;
  StreamCopy copy_;
  int64_t lastTime_ = -1;
  int64_t frames_ = 0;
  int64_t mostFrames_ = 0;
  int64_t errorsBefore_ = ffmpegErrorCount();
};

}  // namespace

std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error) {
  auto sink = std::make_unique<VideoSink>();
  return sink->open(path, format, error) ? std::move(sink) : nullptr;
}

}  // namespace tavro::host
