// A subtitle track in Advanced SubStation Alpha whose lines are drawings: a ring for each box,
// shown as long as the box stays where it is. Players show it beside the video, and libass draws it
// into one (ffmpeg -vf ass=FILE).

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "host/app/output/text_format.h"
#include "host/core/face_drawing.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

constexpr const char* heading =
    "[Script Info]\n"
    "Title: Faces\n"
    "ScriptType: v4.00+\n"
    "PlayResX: %d\n"
    "PlayResY: %d\n"
    "ScaledBorderAndShadow: yes\n"
    "YCbCr Matrix: None\n"
    "\n"
    "[V4+ Styles]\n"
    "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, BackColour, "
    "Bold, Italic, Underline, StrikeOut, ScaleX, ScaleY, Spacing, Angle, BorderStyle, Outline, "
    "Shadow, Alignment, MarginL, MarginR, MarginV, Encoding\n"
    "Style: "
    "Box,Sans,20,&H0000FF00,&H0000FF00,&H00000000,&H00000000,0,0,0,0,100,100,0,0,1,0,0,7,0,0,"
    "0,1\n"
    "\n"
    "[Events]\n"
    "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";

/// H:MM:SS.CC. Rounded down, from a little before the frame: the renderer rounds time stamps in its
/// own way, and a line must be there when it asks for the frame with which the line begins.
std::string clockTime(double seconds) {
  const auto hundredths =
      std::max<int64_t>(0, static_cast<int64_t>(std::floor((seconds - 0.001) * 100.0)));
  char text[64];
  std::snprintf(text, sizeof text, "%lld:%02d:%02d.%02d",
                static_cast<long long>(hundredths / 360000),
                static_cast<int>(hundredths / 6000 % 60), static_cast<int>(hundredths / 100 % 60),
                static_cast<int>(hundredths % 100));
  return text;
}

class AssSubtitles final : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string text;
    if (width_ == 0) {
      width_ = result.width;
      height_ = result.height;
      char first[1024];
      std::snprintf(first, sizeof first, heading, width_, height_);
      text = first;
    }
    std::vector<Line> now;
    for (size_t i = 0; i < result.faces.size(); ++i)
      now.push_back({result.faceNumbers[i], scaled(result.faces[i], result), result.time});
    for (const Line& line : shown_) {
      const auto same = std::find_if(now.begin(), now.end(), [&](const Line& other) {
        return other.face == line.face && other.box == line.box;
      });
      if (same != now.end())
        same->since = line.since;
      else
        text += dialogue(line, result.time);
    }
    shown_ = std::move(now);
    return text;
  }

  std::string end(double endTime) override {
    std::string text;
    for (const Line& line : shown_)
      text += dialogue(line, endTime);
    return text;
  }

 private:
  struct Line {
    int64_t face;
    FaceRect box;
    double since;
  };

  /// In the coordinates of the heading, if the size of the pictures has changed.
  FaceRect scaled(const FaceRect& face, const FrameResult& result) const {
    const auto fit = [](int32_t value, int32_t to, int32_t from) {
      return static_cast<int32_t>(int64_t{value} * to / from);
    };
    return {fit(face.left, width_, result.width), fit(face.top, height_, result.height),
            fit(face.right, width_, result.width), fit(face.bottom, height_, result.height)};
  }

  std::string dialogue(const Line& line, double until) const {
    const std::string from = clockTime(line.since);
    const std::string to = clockTime(until);
    const int64_t width = int64_t{line.box.right} - line.box.left;
    const int64_t height = int64_t{line.box.bottom} - line.box.top;
    if (from == to || until < line.since || width <= 0 || height <= 0)
      return {};
    const int64_t thickness = lineThickness(width_, height_);
    // The inner path runs the other way round, which makes it a hole.
    const auto path = [](std::initializer_list<std::pair<int64_t, int64_t>> corners) {
      std::string text;
      for (const auto& [x, y] : corners)
        text += (text.empty()                          ? "m "
                 : text.find('l') == std::string::npos ? " l "
                                                       : " ") +
                std::to_string(x) + ' ' + std::to_string(y);
      return text;
    };
    std::string drawing = path({{0, 0}, {width, 0}, {width, height}, {0, height}});
    const int64_t right = width - thickness;
    const int64_t bottom = height - thickness;
    if (right > thickness && bottom > thickness)
      drawing +=
          ' ' +
          path({{thickness, thickness}, {thickness, bottom}, {right, bottom}, {right, thickness}});
    return "Dialogue: 0," + from + ',' + to + ",Box,face " + std::to_string(line.face) +
           ",0,0,0,,{\\pos(" + std::to_string(line.box.left) + ',' + std::to_string(line.box.top) +
           ")\\p1}" + drawing + "{\\p0}\n";
  }

  int32_t width_ = 0;
  int32_t height_ = 0;
  std::vector<Line> shown_;
};

}  // namespace

std::unique_ptr<TextFormat> makeAssSubtitles() {
  return std::make_unique<AssSubtitles>();
}

}  // namespace tavro::host
