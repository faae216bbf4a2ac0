#include "host/app/platform/process.h"

#include <windows.h>
// After <windows.h>, whose types they use.
#include <fcntl.h>
#include <io.h>
#include <psapi.h>
#include <shellapi.h>

#include <atomic>
#include <csignal>

#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

constexpr int outputDescriptor = 1;
constexpr int errorDescriptor = 2;

std::atomic<bool> stopRequested = false;

/// Runs on a thread of the system's. What it doesn't take ends the process.
BOOL WINAPI takeEvent(DWORD /*event*/) {
  return stopRequested.exchange(true) ? FALSE : TRUE;
}

}  // namespace

/// The words of the whole command line: those that main() gets have lost what the system's own
/// code page doesn't know.
std::vector<std::string> commandLine(int /*argumentCount*/, char** /*arguments*/) {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; words != nullptr && i < count; ++i)
    arguments.push_back(utf8FromPath(words[i]));
  LocalFree(static_cast<void*>(words));
  return arguments;
}

/// The C library keeps their numbers for them.
void holdStandardStreams() {}

bool isTerminal(std::FILE* stream) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the runtime returns the handle as a number
  auto* handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
  DWORD mode = 0;
  return GetConsoleMode(handle, &mode) != 0 &&
         SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

int terminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO screen = {};
  return GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &screen) != 0
             ? screen.srWindow.Right - screen.srWindow.Left + 1
             : 80;
}

std::FILE* openFile(const std::string& name, const char* mode) {
  return _wfopen(pathFromUtf8(name).c_str(), pathFromUtf8(mode).c_str());
}

std::FILE* binaryStandardInput() {
  _setmode(_fileno(stdin), _O_BINARY);
  return stdin;
}

double peakMebibytes() {
  PROCESS_MEMORY_COUNTERS counters = {};
  K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return static_cast<double>(counters.PeakWorkingSetSize) / (1024.0 * 1024.0);
}

void discardStandardOutput() {
  std::fflush(stdout);
  const int nowhere = _open("NUL", _O_WRONLY);
  if (nowhere != outputDescriptor) {
    _dup2(nowhere, outputDescriptor);
    _close(nowhere);
  }
}

StreamHandle divertStandardOutput() {
  std::fflush(stdout);
  const int results = _dup(outputDescriptor);
  if (_dup2(errorDescriptor, outputDescriptor) != 0)
    discardStandardOutput();
  // In step with what this program writes to the standard error itself; lines alone can't be had.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  if (results < 0)
    return nullptr;
  _setmode(results, _O_BINARY);  // a line ends as on any other platform
  return StreamHandle(_fdopen(results, "wb"));
}

void catchStopSignals() {
  SetConsoleCtrlHandler(&takeEvent, TRUE);
}

int stopSignal() {
  return stopRequested ? SIGINT : 0;
}

}  // namespace tavro::host
