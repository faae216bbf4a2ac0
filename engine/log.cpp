#include "engine/log.h"

#include <cstdarg>
#include <cstdio>

namespace TavroRTC::FDModule {

void logPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

}  // namespace TavroRTC::FDModule
