// Inputs that need no library: Y4M streams, raw I420 samples and PNG pictures.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "host/app/plain/picture_file.h"
#include "host/app/plain/stream_header.h"
#include "host/app/process.h"
#include "host/app/stop_request.h"
#include "host/app/video_input.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

constexpr size_t longestHeader = 1024;
constexpr size_t largestPicture = size_t{1} << 30;
constexpr int64_t mostPixels = int64_t{1} << 32;
constexpr int pngFirstByte = 0x89;
constexpr int32_t unknownMatrix = 2;
constexpr int32_t bt601Matrix = 6;

/// One line without its ending. Nothing if the file ends within it or it is longer than any header.
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

/// Frames one after the other, each behind a line of its own in a Y4M stream.
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
