#include "host/app/standard_output.h"

#include <fcntl.h>
#include <io.h>

namespace tavro::host {

namespace {
constexpr int outputDescriptor = 1;
constexpr int errorDescriptor = 2;
}  // namespace

StreamHandle divertStandardOutput() {
  std::fflush(stdout);
  const int results = _dup(outputDescriptor);
  if (_dup2(errorDescriptor, outputDescriptor) != 0) {
    const int nowhere = _open("NUL", _O_WRONLY);
    if (nowhere != outputDescriptor) {
      _dup2(nowhere, outputDescriptor);
      _close(nowhere);
    }
  }
  // In step with what this program writes to the standard error itself; lines alone can't be had.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  if (results < 0)
    return nullptr;
  _setmode(results, _O_BINARY);  // a line ends as on any other platform
  return StreamHandle(_fdopen(results, "wb"));
}

}  // namespace tavro::host
