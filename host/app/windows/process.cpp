#include "host/app/process.h"

#include <windows.h>
// After <windows.h>, whose types they use.
#include <fcntl.h>
#include <io.h>
#include <psapi.h>
#include <shellapi.h>

#include "host/core/utf8_path.h"

namespace tavro::host {

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

bool isTerminal(std::FILE* stream) {
  auto* handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
  DWORD mode = 0;
  return GetConsoleMode(handle, &mode) != 0 &&
         SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
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

}  // namespace tavro::host
