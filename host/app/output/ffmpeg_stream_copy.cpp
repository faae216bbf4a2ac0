#include "host/app/output/ffmpeg_stream_copy.h"

extern "C" {
#include <libavutil/mem.h>
}

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

/// What the container says of itself rather than of the video.
constexpr const char* ownEntries[] = {"major_brand", "minor_version", "compatible_brands",
                                      "encoder"};

void copyEntries(AVDictionary** target, const AVDictionary* source) {
  av_dict_copy(target, source, 0);
  for (const char* entry : ownEntries)
    av_dict_set(target, entry, nullptr, 0);
}

/// As far as there is memory.
void copyChapters(const AVFormatContext& source, AVFormatContext& target) {
  if (source.nb_chapters == 0)
    return;
  target.chapters = static_cast<AVChapter**>(av_calloc(source.nb_chapters, sizeof(void*)));
  for (unsigned i = 0; target.chapters != nullptr && i < source.nb_chapters; ++i) {
    auto* chapter = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
    if (chapter == nullptr)
      return;
    const AVChapter& original = *source.chapters[i];
    const int64_t start =
        av_rescale_q(startOf(source), AVRational{1, AV_TIME_BASE}, original.time_base);
    chapter->id = original.id;
    chapter->time_base = original.time_base;
    chapter->start = original.start - start;
    chapter->end = original.end - start;
    copyEntries(&chapter->metadata, original.metadata);
    target.chapters[target.nb_chapters++] = chapter;
  }
}

/// The stream's four letters where the container of the target takes them for the same codec; else
/// 0, so that the muxer chooses.
uint32_t keptTag(const AVCodecParameters& codec, const AVOutputFormat& format) {
  unsigned tag = 0;
  if (format.codec_tag == nullptr ||
      av_codec_get_id(format.codec_tag, codec.codec_tag) == codec.codec_id ||
      av_codec_get_tag2(format.codec_tag, codec.codec_id, &tag) == 0)
    return codec.codec_tag;
  return 0;
}

}  // namespace

void StreamCopy::open(const SinkFormat& format, bool withStreams, AVFormatContext& target) {
  const InputRequest& source = *format.source;
  source_ = source.path;
  omissions_.clear();
  const std::string url = "file:";
  std::error_code ignored;
  const std::string file =
      source.path.starts_with(url) ? source.path.substr(url.size()) : source.path;
  if (!std::filesystem::is_regular_file(pathFromUtf8(file), ignored)) {
    if (format.otherStreams > 0)
      omissions_.emplace_back("sound and other streams are left out: only a file's are copied");
    return;
  }
  std::string error;
  packet_.reset(av_packet_alloc());
  demuxer_ = openDemuxer(source, false, error);
  if (packet_ == nullptr || demuxer_ == nullptr) {
    demuxer_.reset();
    omissions_.push_back("no sound can be copied: " + (error.empty() ? "out of memory" : error));
    return;
  }
  copyEntries(&target.metadata, demuxer_->metadata);
  copyChapters(*demuxer_, target);
  const int shown = av_find_best_stream(demuxer_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  bool copiesAny = false;
  routes_.assign(demuxer_->nb_streams, {});
  for (unsigned i = 0; i < demuxer_->nb_streams; ++i) {
    AVStream& stream = *demuxer_->streams[i];
    const char* obstacle = nullptr;
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && format.hidesFaces)
      obstacle = "it may show faces";
    else if (!withStreams || avformat_query_codec(target.oformat, stream.codecpar->codec_id,
                                                  FF_COMPLIANCE_NORMAL) != 1)
      obstacle = "this container can't hold it";
    if (static_cast<int>(i) == shown) {
      copyEntries(&target.streams[0]->metadata, stream.metadata);
      target.streams[0]->disposition = stream.disposition;
    } else if (stream.codecpar->codec_id == AV_CODEC_ID_BIN_DATA && demuxer_->nb_chapters > 0) {
      // MP4 keeps the chapters' titles in a stream, and the muxer writes one itself.
    } else if (addStream(stream, obstacle, target)) {
      routes_[i].target = static_cast<int>(target.nb_streams) - 1;
      copiesAny = true;
      continue;
    }
    stream.discard = AVDISCARD_ALL;
  }
  if (!copiesAny)
    demuxer_.reset();
}

/// Null for `obstacle`: nothing stands against it.
bool StreamCopy::addStream(AVStream& stream, const char* obstacle, AVFormatContext& target) {
  const AVCodecParameters& codec = *stream.codecpar;
  AVStream* added = obstacle == nullptr ? avformat_new_stream(&target, nullptr) : nullptr;
  if (added == nullptr || avcodec_parameters_copy(added->codecpar, &codec) < 0) {
    omissions_.push_back(nameOf(static_cast<unsigned>(stream.index)) +
                         " is left out: " + (obstacle != nullptr ? obstacle : "out of memory"));
    return false;
  }
  added->codecpar->codec_tag = keptTag(codec, *target.oformat);
  added->time_base = stream.time_base;
  added->avg_frame_rate = stream.avg_frame_rate;
  added->sample_aspect_ratio = stream.sample_aspect_ratio;
  added->disposition = stream.disposition;
  copyEntries(&added->metadata, stream.metadata);
  return true;
}

bool StreamCopy::writeUntil(double seconds, AVFormatContext& target, int& failure) {
  while (demuxer_ != nullptr) {
    if (!hasPacket_ && av_read_frame(demuxer_.get(), packet_.get()) < 0) {
      demuxer_.reset();  // a cut off file has been told of by who decodes it
      break;
    }
    hasPacket_ = true;
    const auto index = static_cast<size_t>(packet_->stream_index);
    if (index < routes_.size() && routes_[index].target >= 0) {
      const int64_t time = packet_->dts != AV_NOPTS_VALUE ? packet_->dts : packet_->pts;
      const AVRational tick = demuxer_->streams[index]->time_base;
      if (time != AV_NOPTS_VALUE && static_cast<double>(time) * av_q2d(tick) -
                                            static_cast<double>(startOf(*demuxer_)) / AV_TIME_BASE >
                                        seconds)
        return true;
      if (!write(target, failure))
        return false;
    }
    av_packet_unref(packet_.get());
    hasPacket_ = false;
  }
  return true;
}

/// Writes the packet. False if the file itself can't be written.
bool StreamCopy::write(AVFormatContext& target, int& failure) {
  Route& route = routes_[static_cast<size_t>(packet_->stream_index)];
  const AVRational from = demuxer_->streams[packet_->stream_index]->time_base;
  const AVRational to = target.streams[route.target]->time_base;
  const int64_t start = av_rescale_q(startOf(*demuxer_), AVRational{1, AV_TIME_BASE}, from);
  if (packet_->pts != AV_NOPTS_VALUE)
    packet_->pts -= start;
  if (packet_->dts != AV_NOPTS_VALUE)
    packet_->dts -= start;
  av_packet_rescale_ts(packet_.get(), from, to);
  packet_->stream_index = route.target;
  packet_->pos = -1;
  // Containers want times that rise.
  if (packet_->dts == AV_NOPTS_VALUE ||
      (route.latest != AV_NOPTS_VALUE && packet_->dts < route.latest)) {
    ++route.refused;
    return true;
  }
  route.latest = packet_->dts;
  const int result = av_interleaved_write_frame(&target, packet_.get());
  if (result >= 0)
    return true;
  failure = result;
  if (result != AVERROR(EINVAL) && result != AVERROR_INVALIDDATA)
    return false;
  ++route.refused;
  return true;
}

void StreamCopy::warnOfOmissions() const {
  for (const std::string& omission : omissions_)
    std::fprintf(stderr, "tavro-fd: warning: %s: %s\n", source_.c_str(), omission.c_str());
}

void StreamCopy::warnOfLosses() const {
  for (unsigned i = 0; i < routes_.size(); ++i)
    if (routes_[i].refused != 0)
      std::fprintf(stderr, "tavro-fd: warning: %s: %lld packets of stream %u couldn't be copied\n",
                   source_.c_str(), static_cast<long long>(routes_[i].refused), i);
}

/// Such as "stream 2 (subtitle, subrip)".
std::string StreamCopy::nameOf(unsigned index) const {
  const AVCodecParameters& codec = *demuxer_->streams[index]->codecpar;
  const char* kind = av_get_media_type_string(codec.codec_type);
  return "stream " + std::to_string(index) + " (" + (kind != nullptr ? kind : "unknown") + ", " +
         avcodec_get_name(codec.codec_id) + ")";
}

}  // namespace tavro::host
