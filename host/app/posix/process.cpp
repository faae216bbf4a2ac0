#include "host/app/process.h"

#include <sys/resource.h>
#include <unistd.h>

namespace tavro::host {

std::vector<std::string> commandLine(int argumentCount, char** arguments) {
  return {arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount};
}

bool isTerminal(std::FILE* stream) {
  return isatty(fileno(stream)) == 1;
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

}  // namespace tavro::host
