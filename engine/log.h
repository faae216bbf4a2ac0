#pragma once

namespace TavroRTC::FDModule {

/// Formatted text to the process's standard output, exactly as the format says: no prefix, no level
/// and no added line ending. All diagnostics with a format string go through here.
[[gnu::format(printf, 1, 2)]] void logPrint(const char* format, ...);

}  // namespace TavroRTC::FDModule
