#include "host/core/frame_search.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "host/core/diverted_output.h"
#include "host/core/face_merging.h"
#include "host/core/i420_frame.h"
#include "host/core/task_pool.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::host {

using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::HostFrame;

namespace {

constexpr double newestPart = 0.2;  // of the latest time in the mean that a budget reckons with

/// An instance that is ready for frames. A module tells about the processor while it is prepared
/// and while it sees its first frame. The process's first instance may say so, the others repeat
/// it.
class Instance {
 public:
  Instance() = default;
  Instance(Instance&& other) noexcept
      : wrapper_(std::exchange(other.wrapper_, nullptr)),
        isShown_(other.isShown_),
        isNew_(other.isNew_) {}
  Instance& operator=(Instance&& other) noexcept {
    std::swap(wrapper_, other.wrapper_);
    std::swap(isShown_, other.isShown_);
    std::swap(isNew_, other.isNew_);
    return *this;
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  ~Instance() {
    if (wrapper_ != nullptr)
      static_cast<void>(destroyInstance(wrapper_));
  }

  static Instance make(const std::string& module, Status& status) {
    static std::atomic_flag haveOthers;
    Instance instance;
    instance.isShown_ = !haveOthers.test_and_set();
    status = createInstance(module, &instance.wrapper_);
    if (status.ok() && !instance.init())
      status = {"the detector can't be prepared"};
    return status.ok() ? std::move(instance) : Instance();
  }

  bool exists() const { return wrapper_ != nullptr; }
  /// It hasn't seen a frame since it was prepared.
  bool isNew() const { return isNew_; }

  /// Prepares it, or has it forget the faces.
  bool init() {
    const DivertedOutput diverted(isShown_);
    isNew_ = true;
    return wrapper_->init();
  }

  bool execute(const HostFrame& frame, FaceRects& faces) {
    std::optional<DivertedOutput> diverted;
    if (std::exchange(isNew_, false))
      diverted.emplace(std::exchange(isShown_, false));
    return wrapper_->execute(&frame, faces.sequence());
  }

 private:
  FDWrapper* wrapper_ = nullptr;
  bool isShown_ = false;
  bool isNew_ = false;
};

/// A window with what it takes to search it.
struct Pane {
  Instance instance;
  std::string module;              ///< of the instance
  bool isArea = false;             ///< the whole frame, or a whole region
  bool isDue = false;              ///< in this frame
  bool accepted = true;            ///< the latest frame
  FaceRects faces;                 ///< of the latest frame, in the window's coordinates
  bool isPrepared = false;         ///< has run, which takes longer the first time
  double usualMilliseconds = 0.0;  ///< 0 until it has run again
};

/// The part of a frame behind a window.
std::optional<I420Frame> partOf(const HostFrame& frame, const Window& window) {
  const auto plane = [&](int32_t index) {
    const int32_t scale = index == 0 ? 1 : 2;
    const uint8_t* samples = frame.planeData(index);
    return samples == nullptr ? nullptr
                              : samples + ptrdiff_t{window.y / scale} * frame.planeStride(index) +
                                    window.x / scale;
  };
  return I420Frame::borrow(window.width, window.height, plane(0), frame.planeStride(0), plane(1),
                           plane(2), frame.planeStride(1));
}

/// Whatever a module reports, its place in the frame is a number.
FaceRect inFrame(const FaceRect& face, const Window& window) {
  const auto moved = [](int64_t value, int32_t by) {
    return static_cast<int32_t>(std::clamp<int64_t>(value + by, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
  };
  return {moved(face.left, window.x), moved(face.top, window.y), moved(face.right, window.x),
          moved(face.bottom, window.y)};
}

std::string nameOf(const Window& window) {
  return "window " + std::to_string(window.width) + "x" + std::to_string(window.height) + " at " +
         std::to_string(window.x) + "," + std::to_string(window.y);
}

}  // namespace

struct FrameSearch::State {
  SearchModules modules;
  SearchOptions options;
  int32_t width = -1;
  int32_t height = -1;
  WindowPlan plan;
  std::vector<Pane> panes;            ///< one for each window
  std::vector<WindowReport> reports;  ///< the same
  std::unique_ptr<TaskPool> pool;
  FaceMerger merger;
  size_t nextTurn = 0;  ///< the window at which a budget's next round begins

  bool isWhole(const Window& window) const { return window == Window{0, 0, width, height}; }
  const std::string& moduleFor(const Window& window) const {
    return modules.square.empty() || isWhole(window) || !isNearlySquare(window) ? modules.whole
                                                                                : modules.square;
  }

  void lookAt(const HostFrame& frame);
  void chooseDue();
  double expectedMilliseconds(const Pane& pane) const;
  void searchWindow(const HostFrame& frame, size_t index);
  std::vector<Sighting> sightings() const;
  Status firstFailure() const;
  Status search(const HostFrame& frame, FaceRects& faces);
};

/// Makes the plan for frames of another size, and instances that know nothing of those before. The
/// whole frame keeps its own: what the module does at a change of the size is its own affair.
void FrameSearch::State::lookAt(const HostFrame& frame) {
  const bool isUnused = width < 0;
  const bool wasWhole = !reports.empty() && isWhole(reports.front().window);
  std::vector<Pane> former = std::exchange(panes, {});
  reports.clear();
  if (former.size() > 1)  // before there are others
    std::ranges::for_each(std::span(former).subspan(1), [](Pane& pane) { pane.instance = {}; });
  width = frame.width();
  height = frame.height();
  plan = planWindows(width, height, options.windows);
  merger = FaceMerger(plan.windows, width, height);

  panes = std::vector<Pane>(plan.windows.size());
  for (size_t i = 0; i < panes.size(); ++i) {
    const Window& window = plan.windows[i];
    WindowReport& report = reports.emplace_back(WindowReport{.window = window});
    Pane& pane = panes[i];
    pane.module = moduleFor(window);
    pane.isArea = std::ranges::find(plan.areas, i) != plan.areas.end();
    if (i == 0 && !former.empty() && former[0].instance.exists() &&
        former[0].module == pane.module && (isUnused || (wasWhole && isWhole(window)))) {
      pane.instance = std::move(former[0].instance);
      continue;
    }
    Status status;
    pane.instance = Instance::make(pane.module, status);
    report.error = status.error;
  }

  const size_t wanted = options.threads > 0 ? static_cast<size_t>(options.threads)
                                            : std::max(std::thread::hardware_concurrency(), 1U);
  const size_t threads = std::clamp<size_t>(panes.size(), 1, wanted);
  if (pool == nullptr || pool->threads() != threads) {
    pool.reset();
    pool = std::make_unique<TaskPool>(threads - 1);
  }
  nextTurn = 0;
}

/// A first run leaves no room for another window's turn.
double FrameSearch::State::expectedMilliseconds(const Pane& pane) const {
  if (!pane.isPrepared)
    return options.budget;
  return pane.usualMilliseconds > 0.0 ? pane.usualMilliseconds : panes.front().usualMilliseconds;
}

/// Without a budget, every window is due.
void FrameSearch::State::chooseDue() {
  double cost = 0.0;
  double longest = 0.0;
  const auto add = [&](const Pane& pane) {
    const double expected = expectedMilliseconds(pane);
    cost += expected;
    longest = std::max(longest, expected);
  };
  for (Pane& pane : panes) {
    pane.isDue = options.budget <= 0.0 || pane.isArea || !pane.faces.empty();
    if (pane.isDue)
      add(pane);
  }
  if (options.budget <= 0.0)
    return;
  // The last window to begin may be the longest, and run alone.
  const auto threads = static_cast<double>(pool->threads());
  const auto fits = [&] { return cost + (threads - 1.0) * longest <= threads * options.budget; };
  bool hasTurn = false;
  for (size_t i = 0, index = nextTurn; i < panes.size(); ++i, index = (index + 1) % panes.size()) {
    Pane& pane = panes[index];
    if (pane.isDue || !pane.instance.exists())
      continue;
    add(pane);
    if (hasTurn && !fits())
      return;
    hasTurn = true;
    pane.isDue = true;
    nextTurn = (index + 1) % panes.size();
  }
}

void FrameSearch::State::searchWindow(const HostFrame& frame, size_t index) {
  Pane& pane = panes[index];
  WindowReport& report = reports[index];
  pane.faces.clear();
  report.hasRun = pane.isDue && pane.instance.exists();
  if (!report.hasRun)
    return;
  const auto start = std::chrono::steady_clock::now();
  if (isWhole(report.window)) {
    pane.accepted = pane.instance.execute(frame, pane.faces);
  } else {
    const auto part = partOf(frame, report.window);
    pane.accepted = part.has_value() && pane.instance.execute(*part, pane.faces);
  }
  if (!pane.accepted)
    pane.faces.clear();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  report.milliseconds = taken.count();
  if (!std::exchange(pane.isPrepared, true))
    return;
  const double part = pane.usualMilliseconds > 0.0 ? newestPart : 1.0;
  pane.usualMilliseconds += part * (report.milliseconds - pane.usualMilliseconds);
}

std::vector<Sighting> FrameSearch::State::sightings() const {
  std::vector<Sighting> seen;
  for (size_t i = 0; i < panes.size(); ++i)
    for (const FaceRect& face : panes[i].faces.view())
      seen.push_back({.face = inFrame(face, reports[i].window), .window = i});
  return seen;
}

Status FrameSearch::State::firstFailure() const {
  for (size_t i = 0; i < panes.size(); ++i) {
    std::string failure = reports[i].error;
    if (reports[i].hasRun && !panes[i].accepted)
      failure = "the detector refused the frame";
    if (!failure.empty())
      return {panes.size() == 1 ? failure : nameOf(reports[i].window) + ": " + failure};
  }
  return {};
}

Status FrameSearch::State::search(const HostFrame& frame, FaceRects& faces) {
  // A part of a frame with rows that are too short would reach beyond its samples. Without windows,
  // the module judges the frame.
  const Window whole = {0, 0, frame.width(), frame.height()};
  if (options.windows.hasWindows() && !partOf(frame, whole).has_value())
    return {"the frame's planes don't suit its size"};
  if (reports.empty() || frame.width() != width || frame.height() != height)
    lookAt(frame);
  if (panes.empty())
    return {"no region lies in the frame"};
  chooseDue();
  pool->run(panes.size(), [&](size_t index) {
    if (!panes[index].instance.isNew())
      searchWindow(frame, index);
  });
  // What an instance prints about its first frame is diverted, which takes the lock of the standard
  // output. The caller may hold it, and no other thread would get it then.
  for (size_t i = 0; i < panes.size(); ++i)
    if (panes[i].instance.isNew())
      searchWindow(frame, i);
  const bool isModulesOwn = panes.size() == 1 && isWhole(reports.front().window);
  const bool isDone =
      faces.assign(isModulesOwn ? panes.front().faces.view() : merger.update(sightings()));
  return isDone ? firstFailure() : Status{"out of memory"};
}

FrameSearch::FrameSearch(std::unique_ptr<State> state) : state_(std::move(state)) {}
FrameSearch::~FrameSearch() = default;

Status FrameSearch::check(const SearchOptions& options) {
  const auto limit = [](const char* what, int32_t value, int32_t least, int32_t most) {
    return least <= value && value <= most
               ? std::string()
               : std::string(what) + " must be " + std::to_string(least) + " to " +
                     std::to_string(most) + ", not " + std::to_string(value);
  };
  try {
    const WindowWish& wish = options.windows;
    std::string fault = limit("the smallest face", wish.smallestFace, 0, largestFace);
    if (fault.empty())
      fault = limit("the number of windows", wish.mostWindows, 1, mostPanes);
    if (fault.empty())
      fault = limit("the number of threads", options.threads, 0, mostPanes);
    for (const Window& region : wish.regions)
      if (fault.empty() && !isRegion(region))
        fault = "a region must be X,Y,W,H in pixels, not " + std::to_string(region.x) + "," +
                std::to_string(region.y) + "," + std::to_string(region.width) + "," +
                std::to_string(region.height);
    return {std::move(fault)};
  } catch (const std::bad_alloc&) {
    return {"out of memory"};
  }
}

std::unique_ptr<FrameSearch> FrameSearch::open(SearchModules modules, const SearchOptions& options,
                                               Status& status) {
  try {
    auto state = std::make_unique<State>();
    state->modules = std::move(modules);
    state->options = options;
    state->panes = std::vector<Pane>(1);
    Pane& first = state->panes.front();
    first.module = state->modules.whole;
    status = check(options);
    if (status.ok())
      first.instance = Instance::make(first.module, status);
    if (!status.ok())
      return nullptr;
    return std::unique_ptr<FrameSearch>(new FrameSearch(std::move(state)));
  } catch (const std::bad_alloc&) {
    status = {"out of memory"};
    return nullptr;
  }
}

Status FrameSearch::search(const HostFrame& frame, FaceRects& faces) {
  faces.clear();
  try {
    return state_->search(frame, faces);
  } catch (const std::bad_alloc&) {
    // A plan may be half made.
    state_->panes.clear();
    state_->reports.clear();
    faces.clear();
    return {"out of memory"};
  }
}

Status FrameSearch::restart() {
  State& state = *state_;
  if (state.width < 0)
    return {};
  try {
    std::vector<Pane> first(1);
    first[0].module = state.modules.whole;
    if (!state.panes.empty() && state.panes[0].module == first[0].module)
      first[0].instance = std::move(state.panes[0].instance);
    state.panes = std::move(first);
    state.reports.clear();
    state.width = -1;
    Instance& instance = state.panes[0].instance;
    Status status;
    if (!instance.exists() || !instance.init())
      instance = Instance::make(state.modules.whole, status);
    return status;
  } catch (const std::bad_alloc&) {
    return {"out of memory"};
  }
}

std::span<const WindowReport> FrameSearch::windows() const {
  return state_->reports;
}

int32_t FrameSearch::smallestFace() const {
  return state_->plan.smallestFace;
}

}  // namespace tavro::host
