#include "host/app/standard_output.h"

#include <fcntl.h>
#include <unistd.h>

namespace tavro::host {

StreamHandle divertStandardOutput() {
  std::fflush(stdout);
  // Above 2 even if some of the first three are closed.
  const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere != STDOUT_FILENO) {
      dup2(nowhere, STDOUT_FILENO);
      close(nowhere);
    }
  }
  // In step with what this program writes to the standard error itself.
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return StreamHandle(results >= 0 ? fdopen(results, "w") : nullptr);
}

}  // namespace tavro::host
