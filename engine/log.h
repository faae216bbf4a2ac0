#pragma once

#include <cstdarg>
#include <cstdio>

namespace TavroRTC::FDModule {

/// Formatted text to the process's standard output, exactly as the format says: no prefix, no level
/// and no added line ending. All diagnostics with a format string go through here.
[[gnu::format(printf, 1, 2)]] inline void logPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

}  // namespace TavroRTC::FDModule
