// Filter scripts for FFmpeg's own command line: a sendcmd filter, whose commands move boxes from
// frame to frame, and after it one drawbox filter for each face that is there at a time. Drawn
// into the picture the boxes are frames; drawn into a mask they choose what is taken from a
// pixelated copy of the picture.

#include <algorithm>
#include <optional>
#include <vector>

#include "host/app/output/text_format.h"
#include "host/core/face_drawing.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// FFmpeg's clock and this program's may round differently.
constexpr double lead = 0.0005;

/// The part of the script that the two forms have in common.
class FilterScript : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string commands;
    for (size_t place = 0; place < places_.size(); ++place)
      if (places_[place].has_value() && !isCovered(places_[place]->face, result)) {
        places_[place].reset();
        commands += command(place, "enable", 0);
      }
    for (size_t i = 0; i < result.faces.size(); ++i)
      commands += put(result.faceNumbers[i], boxOf(result.faces[i]));
    if (commands.empty())
      return {};
    // FFmpeg refuses a sendcmd without commands, so a clip without faces gets none.
    std::string text;
    if (!begun_)
      text = before(result.width, result.height) + "sendcmd=c='\n";
    begun_ = true;
    return text + timed(result.time, commands);
  }

  std::string end(double endTime) override {
    if (!begun_)
      return "null\n";
    std::string commands;
    for (size_t place = 0; place < places_.size(); ++place)
      if (places_[place].has_value())
        commands += command(place, "enable", 0);
    std::string text = timed(endTime, commands) + "'";
    for (size_t place = 0; place < places_.size(); ++place)
      text += ",drawbox@face" + std::to_string(place) + "=enable=0:" + style();
    return text + after() + '\n';
  }

 protected:
  virtual std::string before(int32_t width, int32_t height) = 0;
  virtual std::string style() const = 0;
  virtual std::string after() const { return {}; }
  virtual FaceRect boxOf(const FaceRect& face) const { return face; }
  /// Whether a face that was lost a moment ago keeps its box.
  virtual bool coversLost() const { return false; }

 private:
  struct Place {
    int64_t face;
    FaceRect box;
  };

  bool isCovered(int64_t face, const FrameResult& result) const {
    return std::ranges::find(result.faceNumbers, face) != result.faceNumbers.end() ||
           (coversLost() &&
            std::ranges::find(result.lost, face, &FaceNumbers::Lost::number) != result.lost.end());
  }

  static std::string command(size_t place, const char* name, int64_t value) {
    return " drawbox@face" + std::to_string(place) + ' ' + name + ' ' + std::to_string(value) + ',';
  }

  static std::string timed(double time, std::string commands) {
    if (commands.empty())
      return {};
    commands.back() = ';';
    return decimal(std::max(0.0, time - lead)) + commands + '\n';
  }

  /// Moves the face's box, or takes the first free one for it.
  std::string put(int64_t face, const FaceRect& box) {
    auto place = std::find_if(places_.begin(), places_.end(),
                              [&](const auto& held) { return held && held->face == face; });
    const bool isNew = place == places_.end();
    if (!isNew && (*place)->box == box)
      return {};
    if (isNew)
      place = std::find(places_.begin(), places_.end(), std::nullopt);
    if (place == places_.end())
      place = places_.insert(place, std::nullopt);
    *place = {.face = face, .box = box};
    const auto index = static_cast<size_t>(place - places_.begin());
    // A width or height of 0 would mean that of the picture.
    const int64_t width = std::max<int64_t>(1, int64_t{box.right} - box.left);
    const int64_t height = std::max<int64_t>(1, int64_t{box.bottom} - box.top);
    return command(index, "x", box.left) + command(index, "y", box.top) +
           command(index, "w", width) + command(index, "h", height) +
           (isNew ? command(index, "enable", 1) : "");
  }

  bool begun_ = false;
  std::vector<std::optional<Place>> places_;
};

class DrawFilter final : public FilterScript {
  std::string before(int32_t width, int32_t height) override {
    thickness_ = lineThickness(width, height);
    return {};
  }
  std::string style() const override { return "color=lime:t=" + std::to_string(thickness_); }

  int64_t thickness_ = 0;
};

class BlurFilter final : public FilterScript {
  /// Full chroma resolution, since the mask's planes and the picture's must be of one size.
  std::string before(int32_t width, int32_t height) override {
    const std::string block = std::to_string(std::max(2, std::min(width, height) / 12));
    return "format=gbrp,split=3[sharp][copy][plain];[copy]pixelize=w=" + block + ":h=" + block +
           "[coarse];[plain]drawbox=color=black:t=fill,";
  }
  std::string style() const override { return "color=white:t=fill"; }
  std::string after() const override {
    return "[mask];[sharp][coarse][mask]maskedmerge,format=yuv420p";
  }
  FaceRect boxOf(const FaceRect& face) const override { return withMargin(face); }
  bool coversLost() const override { return true; }
};

}  // namespace

std::unique_ptr<TextFormat> makeDrawFilter() {
  return std::make_unique<DrawFilter>();
}

std::unique_ptr<TextFormat> makeBlurFilter() {
  return std::make_unique<BlurFilter>();
}

}  // namespace tavro::host
