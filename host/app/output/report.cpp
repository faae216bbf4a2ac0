// --report: gathers what is known about the faces, and fills the page of report_template.h with it.
// Bars and marks are boxes at so many percent of the page's width; only the times per frame are a
// drawing, in units of its own: each column is 1 wide, and the highest value is 1.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <map>
#include <utility>

#include "host/app/input/stream_damage.h"
#include "host/app/output/best_faces.h"
#include "host/app/output/frame_output.h"
#include "host/app/output/report_template.h"
#include "host/app/output/review.h"
#include "host/app/output/text_format.h"
#include "host/app/platform/target_file.h"
#include "host/app/search/statistics.h"

namespace tavro::host {

namespace {

constexpr int32_t thumbnailSide = 240;

struct Span {
  double from = 0.0;  ///< seconds
  double to = 0.0;
};

struct ReportData {
  std::string input;
  int32_t width = 0;
  int32_t height = 0;
  double endTime = 0.0;              ///< seconds
  std::vector<double> milliseconds;  ///< of each analysed frame
  std::map<int64_t, FaceStory> faces;
  std::map<int64_t, std::vector<Span>> presence;  ///< of each face, in the order of time
  std::string command;                            ///< that hides the faces; empty: none does
  std::vector<Moment> moments;                    ///< worth a look, where faces are hidden
};

/// Text as it stands in HTML, in attributes too.
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

/// How much of the whole a part is, in percent.
std::string percent(double part, double whole) {
  return fixed(100.0 * std::clamp(part / std::max(whole, 1e-3), 0.0, 1.0), 2) + '%';
}

/// Upright lines over a chart, with the time below each.
std::string timeMarks(double endTime) {
  const double step = std::max(0.1, niceStep(endTime));  // the last digit of a time
  std::string html;
  for (double time = 0.0; time <= endTime * 1.0001; time += step)
    html += "<i class=\"time\" style=\"left:" + percent(time, endTime) + "\"><span>" +
            clockTime(time) + "</span></i>\n";
  return html;
}

std::string timeline(const ReportData& data) {
  std::string html = timeMarks(data.endTime);
  for (const auto& [number, spans] : data.presence) {
    html += "<div class=\"row\"><b>" + std::to_string(number) + "</b>";
    for (const Span& span : spans)
      html += "<i class=\"bar\" style=\"left:" + percent(span.from, data.endTime) +
              ";width:" + percent(span.to - span.from, data.endTime) + "\"></i>";
    html += "</div>\n";
  }
  return html;
}

std::string picture(const std::vector<uint8_t>& jpeg, const std::string& text) {
  if (jpeg.empty())
    return {};
  return "<img alt=\"" + text + "\" src=\"data:image/jpeg;base64," + base64(jpeg) + "\">";
}

std::string cards(const ReportData& data) {
  std::string html;
  for (const auto& [number, story] : data.faces) {
    const std::string name = "Face " + std::to_string(number);
    html += "<li>";
    html += picture(story.jpeg, name + " at " + clockTime(story.bestTime));
    html += "<b>" + name + "</b><span>" + clockTime(story.firstSeen) + " to " +
            clockTime(story.lastSeen) + ", " + counted(story.frames, "frame") + "</span></li>\n";
  }
  return html;
}

std::string faceSections(const ReportData& data) {
  if (data.faces.empty())
    return "<p>No face was found.</p>\n";
  return "<h2>When each face is seen</h2>\n"
         "<div class=\"chart\" role=\"img\" aria-label=\"When each face is seen. The list of faces "
         "below has the same times as text.\">\n" +
         timeline(data) + "</div>\n<h2>The faces</h2>\n<ul>\n" + cards(data) +
         "</ul>\n<p>A face keeps its number as long as its rectangles overlap from frame to frame. "
         "If it leaves and comes back, it has a new one.</p>\n";
}

std::string momentSection(const ReportData& data) {
  if (data.command.empty())
    return {};
  std::string html = "<h2>Moments worth a look</h2>\n";
  if (data.moments.empty())
    return html +
           "<p>None is known. A face that is never found shows all the same: look through "
           "the video.</p>\n";
  html += "<p>Where a face shows, add the option below to the command, which was</p>\n<pre>" +
          escapedForHtml(data.command) + "</pre>\n<ol>\n";
  for (const Moment& moment : data.moments)
    html += "<li><b>" + clockTime(moment.time) + "</b><span>" + escapedForHtml(moment.what) +
            "</span><code>" + moment.mend + "</code>" +
            picture(moment.jpeg, "The place at " + clockTime(moment.time)) + "</li>\n";
  return html +
         "</ol>\n<p>A face that is never found isn't in this list: look through the "
         "video.</p>\n";
}

/// The longest and the median time of as many groups of frames as the drawing has columns for.
std::string frameTimes(const ReportData& data, const TimingSummary& summary) {
  // If the longest is far beyond the rest, the rest would be a flat line.
  const double ceiling = std::max(1e-3, std::min(summary.maximum, 4.0 * summary.p99));
  std::string html = timeMarks(data.endTime);
  for (double value = 0.0; value <= ceiling; value += niceStep(ceiling))
    html += "<i class=\"level\" style=\"bottom:" + percent(value / ceiling, 1.0) + "\"><span>" +
            decimal(value, 3) + "</span></i>\n";
  const std::vector<double>& times = data.milliseconds;
  const size_t columns = std::min<size_t>(times.size(), 400);
  std::string most = "M0 0";
  std::string median;
  for (size_t column = 0; column < columns; ++column) {
    const auto begin = times.begin() + static_cast<ptrdiff_t>(column * times.size() / columns);
    const auto end = times.begin() + static_cast<ptrdiff_t>((column + 1) * times.size() / columns);
    const TimingSummary group = summarize({begin, end});
    const std::string next = 'H' + std::to_string(column + 1);
    most += 'V' + fixed(std::min(1.0, group.maximum / ceiling), 4) + next;
    median +=
        (median.empty() ? "M0 " : "V") + fixed(std::min(1.0, group.median / ceiling), 4) + next;
  }
  return html + "<svg viewBox=\"0 0 " + std::to_string(columns) +
         " 1\" preserveAspectRatio=\"none\"><path class=\"most\" d=\"" + most +
         "V0Z\"/><path class=\"median\" d=\"" + median + "\"/></svg>\n";
}

std::string figure(const char* name, const std::string& value) {
  return "<div><dt>" + std::string(name) + "</dt><dd>" + value + "</dd></div>\n";
}

/// The template with the values in the place of their names.
std::string filledTemplate(const std::map<std::string, std::string>& values) {
  const std::string text = reportTemplate;
  std::string page;
  size_t done = 0;
  for (size_t open = 0; (open = text.find("{{", done)) != std::string::npos;) {
    const size_t close = text.find("}}", open);
    page += text.substr(done, open - done) + values.at(text.substr(open + 2, close - open - 2));
    done = close + 2;
  }
  return page + text.substr(done);
}

std::string reportPage(const ReportData& data) {
  const TimingSummary timing = summarize(data.milliseconds);
  return filledTemplate(
      {{"title", "Faces in " + escapedForHtml(data.input)},
       {"figures", figure("Faces", std::to_string(data.faces.size())) +
                       figure("Length", clockTime(data.endTime)) +
                       figure("Picture", std::to_string(data.width) + " &times; " +
                                             std::to_string(data.height)) +
                       figure("Frames analysed", std::to_string(data.milliseconds.size())) +
                       figure("Time per frame", fixed(timing.median, 2) + " ms") +
                       figure("99 % of the frames within", fixed(timing.p99, 2) + " ms")},
       {"faces", momentSection(data) + faceSections(data)},
       {"summary", "Median " + fixed(timing.median, 2) + ", 99th percentile " +
                       fixed(timing.p99, 2) + ", longest " + fixed(timing.maximum, 2) + "."},
       {"times", frameTimes(data, timing)}});
}

class Report final : public FrameOutput {
 public:
  Report(std::string path, TargetFile file, const OutputRequest& request)
      : path_(std::move(path)),
        file_(std::move(file)),
        hidesFaces_(request.options.hiding.isWanted),
        faces_(thumbnailSide, request.format.colorMatrix, showsFaces(request.options)),
        review_({.hiding = request.options.hiding,
                 .smallestFace = smallestFace(request),
                 .largestSide = showsFaces(request.options) ? thumbnailSide : 0,
                 .colorMatrix = request.format.colorMatrix}) {
    if (hidesFaces_)
      data_.command = request.options.command;
    data_.input = request.input;
    data_.width = request.format.width;
    data_.height = request.format.height;
  }

  /// A face that is in two analysed frames was there in between.
  bool take(const AnalysedFrame& frame, std::string& error) override {
    if (!frame.analysed)
      return true;
    if (!faces_.add(frame.picture, frame.result) ||
        (hidesFaces_ && !review_.add(frame.picture, frame.result))) {
      error = path_ + ": a picture of a face can't be made";
      return false;
    }
    data_.milliseconds.push_back(frame.result.milliseconds);
    const double time = frame.result.time;
    for (const int64_t number : frame.result.faceNumbers) {
      std::vector<Span>& spans = data_.presence[number];
      if (spans.empty() || spans.back().to < lastTime_)
        spans.push_back({time, time});
      spans.back().to = time;
    }
    lastTime_ = time;
    return true;
  }

  bool finish(double endTime, std::string& error) override {
    data_.endTime = endTime;
    data_.faces = faces_.stories();
    data_.moments = review_.moments();
    const std::string page = reportPage(data_);
    if (file_.put(page.data(), page.size(), error) && file_.close(error))
      return true;
    error = path_ + ": " + error;
    return false;
  }

 private:
  /// A page about hidden faces shows them only if that is asked for.
  static bool showsFaces(const OutputOptions& options) {
    return !options.hiding.isWanted || options.reportPictures;
  }

  static int32_t smallestFace(const OutputRequest& request) {
    if (request.windows.smallestFace == 0)
      return 0;
    return planWindows(request.format.width, request.format.height, request.windows).smallestFace;
  }

  std::string path_;
  TargetFile file_;
  bool hidesFaces_;
  BestFaces faces_;
  Review review_;
  ReportData data_;
  double lastTime_ = 0.0;
};

}  // namespace

std::unique_ptr<FrameOutput> openReport(const OutputRequest& request, std::string& error) {
  const std::string& path = request.options.report;
  if (auto file = TargetFile::open(path, error))
    return std::make_unique<Report>(path, std::move(*file), request);
  error = path + ": " + error;
  return nullptr;
}

}  // namespace tavro::host
