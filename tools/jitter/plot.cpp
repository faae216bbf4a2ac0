#include "tools/jitter/plot.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <functional>

namespace tavro::jitter {

namespace {

constexpr double width = 960.0;
constexpr double height = 280.0;  // of one panel
constexpr double left = 60.0;
constexpr double top = 44.0;

struct Line {
  const char* name;
  const char* style;
  std::map<size_t, FaceRect> places;
};

struct Panel {
  const char* title;
  std::function<double(const FaceRect&)> value;
};

std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

/// The face that is seen in most frames.
std::map<size_t, FaceRect> longest(std::span<const Sighting> sightings) {
  std::map<size_t, FaceRect> most;
  for (auto& [number, places] : follow(sightings))
    if (places.size() > most.size())
      most = places;
  return most;
}

std::string draw(const Panel& panel, std::span<const Line> lines, double y, double lastFrame) {
  double least = 1e9;
  double most = -1e9;
  for (const Line& line : lines)
    for (const auto& [frame, face] : line.places) {
      least = std::min(least, panel.value(face));
      most = std::max(most, panel.value(face));
    }
  if (most < least)
    return {};
  const double range = std::max(1.0, most - least);
  const double bottom = y + height - 30.0;
  const auto placeX = [&](double frame) {
    return left + (width - left - 20.0) * frame / std::max(1.0, lastFrame);
  };
  const auto placeY = [&](double value) {
    return bottom - (bottom - y - top) * (value - least) / range;
  };
  std::string svg = formatted("<text x='%.0f' y='%.0f' font-weight='bold'>%s</text>\n", left,
                              y + 18.0, panel.title);
  for (const double value : {least, least + range / 2.0, least + range})
    svg += formatted(
        "<path d='M%.0f %.1fH%.0f' stroke='#ddd'/><text x='%.0f' y='%.1f' "
        "text-anchor='end'>%.0f</text>\n",
        left, placeY(value), width - 20.0, left - 6.0, placeY(value) + 4.0, value);
  for (const Line& line : lines) {
    svg += formatted("<path fill='none' %s d='", line.style);
    size_t previous = 0;
    for (const auto& [frame, face] : line.places) {
      const bool goesOn = frame != line.places.begin()->first && frame == previous + 1;
      svg += formatted("%c%.1f %.1f", goesOn ? 'L' : 'M', placeX(static_cast<double>(frame)),
                       placeY(panel.value(face)));
      previous = frame;
    }
    svg += "'/>\n";
  }
  return svg;
}

}  // namespace

std::string plot(std::span<const Sighting> raw, std::span<const Sighting> tracked,
                 std::span<const FaceRect> truth) {
  std::map<size_t, FaceRect> known;
  for (size_t frame = 0; frame < truth.size(); ++frame)
    known[frame] = truth[frame];
  std::vector<Line> lines;
  if (!known.empty())
    lines.push_back({"truth", "stroke='#2ca02c' stroke-width='3' stroke-opacity='0.5'", known});
  lines.push_back({"raw", "stroke='#999'", longest(raw)});
  lines.push_back({"tracked", "stroke='#1f4e9c' stroke-width='1.8'", longest(tracked)});
  const Panel panels[] = {
      {"Centre, pixels from the left, by frame",
       [](const FaceRect& face) { return centre(face).x; }},
      {"Size, pixels, by frame", &sizeOf},
  };
  std::string svg = formatted(
      "<svg xmlns='http://www.w3.org/2000/svg' width='%.0f' height='%.0f' font-family='sans-serif' "
      "font-size='12'>\n<rect width='100%%' height='100%%' fill='white'/>\n",
      width, 2.0 * height);
  double x = width - 20.0;
  for (const Line& line : lines) {
    x -= 90.0;
    svg += formatted("<path d='M%.0f 14h24' %s/><text x='%.0f' y='18'>%s</text>\n", x, line.style,
                     x + 28.0, line.name);
  }
  double y = 0.0;
  for (const Panel& panel : panels) {
    svg += draw(panel, lines, y, static_cast<double>(raw.size()));
    y += height;
  }
  return svg + "</svg>\n";
}

}  // namespace tavro::jitter
