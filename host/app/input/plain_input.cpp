// Inputs that need no library: Y4M streams, raw I420 samples and PNG pictures.

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "host/app/input/video_input.h"
#include "host/app/platform/plain_media.h"
#include "host/app/platform/process.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

constexpr size_t longestHeader = 1024;
constexpr size_t largestPicture = size_t{1} << 30;
constexpr int64_t mostPixels = int64_t{1} << 32;
constexpr int pngFirstByte = 0x89;
constexpr int32_t unknownMatrix = 2;
constexpr int32_t bt601Matrix = 6;

struct StreamHeader {
  int32_t width = 0;
  int32_t height = 0;
  FrameRate frameRate = {};
};

/// The positive number that the whole text is; 0 if it is anything else.
int32_t positiveNumber(std::string_view text) {
  int32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value);
  return failure == std::errc() && rest == end && value > 0 ? value : 0;
}

/// Two positive numbers; both 0 if there is no separator, and each one that isn't such a number.
std::pair<int32_t, int32_t> numbersAround(std::string_view text, char separator) {
  const size_t at = text.find(separator);
  if (at == std::string_view::npos)
    return {0, 0};
  return {positiveNumber(text.substr(0, at)), positiveNumber(text.substr(at + 1))};
}

bool isPlain420(std::string_view sampling) {
  constexpr std::string_view known[] = {"420", "420jpeg", "420mpeg2", "420paldv"};
  return std::ranges::find(known, sampling) != std::end(known);
}

/// Reads a stream's first line, without its line ending. Empty if it isn't 8-bit 4:2:0 video in
/// limited range, with the reason in `error`.
std::optional<StreamHeader> parseY4mHeader(std::string_view line, std::string& error) {
  constexpr std::string_view magic = "YUV4MPEG2";
  if (!line.starts_with(magic)) {
    error = "isn't a Y4M stream";
    return std::nullopt;
  }
  StreamHeader header;
  std::string_view rest = line.substr(magic.size());
  while (!rest.empty()) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    if (word.empty())
      continue;
    const std::string_view value = word.substr(1);
    if (word[0] == 'W') {
      header.width = positiveNumber(value);
    } else if (word[0] == 'H') {
      header.height = positiveNumber(value);
    } else if (word[0] == 'F') {
      if (const auto [numerator, denominator] = numbersAround(value, ':');
          numerator > 0 && denominator > 0)
        header.frameRate = {numerator, denominator};
    } else if (word[0] == 'C' && !isPlain420(value)) {
      error = "has samples of the form " + std::string(value) + ", only 8-bit 4:2:0 can be read";
      return std::nullopt;
    } else if (word == "XCOLORRANGE=FULL") {
      error = "has full-range samples, only limited range can be read";
      return std::nullopt;
    }
  }
  if (header.width == 0 || header.height == 0) {
    error = "has no picture size in its header";
    return std::nullopt;
  }
  return header;
}

/// Reads the options of raw samples, which have no header: video_size=WxH, framerate=N or N/M,
/// pixel_format=yuv420p.
std::optional<StreamHeader> parseRawOptions(
    const std::vector<std::pair<std::string, std::string>>& options, std::string& error) {
  StreamHeader header;
  for (const auto& [key, value] : options) {
    if (key == "video_size") {
      std::tie(header.width, header.height) = numbersAround(value, 'x');
    } else if (key == "framerate") {
      const bool isWhole = positiveNumber(value) > 0;
      const auto [numerator, denominator] =
          isWhole ? std::pair{positiveNumber(value), 1} : numbersAround(value, '/');
      if (numerator == 0 || denominator == 0) {
        error = "isn't a frame rate: " + value;
        return std::nullopt;
      }
      header.frameRate = {numerator, denominator};
    } else if (key != "pixel_format") {
      error = "input format 'rawvideo' has no option '" + key + "'";
      return std::nullopt;
    } else if (value != "yuv420p") {
      error = "raw samples can be yuv420p only, not " + value;
      return std::nullopt;
    }
  }
  if (header.width == 0 || header.height == 0) {
    error = "raw samples need --input-option video_size=WIDTHxHEIGHT";
    return std::nullopt;
  }
  return header;
}

/// One line without its ending. Empty if the file ends within it or it is longer than any header.
std::optional<std::string> readLine(std::FILE* file) {
  std::string line;
  for (int byte = std::fgetc(file); byte != EOF && line.size() < longestHeader;
       byte = std::fgetc(file)) {
    if (byte == '\n')
      return line;
    line.push_back(static_cast<char>(byte));
  }
  return std::nullopt;
}

/// Frames one after the other; in a Y4M stream each follows a line of its own.
class StreamInput final : public VideoInput {
 public:
  /// The file is at the first frame; `size` is that of the whole file, 0 if unknown.
  StreamInput(StreamHandle file, const StreamHeader& header, bool isRaw, int64_t size,
              int64_t headerBytes)
      : file_(std::move(file)), isRaw_(isRaw) {
    frameRate_ = header.frameRate;
    if (int64_t{header.width} * header.height <= mostPixels)
      frame_ = I420Frame::allocate(header.width, header.height);
    if (!frame_.has_value())
      return;
    int64_t frameBytes = isRaw ? 0 : static_cast<int64_t>(std::strlen("FRAME\n"));
    for (int32_t plane = 0; plane < planeCount; ++plane)
      frameBytes += static_cast<int64_t>(planeBytes(plane));
    expectedFrames_ = std::max<int64_t>(size - headerBytes, 0) / frameBytes;
  }

  bool isReady() const { return frame_.has_value(); }

  bool read() override {
    picture_.reset();
    if (ended_ || isStopRequested() || !readFrame()) {
      ended_ = true;
      return false;
    }
    picture_ = I420Frame::borrow(frame_->width(), frame_->height(), frame_->planeData(0),
                                 frame_->planeStride(0), frame_->planeData(1), frame_->planeData(2),
                                 frame_->planeStride(1));
    ++index_;
    time_ = static_cast<double>(index_) / frameRate_.perSecond();
    return true;
  }

  int64_t expectedFrames() const override { return expectedFrames_; }
  int32_t colorMatrix() const override { return unknownMatrix; }

 private:
  size_t planeBytes(int32_t plane) const {
    return static_cast<size_t>(frame_->planeStride(plane)) *
           static_cast<size_t>(frame_->planeHeight(plane));
  }

  bool readFrame() {
    const int first = std::fgetc(file_.get());
    if (first == EOF) {
      if (std::ferror(file_.get()) != 0)
        damage_.noteUnreadablePacket();
      return false;
    }
    std::ungetc(first, file_.get());
    if (!isRaw_) {
      const auto line = readLine(file_.get());
      const bool isFrame = line.has_value() && line->starts_with("FRAME");
      if (!isFrame) {
        if (std::feof(file_.get()) != 0)
          damage_.noteCutOff();
        else
          damage_.noteUnreadablePacket();
        return false;
      }
    }
    for (int32_t plane = 0; plane < planeCount; ++plane)
      if (const size_t bytes = planeBytes(plane);
          std::fread(frame_->writablePlane(plane), 1, bytes, file_.get()) != bytes) {
        damage_.noteCutOff();
        return false;
      }
    return true;
  }

  StreamHandle file_;
  bool isRaw_;
  bool ended_ = false;
  std::optional<I420Frame> frame_;
  int64_t expectedFrames_ = 0;
};

/// The one picture of a file.
class PictureInput final : public VideoInput {
 public:
  explicit PictureInput(I420Frame picture) : frame_(std::move(picture)) {}

  bool read() override {
    picture_ = std::move(frame_);
    frame_.reset();
    index_ += picture_.has_value() ? 1 : 0;
    return picture_.has_value() && !isStopRequested();
  }
  int64_t expectedFrames() const override { return 1; }
  int32_t colorMatrix() const override { return bt601Matrix; }

 private:
  std::optional<I420Frame> frame_;
};

std::unique_ptr<VideoInput> openPicture(std::FILE* file, std::string& error) {
  std::vector<uint8_t> bytes;
  constexpr size_t piece = 65536;
  for (size_t read = piece; read == piece && bytes.size() < largestPicture;) {
    bytes.resize(bytes.size() + piece);
    read = std::fread(bytes.data() + bytes.size() - piece, 1, piece, file);
    bytes.resize(bytes.size() - piece + read);
  }
  auto picture = decodePng(bytes, error);
  return picture.has_value() ? std::make_unique<PictureInput>(std::move(*picture)) : nullptr;
}

std::unique_ptr<VideoInput> openStream(StreamHandle file, const InputRequest& request,
                                       std::string& error) {
  std::error_code failure;
  const auto size = std::filesystem::file_size(pathFromUtf8(request.path), failure);
  const int64_t fileBytes = failure ? 0 : static_cast<int64_t>(size);
  const bool isRaw = request.format == "rawvideo";
  std::optional<StreamHeader> header;
  int64_t headerBytes = 0;
  if (isRaw) {
    header = parseRawOptions(request.options, error);
  } else {
    const std::string line = readLine(file.get()).value_or("");
    header = parseY4mHeader(line, error);
    headerBytes = static_cast<int64_t>(line.size()) + 1;
  }
  if (!header.has_value())
    return nullptr;
  auto input =
      std::make_unique<StreamInput>(std::move(file), *header, isRaw, fileBytes, headerBytes);
  if (input->isReady())
    return input;
  error = "its pictures are too large";
  return nullptr;
}

}  // namespace

std::unique_ptr<VideoInput> VideoInput::open(const InputRequest& request, std::string& error) {
  const bool isKnown = request.format.empty() || request.format == "rawvideo" ||
                       request.format == "yuv4mpegpipe" || request.format == "png";
  if (!isKnown) {
    error = "unknown input format '" + request.format + "': there are yuv4mpegpipe, rawvideo, png";
    return nullptr;
  }
  if (request.format != "rawvideo" && !request.options.empty()) {
    error = "only the input format rawvideo has options";
    return nullptr;
  }
  StreamHandle file(request.path == "-" ? binaryStandardInput() : openFile(request.path, "rb"));
  if (file == nullptr) {
    error = std::strerror(errno);
    return nullptr;
  }
  if (request.format == "rawvideo" || request.format == "yuv4mpegpipe")
    return openStream(std::move(file), request, error);
  const int first = std::fgetc(file.get());
  std::ungetc(first, file.get());
  if (first == pngFirstByte || request.format == "png")
    return openPicture(file.get(), error);
  if (first == 'Y')
    return openStream(std::move(file), request, error);
  error =
      "can't be read: this build knows Y4M, raw I420 and PNG. Other video can come through a pipe, "
      "see tavro-fd --help";
  return nullptr;
}

}  // namespace tavro::host
