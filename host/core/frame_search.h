#pragma once

// FrameSearch: finds the faces of a video through one or several windows of each frame.
//
//   frame --planWindows--> windows, again when the frame's size changes
//         --one instance a window, on a few threads--> what each window sees
//         --FaceMerger--> one rectangle a face
//
// It uses the module as any host does: a window is handed over as a frame of its own, whose planes
// are the frame's with other first samples, and its instance follows what it sees there. The module
// stretches what it gets to a square, so nearly square windows may have a module of their own, with
// weights for faces in their natural shape.
//
// With one window, which is the default, the result is the module's own. The number of threads
// changes nothing but the time.
//
// What the module's first instance prints to the standard output goes to the standard error, and
// what the others repeat goes nowhere (diverted_output.h).

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "host/core/face_rects.h"
#include "host/core/module_host.h"
#include "host/core/window_plan.h"

namespace tavro::host {

inline constexpr int32_t largestFace = 32768;  ///< as a wish: no frame has longer sides
inline constexpr int32_t mostPanes = 1000;     ///< windows of a frame, and threads

struct SearchOptions {
  WindowWish windows;
  int32_t threads = 0;  ///< that search at once; 0: one for each core. Never more than windows
  /// Milliseconds for a frame; 0: each frame is seen through every window. With a budget, the whole
  /// frame (each region) and the windows that have seen a face have their turn in every frame, and
  /// the others one after the other, as many as fit, but at least one. What they cost is measured,
  /// so the results depend on the machine.
  double budget = 0.0;
};

/// The modules that make the instances, by the names that they have registered.
struct SearchModules {
  std::string whole;        ///< for the whole frame
  std::string square = {};  ///< for nearly square windows; empty: the same
};

/// What has become of a window in the latest frame.
struct WindowReport {
  Window window;
  bool hasRun = false;
  double milliseconds = 0.0;  ///< the latest time that it has run
  std::string error = {};     ///< why its instance couldn't be made; it sees nothing then
};

class FrameSearch {
 public:
  /// What is wrong with the options: a number that is too small or too large, an empty region.
  TAVRO_HOST_API static Status check(const SearchOptions& options);

  /// Makes the first instance. The modules stay loaded as long as the search lives. Null if it
  /// fails, or if the options are wrong.
  TAVRO_HOST_API static std::unique_ptr<FrameSearch> open(SearchModules modules,
                                                          const SearchOptions& options,
                                                          Status& status);
  TAVRO_HOST_API ~FrameSearch();
  FrameSearch(const FrameSearch&) = delete;
  FrameSearch& operator=(const FrameSearch&) = delete;

  /// Finds the faces of the next frame, the oldest first. A failure names the first window whose
  /// instance couldn't be made or refused the frame; `faces` holds what the others have seen. It is
  /// one, too, if no region lies in the frame. Where windows or regions are wanted, a frame with
  /// planes that don't suit its size fails before anything is made for it. One call at a time.
  TAVRO_HOST_API Status search(const TavroRTC::FDModule::HostFrame& frame, FaceRects& faces);

  /// Forgets the faces: the next frame is of another video, and all is as after open(). It fails if
  /// the first instance can't be made again.
  TAVRO_HOST_API Status restart();

  /// The windows of the latest frame that was searched; empty before the first one.
  TAVRO_HOST_API std::span<const WindowReport> windows() const;
  /// The size from which faces are seen everywhere in the frame, as in WindowPlan.
  TAVRO_HOST_API int32_t smallestFace() const;

 private:
  struct State;
  explicit FrameSearch(std::unique_ptr<State> state);

  std::unique_ptr<State> state_;
};

}  // namespace tavro::host
