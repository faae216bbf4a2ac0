// A frame seen through several windows (host/core/frame_search.h): n windows on one thread and on
// two, beside the whole frame alone, and the memory of a window.
//
// A window costs more than the whole frame alone because of its instance, not of its samples: with
// instances in turn, the tensors of each, 6 MiB, have left the caches before they are needed again.

#include <malloc.h>
#include <sched.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/report.h"
#include "bench/scenes.h"
#include "host/core/frame_search.h"

namespace tavro::bench {
namespace {

constexpr FrameSize size = {1280, 720};
constexpr int32_t smallestFace = 26;  // eleven windows
constexpr int usualRounds = 20;
constexpr int runsPerTurn = 3;
constexpr double mebibyte = 1024.0 * 1024.0;

void require(const host::Status& status) {
  if (!status.ok())
    throw std::runtime_error(status.error);
}

double heapBytes() {
  const auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

/// This thread, and those that it starts, may use these cores.
void useCores(int first, int second) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<size_t>(first), &cores);
  CPU_SET(static_cast<size_t>(second), &cores);
  sched_setaffinity(0, sizeof cores, &cores);
}

/// A search that has its instances.
class Search {
 public:
  Search(const host::I420Frame& frame, const host::SearchModules& modules, int32_t face,
         int32_t threads)
      : frame_(frame) {
    host::Status status;
    const host::SearchOptions options = {.windows = {.smallestFace = face}, .threads = threads};
    search_ = host::FrameSearch::open(modules, options, status);
    require(status);
    run();
  }

  void run() { require(search_->search(frame_, faces_)); }
  size_t windows() const { return search_->windows().size(); }

 private:
  const host::I420Frame& frame_;
  host::FaceRects faces_;
  std::unique_ptr<host::FrameSearch> search_;
};

}  // namespace

void measureWindows(Report& report, const ReportOptions& options) {
  host::SearchModules modules;
  require(host::loadModule(options.module, &modules.whole));
  if (const std::string square = host::squareDetectorBeside(options.module); !square.empty())
    require(host::loadModule(square, &modules.square));

  const host::I420Frame frame = sampleFrame(size);
  Search whole(frame, modules, 0, 1);
  const double heapBefore = heapBytes();
  Search windows(frame, modules, smallestFace, 1);
  const auto count = static_cast<double>(windows.windows());
  report.targets.push_back({"memory of a window", (heapBytes() - heapBefore) / count / mebibyte,
                            Goal::atMost, 7, "MiB"});

  const std::string name = std::to_string(windows.windows()) + " windows of 1280x720";
  const std::array<Contender, 2> onOneCore = {inProcess("whole", runsPerTurn, [&] { whole.run(); }),
                                              inProcess(name, runsPerTurn, [&] { windows.run(); })};
  const std::vector<Timing> timings = takeTurns(onOneCore, options.rounds(usualRounds));
  report.rows.push_back({.group = "frame",
                         .name = name + ", one thread",
                         .detail = "",
                         .timing = timings[1],
                         .peers = {}});
  report.targets.push_back({name + " on one thread, beside as many whole frames",
                            timings[1].median / timings[0].median / count, Goal::atMost, 1, "x"});
  if (options.cores.size() < 2)
    return;

  // The search's threads are where the one that makes them is.
  std::vector<Timing> two;
  std::thread([&] {
    useCores(options.cores[0], options.cores[1]);
    Search shared(frame, modules, smallestFace, 2);
    const std::array<Contender, 2> onTwoCores = {
        inProcess("one thread", runsPerTurn, [&] { windows.run(); }),
        inProcess("two threads", runsPerTurn, [&] { shared.run(); })};
    two = takeTurns(onTwoCores, options.rounds(usualRounds));
  }).join();
  report.rows.push_back({.group = "frame",
                         .name = name + ", two threads",
                         .detail = "",
                         .timing = two[1],
                         .peers = {}});
  report.targets.push_back({name + " on two threads, beside one", two[1].median / two[0].median,
                            Goal::atMost, 0.6, "x"});
}

}  // namespace tavro::bench
