#include "host/app/ffmpeg/ffmpeg_log.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdio>
#include <mutex>
#include <utility>

#include "host/app/ffmpeg/ffmpeg_handles.h"

namespace tavro::host {

namespace {

struct CapturedLog {
  std::mutex mutex;
  int64_t errors = 0;
  std::string latest;
};

CapturedLog& capturedLog() {
  static CapturedLog log;
  return log;
}

void capture(void* /*source*/, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_ERROR)
    return;
  char text[512] = "";
  std::vsnprintf(text, sizeof text, format, arguments);
  std::string line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == ' ' || line.back() == '.'))
    line.pop_back();
  CapturedLog& log = capturedLog();
  const std::lock_guard lock(log.mutex);
  ++log.errors;
  log.latest = std::move(line);
}

}  // namespace

void captureFfmpegLog() {
  capturedLog();  // made before, and so destroyed after, anything that logs
  av_log_set_callback(&capture);
}

int64_t ffmpegErrorCount() {
  CapturedLog& log = capturedLog();
  const std::lock_guard lock(log.mutex);
  return log.errors;
}

std::string latestFfmpegError() {
  CapturedLog& log = capturedLog();
  const std::lock_guard lock(log.mutex);
  return log.latest;
}

std::string explainedError(int code, int64_t errorsBefore) {
  std::string text = ffmpegError(code);
  if (ffmpegErrorCount() > errorsBefore)
    text += " (" + latestFfmpegError() + ")";
  return text;
}

}  // namespace tavro::host
