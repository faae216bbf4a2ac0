#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

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
/// short can be played up to there. A thread of its own encodes, copies and writes; the caller only
/// waits if that falls behind.
class VideoSink final : public FrameSink {
 public:
  VideoSink() = default;
  ~VideoSink() override {
    endThread();
    if (muxer_ != nullptr)
      avio_closep(&muxer_->pb);
    avformat_free_context(muxer_);
  }
  VideoSink(const VideoSink&) = delete;
  VideoSink& operator=(const VideoSink&) = delete;

  bool open(const std::string& path, const SinkFormat& format, std::string& error) {
    const OutputLogScope scope;
    errorsBefore_ = ffmpegErrorCount();
    packet_.reset(av_packet_alloc());
    if (packet_ == nullptr ||
        avformat_alloc_output_context2(&muxer_, nullptr, nullptr, path.c_str()) < 0) {
      error = "out of memory";
      return false;
    }
    // The encoder comes first: it refuses some sizes, and then no empty file must be left.
    if (!openEncoder(format, error) ||
        !succeeded(avio_open(&muxer_->pb, path.c_str(), AVIO_FLAG_WRITE), error))
      return false;
    if ((writeHeader(format, true, error) ||
         (copy_.hasStreams() && reopen(path, error) && writeHeader(format, false, error))) &&
        startThread(error))
      return true;
    if (muxer_ != nullptr)
      avio_closep(&muxer_->pb);
    std::error_code failure;
    if (std::filesystem::is_regular_file(path, failure))
      std::filesystem::remove(path, failure);
    return false;
  }

  bool write(const I420Frame& frame, double time, std::string& error) override {
    const OutputLogScope scope;
    FrameHandle picture = nextFrame(error);
    if (picture == nullptr || !fit(frame, *picture, error))
      return false;
    // Strictly rising, whatever the input's time stamps do: the muxer takes nothing else.
    const AVRational tick = encoder_->time_base;
    lastTime_ = std::max(lastTime_ + 1, int64_t{std::llround(time * tick.den / tick.num)});
    picture->pts = lastTime_;
    ++frames_;
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(picture));
    changed_.notify_all();
    return true;
  }

  bool finish(std::string& error) override {
    const OutputLogScope scope;
    endThread();
    if (failed_) {
      error = failure_;
      return false;
    }
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
    // What comes out depends on their number, so it is the same on every machine.
    encoder_->thread_count = codec->id == AV_CODEC_ID_MPEG4 ? 1 : 4;
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
    return succeeded(avcodec_open2(encoder_.get(), codec, options.address()), error);
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

  /// A frame to be filled, once few enough wait for the encoder. Null if it fails, also if an
  /// earlier one couldn't be written.
  FrameHandle nextFrame(std::string& error) {
    constexpr size_t mostWaiting = 4;
    FrameHandle frame;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return failed_ || waiting_.size() < mostWaiting; });
      if (failed_) {
        error = failure_;
        return nullptr;
      }
      if (!used_.empty()) {
        frame = std::move(used_.back());
        used_.pop_back();
      }
    }
    int result = 0;
    if (frame != nullptr) {
      result = av_frame_make_writable(frame.get());  // the encoder may hold it yet
    } else if (frame.reset(av_frame_alloc()); frame != nullptr) {
      frame->format = encoder_->pix_fmt;
      frame->width = encoder_->width;
      frame->height = encoder_->height;
      result = av_frame_get_buffer(frame.get(), 0);
    } else {
      result = AVERROR(ENOMEM);
    }
    return succeeded(result, error) ? std::move(frame) : nullptr;
  }

  /// Brings the picture into the encoder's frame; a plain copy if the sizes agree.
  bool fit(const I420Frame& picture, AVFrame& frame, std::string& error) {
    scaler_.reset(sws_getCachedContext(scaler_.release(), picture.width(), picture.height(),
                                       AV_PIX_FMT_YUV420P, frame.width, frame.height,
                                       AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (scaler_ == nullptr) {
      error = "out of memory";
      return false;
    }
    return succeeded(scaleFrame(*scaler_, picture, frame), error);
  }

  /// What the thread does: encodes frames in their order until there will be no more, or one fails.
  void encodeWaiting() {
    const OutputLogScope scope;
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return ends_ || !waiting_.empty(); });
      if (waiting_.empty())
        return;
      FrameHandle frame = std::move(waiting_.front());
      waiting_.pop_front();
      changed_.notify_all();
      lock.unlock();
      std::string error;
      const bool encoded = encode(frame.get(), error);
      lock.lock();
      if (!encoded) {
        failed_ = true;
        failure_ = std::move(error);
        changed_.notify_all();
        return;
      }
      used_.push_back(std::move(frame));
    }
  }

  bool startThread(std::string& error) {
    try {
      thread_ = std::thread([this] { encodeWaiting(); });
    } catch (const std::system_error&) {
      error = "the system has no thread left for the encoder";
    }
    return thread_.joinable();
  }

  /// Once all that waits is encoded.
  void endThread() {
    {
      const std::lock_guard lock(mutex_);
      ends_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
      thread_.join();
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

  // While the thread runs, these are its own.
  AVFormatContext* muxer_ = nullptr;
  CodecHandle encoder_;
  PacketHandle packet_;
  StreamCopy copy_;

  // These are the caller's.
  ScalerHandle scaler_;
  int64_t lastTime_ = -1;
  int64_t frames_ = 0;
  int64_t mostFrames_ = 0;
  int64_t errorsBefore_ = 0;

  std::mutex mutex_;  ///< guards what follows, but for the thread
  std::condition_variable changed_;
  std::deque<FrameHandle> waiting_;  ///< for the encoder
  std::vector<FrameHandle> used_;    ///< to be filled again
  bool ends_ = false;
  bool failed_ = false;
  std::string failure_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error) {
  auto sink = std::make_unique<VideoSink>();
  return sink->open(path, format, error) ? std::move(sink) : nullptr;
}

}  // namespace tavro::host
