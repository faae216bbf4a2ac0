#pragma once

// What the applications tell about their command lines: HelpFormatter wraps the help to the
// terminal's width, addManual makes a manual page and a completion of the same texts.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <string_view>

#include "host/app/platform/process.h"

namespace tavro::host {

/// Breaks the lines that are longer than `width` between words. A line goes on where its last
/// column began, if it has columns with two blanks or more between them, or else at its
/// indentation.
inline std::string wrapped(std::string_view text, size_t width) {
  std::string result;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string line(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const size_t gap = line.rfind("  ");
    const size_t indentation = gap == std::string::npos || gap + 2 > 2 * width / 3 ? 0 : gap + 2;
    while (line.size() > width) {
      size_t blank = line.rfind(' ', width);
      if (blank == std::string::npos || blank < indentation + 1)
        blank = line.find(' ', width);
      if (blank == std::string::npos)
        break;
      result += line.substr(0, blank) + '\n';
      line = std::string(indentation, ' ') + line.substr(blank + 1);
    }
    result += line;
    if (end != std::string_view::npos)
      result += '\n';
  }
  return result;
}

class HelpFormatter final : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(width_ < 72 ? 24 : 30); }

  std::string make_description(const CLI::App* app) const override {
    return wrapped(Formatter::make_description(app), width_);
  }
  std::string make_footer(const CLI::App* app) const override {
    return wrapped(Formatter::make_footer(app), width_);
  }
  /// What has to be given with it is said in words, if at all.
  std::string make_option_opts(const CLI::Option* option) const override {
    return (option->get_items_expected_max() > 0 ? ' ' + option->get_type_name() : "") +
           (option->get_required() ? " REQUIRED" : "");
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    return wrapped(Formatter::make_option_desc(option), width_ - get_column_width());
  }

 private:
  size_t width_ = static_cast<size_t>(std::clamp(terminalColumns(), 48, 100));
};

/// Adds --manual and --bash-completion, which print a page for man and a script for bash instead
/// of running the application. Packages have what they print; they aren't in the help.
void addManual(CLI::App& app, const std::string& version);

}  // namespace tavro::host
