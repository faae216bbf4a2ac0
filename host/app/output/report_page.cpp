#include "host/app/output/report_page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "host/app/output/text_format.h"
#include "host/app/statistics.h"

namespace tavro::host {

namespace {

// Drawings are this many units wide, whatever the window.
constexpr double width = 960.0;
constexpr double left = 64.0;
constexpr double right = 32.0;  // half of the last time, whose middle is at the edge

constexpr const char* style = R"(<style>
:root { color-scheme: light dark; --ink: #1b1f24; --dim: #57606a; --paper: #ffffff; --line: #d0d7de;
  --bar: #1f6f43; --soft: #9ccfb2; --card: #f6f8fa; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6edf3; --dim: #9aa5b1; --paper: #0f1419;
  --line: #30363d; --bar: #5fc98f; --soft: #2b5d43; --card: #1a2028; } }
body { margin: 0 auto; max-width: 62rem; padding: 1.5rem; font: 1rem/1.5 system-ui, sans-serif;
  color: var(--ink); background: var(--paper); }
h1 { font-size: 1.6rem; overflow-wrap: anywhere; } h2 { font-size: 1.2rem; margin-top: 2rem; }
dl { display: flex; flex-wrap: wrap; gap: 1rem 2.5rem; margin: 0; }
dt { color: var(--dim); font-size: .9rem; } dd { margin: 0; font-size: 1.2rem; }
ul { display: grid; grid-template-columns: repeat(auto-fill, minmax(10rem, 1fr)); gap: 1rem;
  padding: 0; list-style: none; }
li { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; padding: .75rem; }
li img { display: block; width: 100%; aspect-ratio: 1; object-fit: contain; border-radius: .25rem; }
li b { display: block; margin-top: .5rem; } li span { color: var(--dim); font-size: .9rem; }
svg { display: block; width: 100%; height: auto; } svg text { fill: var(--dim); font-size: 13px; }
.grid { stroke: var(--line); } .bar { fill: var(--bar); } .most { fill: var(--soft); }
.median { fill: none; stroke: var(--bar); stroke-width: 2; } p { color: var(--dim); }
</style>)";

std::string fixed(double value, int decimals) {
  char text[400];
  std::snprintf(text, sizeof text, "%.*f", decimals, std::isfinite(value) ? value : 0.0);
  return text;
}

/// 1:02.5
std::string clockTime(double seconds) {
  const auto tenths = static_cast<int64_t>(std::llround(std::clamp(seconds, 0.0, 1e9) * 10.0));
  char text[64];
  std::snprintf(text, sizeof text, "%lld:%02d.%d", static_cast<long long>(tenths / 600),
                static_cast<int>(tenths / 10 % 60), static_cast<int>(tenths % 10));
  return text;
}

/// A step of 1, 2 or 5 times a power of ten, about five of which make up the range.
double niceStep(double range) {
  const double rough = std::max(range, 1e-6) / 5.0;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0})
    if (factor * power >= rough)
      return factor * power;
  return 10.0 * power;
}

class Drawing {
 public:
  Drawing(double height, double endTime, const std::string& name, const std::string& description)
      : height_(height), endTime_(std::max(endTime, 1e-3)) {
    svg_ = "<svg role=\"img\" aria-label=\"" + name + ". " + description + "\" viewBox=\"0 0 " +
           fixed(width, 0) + ' ' + fixed(height, 0) + "\">\n";
    const double step = std::max(0.1, niceStep(endTime_));  // the last digit of a time
    for (double time = 0.0; time <= endTime_ * 1.0001; time += step) {
      path("grid", 'M' + fixed(x(time), 1) + " 4V" + fixed(height - 24.0, 1));
      text(x(time), height - 6.0, "middle", clockTime(time));
    }
  }

  double x(double time) const {
    return left + (width - left - right) * std::clamp(time / endTime_, 0.0, 1.0);
  }
  double bottom() const { return height_ - 24.0; }
  void path(const char* kind, const std::string& way) {
    svg_ += "<path class=\"" + std::string(kind) + "\" d=\"" + way + "\"/>\n";
  }
  void text(double x, double y, const char* anchor, const std::string& words) {
    svg_ += "<text x=\"" + fixed(x, 1) + "\" y=\"" + fixed(y, 1) + "\" text-anchor=\"" + anchor +
            "\">" + words + "</text>\n";
  }
  void bar(double from, double to, double y, double thickness) {
    svg_ += "<rect class=\"bar\" rx=\"3\" x=\"" + fixed(from, 1) + "\" y=\"" + fixed(y, 1) +
            "\" width=\"" + fixed(std::max(2.0, to - from), 1) + "\" height=\"" +
            fixed(thickness, 1) + "\"/>\n";
  }
  std::string finished() const { return svg_ + "</svg>\n"; }

 private:
  double height_;
  double endTime_;
  std::string svg_;
};

std::string timeline(const ReportData& data) {
  constexpr double row = 22.0;
  Drawing drawing(row * static_cast<double>(data.presence.size()) + 32.0, data.endTime,
                  "When each face is seen", "The list of faces below has the same times as text.");
  double y = 6.0;
  for (const auto& [number, spans] : data.presence) {
    drawing.text(left - 8.0, y + 13.0, "end", std::to_string(number));
    for (const Span& span : spans)
      drawing.bar(drawing.x(span.from), drawing.x(span.to), y + 2.0, row - 8.0);
    y += row;
  }
  return drawing.finished();
}

std::string cards(const ReportData& data) {
  std::string html = "<ul>\n";
  for (const auto& [number, story] : data.faces) {
    const std::string name = "Face " + std::to_string(number);
    html += "<li>";
    if (!story.jpeg.empty())
      html += "<img alt=\"" + name + " at " + clockTime(story.bestTime) +
              "\" src=\"data:image/jpeg;base64," + base64(story.jpeg) + "\">";
    html += "<b>" + name + "</b><span>" + clockTime(story.firstSeen) + " to " +
            clockTime(story.lastSeen) + ", " + counted(story.frames, "frame") + "</span></li>\n";
  }
  return html + "</ul>\n";
}

/// The longest and the median time of as many groups of frames as the drawing has columns for.
std::string frameTimes(const ReportData& data) {
  const std::vector<double>& times = data.milliseconds;
  const TimingSummary summary = summarize(times);
  // What is far beyond the rest would leave a flat line of it.
  const double ceiling = std::max(1e-3, std::min(summary.maximum, 4.0 * summary.p99));
  Drawing drawing(240.0, data.endTime, "Milliseconds per frame",
                  "Median " + fixed(summary.median, 2) + ", 99th percentile " +
                      fixed(summary.p99, 2) + ", longest " + fixed(summary.maximum, 2) + ".");
  const auto y = [&](double value) {
    return drawing.bottom() - (drawing.bottom() - 12.0) * std::min(1.0, value / ceiling);
  };
  for (double value = 0.0; value <= ceiling; value += niceStep(ceiling)) {
    drawing.path("grid",
                 'M' + fixed(left, 0) + ' ' + fixed(y(value), 1) + 'H' + fixed(width - right, 0));
    drawing.text(left - 8.0, y(value) + 4.0, "end", decimal(value, 3));
  }
  const size_t columns = std::min<size_t>(times.size(), 400);
  std::string most = 'M' + fixed(left, 1) + ' ' + fixed(drawing.bottom(), 1);
  std::string median;
  for (size_t column = 0; column < columns; ++column) {
    const auto begin = times.begin() + static_cast<ptrdiff_t>(column * times.size() / columns);
    const auto end = times.begin() + static_cast<ptrdiff_t>((column + 1) * times.size() / columns);
    const TimingSummary group = summarize({begin, end});
    const auto edge = [&](size_t index) {
      return fixed(
          drawing.x(data.endTime * static_cast<double>(index) / static_cast<double>(columns)), 1);
    };
    for (const size_t index : {column, column + 1}) {
      most += 'L' + edge(index) + ' ' + fixed(y(group.maximum), 1);
      median += (median.empty() ? 'M' : 'L') + edge(index) + ' ' + fixed(y(group.median), 1);
    }
  }
  drawing.path("most", most + 'V' + fixed(drawing.bottom(), 1) + 'Z');
  drawing.path("median", median);
  return drawing.finished();
}

std::string figure(const char* name, const std::string& value) {
  return "<div><dt>" + std::string(name) + "</dt><dd>" + value + "</dd></div>\n";
}

}  // namespace

std::string escapedForHtml(const std::string& text) {
  constexpr std::pair<char, const char*> entities[] = {
      {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
  std::string escaped;
  for (const char letter : text) {
    const auto* entity = std::ranges::find(entities, letter, &std::pair<char, const char*>::first);
    if (entity != std::end(entities))
      escaped += entity->second;
    else
      escaped += letter;
  }
  return escaped;
}

std::string base64(const std::vector<uint8_t>& bytes) {
  constexpr const char* letters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t count = std::min<size_t>(3, bytes.size() - i);
    uint32_t group = 0;
    for (size_t j = 0; j < 3; ++j)
      group = group << 8 | (j < count ? bytes[i + j] : 0U);
    for (size_t j = 0; j < 4; ++j)
      text += j <= count ? letters[group >> (18 - 6 * j) & 63U] : '=';
  }
  return text;
}

std::string reportPage(const ReportData& data) {
  const TimingSummary timing = summarize(data.milliseconds);
  const std::string title = "Faces in " + escapedForHtml(data.input);
  std::string page =
      "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
      "style-src 'unsafe-inline'\">\n<title>" +
      title + "</title>\n" + style + "\n</head>\n<body>\n<main>\n<h1>" + title + "</h1>\n<dl>\n" +
      figure("Faces", std::to_string(data.faces.size())) +
      figure("Length", clockTime(data.endTime)) +
      figure("Picture", std::to_string(data.width) + " &times; " + std::to_string(data.height)) +
      figure("Frames analysed", std::to_string(data.milliseconds.size())) +
      figure("Time per frame", fixed(timing.median, 2) + " ms") +
      figure("99 % of the frames within", fixed(timing.p99, 2) + " ms") + "</dl>\n";
  if (data.faces.empty())
    page += "<p>No face was found.</p>\n";
  else
    page += "<h2>When each face is seen</h2>\n" + timeline(data) + "<h2>The faces</h2>\n" +
            cards(data) +
            "<p>A face keeps its number as long as its rectangles overlap from frame to frame. Who "
            "leaves and comes back has a new one.</p>\n";
  return page + "<h2>Milliseconds per frame</h2>\n" + frameTimes(data) +
         "<p>The line is the median, the area reaches to the longest.</p>\n</main>\n</body>\n"
         "</html>\n";
}

}  // namespace tavro::host
