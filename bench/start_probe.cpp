// A fresh process that does what a host does at its start, and times it: it loads the module, makes
// an instance, initialises it and hands it frames. It begins when it gets a line on its standard
// input and answers with one line of JSON.
//
//   start_probe MODULE

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/sampler.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own name
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

namespace {
thread_local int64_t allocationCount = 0;
}

// The module finds these before the C library's, so that its allocations are counted.
extern "C" void* malloc(size_t size) {
  ++allocationCount;
  return __libc_malloc(size);
}
extern "C" void* aligned_alloc(size_t alignment, size_t size) {
  ++allocationCount;
  return __libc_memalign(alignment, size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using tavro::bench::now;
using tavro::host::Status;
using TavroRTC::FDModule::FDWrapper;

constexpr int laterFrames = 60;

void require(const Status& status) {
  if (!status.ok())
    throw std::runtime_error(status.error);
}

/// How often the system has had to put memory behind an address so far.
int64_t pageFaults() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

/// Bytes of memory that the process has in use, and those that it has asked for to write to: its
/// heap and what it has mapped.
struct Memory {
  double resident = 0;
  double requested = 0;
};

Memory memory() {
  std::ifstream file("/proc/self/statm");
  double total = 0, resident = 0, shared = 0, text = 0, libraries = 0, data = 0;
  file >> total >> resident >> shared >> text >> libraries >> data;
  const auto page = static_cast<double>(sysconf(_SC_PAGESIZE));
  return {resident * page, data * page};
}

class Instance {
 public:
  explicit Instance(const std::string& module) {
    require(tavro::host::createInstance(module, &wrapper_));
    if (!wrapper_->init())
      throw std::runtime_error("the instance can't be initialised");
  }
  ~Instance() { static_cast<void>(tavro::host::destroyInstance(wrapper_)); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  /// Nanoseconds of one frame, of the processor's: the first one is long enough that on a busy core
  /// other programs have their turn within it.
  double frame(const tavro::host::I420Frame& frame) {
    const double start = tavro::bench::processorTime();
    if (!wrapper_->execute(&frame, faces_.sequence()))
      throw std::runtime_error("the instance refuses the frame");
    return tavro::bench::processorTime() - start;
  }

 private:
  FDWrapper* wrapper_ = nullptr;
  tavro::host::FaceRects faces_;
};

nlohmann::json probe(const std::string& file) {
  const auto frame = tavro::host::I420Frame::allocate(1280, 720);
  if (!frame)
    throw std::runtime_error("no memory for a frame");
  const double residentBefore = memory().resident;
  const double start = now();
  std::string name;
  require(tavro::host::loadModule(file, &name));
  const double loaded = now();
  const double requestedBefore = memory().requested;
  Instance instance(name);
  const double initialised = now();
  const int64_t faultsBefore = pageFaults();
  const double firstFrame = instance.frame(*frame);
  const int64_t faults = pageFaults() - faultsBefore;
  const double requestedAfter = memory().requested;

  instance.frame(*frame);
  const int64_t allocationsBefore = allocationCount;
  instance.frame(*frame);
  const int64_t allocations = allocationCount - allocationsBefore;
  std::vector<double> later;
  later.reserve(laterFrames);
  for (int i = 0; i < laterFrames; ++i)
    later.push_back(instance.frame(*frame));
  const double residentAfter = memory().resident;

  const double requestedBeforeSecond = memory().requested;
  Instance second(name);
  second.frame(*frame);
  return {{"load", loaded - start},
          {"init", initialised - loaded},
          {"firstFrame", firstFrame},
          {"firstFrameFaults", faults},
          {"laterFrame", tavro::bench::summarize(later).median},
          {"instanceBytes", requestedAfter - requestedBefore},
          {"secondInstanceBytes", memory().requested - requestedBeforeSecond},
          {"residentBytes", residentAfter - residentBefore},
          {"allocationsPerFrame", allocations}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2)
    return 2;
  // The module talks on the standard output, which is wanted for the answer.
  std::FILE* answer = fdopen(dup(STDOUT_FILENO), "w");
  const int silence = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(silence, STDOUT_FILENO);
  std::string line;
  std::getline(std::cin, line);
  try {
    std::fprintf(answer, "%s\n", probe(argv[1]).dump().c_str());
    return std::fclose(answer) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "start_probe: " << error.what() << '\n';
    return 1;
  }
}
