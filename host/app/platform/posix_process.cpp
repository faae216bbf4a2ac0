#include "host/app/platform/process.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace tavro::host {

namespace {

volatile std::sig_atomic_t caughtSignal = 0;

void requestStop(int signal) {
  if (caughtSignal == 0)
    caughtSignal = signal;
}

}  // namespace

std::vector<std::string> commandLine(int argumentCount, char** arguments) {
  return {arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount};
}

void holdStandardStreams() {
  // open() takes the lowest number that is free. A mode of the wrong direction makes any use fail.
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(stream, F_GETFD) < 0)
      static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

bool isTerminal(std::FILE* stream) {
  return isatty(fileno(stream)) == 1;
}

int terminalColumns() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::FILE* openFile(const std::string& name, const char* mode) {
  return std::fopen(name.c_str(), mode);
}

std::FILE* binaryStandardInput() {
  return stdin;
}

double peakMebibytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // Linux counts in KiB
}

void discardStandardOutput() {
  std::fflush(stdout);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere != STDOUT_FILENO) {
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
  }
}

StreamHandle divertStandardOutput() {
  std::fflush(stdout);
  // Above 2 even if some of the first three are closed.
  const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    discardStandardOutput();
  // In step with what this program writes to the standard error itself.
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  StreamHandle stream(results >= 0 ? fdopen(results, "w") : nullptr);
  if (stream == nullptr && results >= 0)  // held, but closed to writing
    close(results);
  return stream;
}

void catchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = &requestStop;
  // One-shot, and without SA_RESTART: a read that waits for a silent pipe has to come back.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int stopSignal() {
  return caughtSignal;
}

}  // namespace tavro::host
