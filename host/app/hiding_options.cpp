#include <CLI/CLI.hpp>
#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/app/options.h"

namespace tavro::host {

namespace {

/// Seconds in a text such as 75.5, 1:15.5 or 0:01:15.5. Nullopt if it isn't a time.
std::optional<double> parseTime(std::string_view text) {
  double minutes = 0.0;
  for (int colons = 0; colons < 2; ++colons) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos)
      break;
    uint32_t number = 0;
    const auto [rest, failure] = std::from_chars(text.data(), text.data() + colon, number);
    if (failure != std::errc() || rest != text.data() + colon)
      return std::nullopt;
    minutes = minutes * 60.0 + number;
    text.remove_prefix(colon + 1);
  }
  double seconds = 0.0;
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  if (failure != std::errc() || rest != end || text.front() == '-' || !(seconds < 1e9))
    return std::nullopt;
  return minutes * 60.0 + seconds;
}

/// A text such as 10,20,64,48@1.5-2, with one of the times left out for all from or up to there.
std::optional<TimedArea> parseTimedArea(std::string_view text) {
  const size_t at = text.find('@');
  const auto area = parseRegion(text.substr(0, at));
  if (!area.has_value())
    return std::nullopt;
  TimedArea timed = {.area = *area};
  if (at == std::string_view::npos)
    return timed;
  const std::string_view times = text.substr(at + 1);
  const size_t dash = times.find('-');
  if (dash == std::string_view::npos || times.size() == 1)
    return std::nullopt;
  const auto read = [](std::string_view time, double& value) {
    const auto seconds = parseTime(time);
    value = seconds.value_or(value);
    return time.empty() || seconds.has_value();
  };
  if (!read(times.substr(0, dash), timed.when.from) ||
      !read(times.substr(dash + 1), timed.when.to) || timed.when.from >= timed.when.to)
    return std::nullopt;
  return timed;
}

std::optional<int64_t> parseNumber(std::string_view text, int64_t least, int64_t most) {
  int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value);
  return failure == std::errc() && rest == end && value >= least && value <= most
             ? std::optional(value)
             : std::nullopt;
}

std::optional<int64_t> parseFace(std::string_view text) {
  return parseNumber(text, 1, std::numeric_limits<int64_t>::max());
}

std::optional<int64_t> parseMargin(std::string_view text) {
  if (text.ends_with('%'))
    text.remove_suffix(1);
  return parseNumber(text, 0, largestMargin);
}

std::optional<Hiding> parseStyle(std::string_view text) {
  return text == "pixelate" ? std::optional(Hiding::pixelate)
         : text == "blur"   ? std::optional(Hiding::blur)
         : text == "solid"  ? std::optional(Hiding::solid)
                            : std::nullopt;
}

std::optional<HidingShape> parseShape(std::string_view text) {
  return text == "rectangle" ? std::optional(HidingShape::rectangle)
         : text == "ellipse" ? std::optional(HidingShape::ellipse)
                             : std::nullopt;
}

/// An option with one value, which may be repeated: `take` gets what `parse` makes of each. `form`
/// says what a value must be.
template <typename Parse, typename Take>
CLI::Option* addParsed(CLI::App& app, const char* name, const char* type, const char* help,
                       const char* form, Parse parse, Take take) {
  const auto fault = [parse, form](const std::string& text) {
    return parse(text).has_value() ? "" : std::string("must be ") + form + ", not " + text;
  };
  const auto takeEach = [parse, take](const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
      take(*parse(text));
  };
  return app.add_option_function<std::vector<std::string>>(name, takeEach, help)
      ->type_name(type)
      ->expected(1)
      ->allow_extra_args(false)  // what follows may be INPUT
      ->take_all()
      ->check(CLI::Validator(fault, ""));
}

}  // namespace

void addHidingOptions(CLI::App& app, HidingOptions& options) {
  CLI::Option* blur = app.add_flag(
      "--blur", options.isWanted,
      "Hide the faces instead of framing them, also for moments in which the detector "
      "misses them, and a third of a second before they appear and after they leave. Files "
      "are read twice for that, what other inputs show comes later by --delay. A face that "
      "is never found isn't hidden: look through the result before you publish it");
  addParsed(app, "--hide-style", "NAME",
            "How --blur hides:\n"
            "pixelate: flat blocks, six by six for a face (default)\n"
            "blur: the same colours, running into one another\n"
            "solid: black",
            "pixelate, blur or solid", parseStyle, [&](Hiding how) { options.style.how = how; })
      ->needs(blur);
  addParsed(app, "--hide-shape", "NAME",
            "rectangle: the face's rectangle with its margin (default)\n"
            "ellipse: the smallest ellipse around it",
            "rectangle or ellipse", parseShape,
            [&](HidingShape shape) { options.style.shape = shape; })
      ->needs(blur);
  addParsed(app, "--hide-margin", "PERCENT",
            "How far what is hidden reaches beyond a face on each side, in percent of its size "
            "(default: 25)",
            "a percentage from 0 to 1000", parseMargin,
            [&](int64_t percent) { options.style.margin = static_cast<int32_t>(percent); })
      ->needs(blur);
  constexpr const char* areaForm =
      "X,Y,W,H in pixels or X,Y,W,H@FROM-TO with times such as 75.5 or 1:15.5";
  addParsed(app, "--hide", "X,Y,W,H[@FROM-TO]",
            "With --blur, hide that area too, whatever is found there, always or from one time to "
            "the other "
            "(75.5, 1:15.5; one of them may be left out); may be repeated",
            areaForm, parseTimedArea, [&](TimedArea area) { options.hide.push_back(area); })
      ->needs(blur);
  addParsed(app, "--keep", "X,Y,W,H[@FROM-TO]",
            "With --blur, leave that area as it is, except for what --hide names; may be repeated",
            areaForm, parseTimedArea, [&](TimedArea area) { options.keep.push_back(area); })
      ->needs(blur);
  addParsed(app, "--keep-face", "N",
            "With --blur, leave the face with that number visible; the results and --report have "
            "the numbers. "
            "May be repeated",
            "a face's number", parseFace,
            [&](int64_t number) { options.keepFaces.push_back(number); })
      ->needs(blur);
  constexpr const char* timeForm = "a time such as 75.5 or 1:15.5";
  addParsed(app, "--from", "TIME", "With --blur, hide nothing before that time", timeForm,
            parseTime, [&](double time) { options.when.from = time; })
      ->needs(blur);
  addParsed(app, "--to", "TIME", "With --blur, hide nothing from that time on", timeForm, parseTime,
            [&](double time) { options.when.to = time; })
      ->needs(blur);
  app.add_option(
         "--delay", options.delay,
         "How much later --blur shows what doesn't come from a file. A face that comes back "
         "within that time stays hidden in between (default: 1)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 10.0).description(""));
}

}  // namespace tavro::host
