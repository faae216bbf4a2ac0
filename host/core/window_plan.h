#pragma once

// The windows through which a host looks at a frame. The detector sees whatever it is given as
// 192x192, so a face that is small in the frame has to be large in a part of it. Nothing is copied
// for that: a window is planes of the frame with other first samples (frame_search.h).
//
//   frame size, smallest face, most windows  --planWindows-->  the whole frame, then squares in
//                                                              layers, from coarse to fine
//
// A face is seen if it covers `seenSize` of a window's 192 pixels, so a window may be 16 times as
// long as the smallest face. A layer of n rows along the short edge of the frame has squares of
// 1 / (1 + 0.75 (n - 1)) of that edge: neighbours overlap by a quarter. Along the long edge stand
// as few as overlap by a fifth: two for 16:9, where a quarter would take three. The finest layer
// has the fewest rows whose squares are small enough, and each coarser one half as many:
//
//   smallest face in 1920x1080          120   68   39     30     24
//   rows                                0     1    1, 2   1, 3   1, 2, 4
//   windows, the whole frame included   1     3    11     21     39
//
// A face that is too large to be whole in one of a layer's squares is at least a fifth of them,
// hence 15 pixels in the next coarser ones, and 12 in the whole frame: there, the squares of a
// frame wider than 16:5 overlap by more, up to a half.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tavro::host {

/// A part of a frame, in its pixels. Planned ones lie inside the frame and begin at even
/// coordinates, where a chroma sample begins. Their sizes are even too, but for windows that end at
/// an odd frame's edge.
struct Window {
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;

  friend bool operator==(const Window&, const Window&) = default;
};

inline constexpr int32_t seenSize = 12;        ///< of the 192 pixels: from there on faces are found
inline constexpr int32_t smallestWindow = 96;  ///< enlarged more than twice, nothing new is seen

struct WindowWish {
  int32_t smallestFace = 0;  ///< pixels of the frame; 0: each region as one window, no squares
  int32_t mostWindows = 64;  ///< at least one; there is one for each region in any case
  std::vector<Window> regions = {};  ///< where to look; none: in the whole frame

  /// False if the detector is to see the whole frame and nothing else.
  bool hasWindows() const { return smallestFace > 0 || !regions.empty(); }
};

struct WindowPlan {
  /// The whole frame, or the first region, and its squares, then the next region.
  std::vector<Window> windows;
  std::vector<size_t> areas;  ///< those among them that are the whole frame or a region
  /// The size from which faces are seen everywhere. If that takes more windows than allowed, it is
  /// greater than what was wished for.
  int32_t smallestFace = 0;
};

/// Regions are clipped to the frame and made even, outwards; those outside of it count for nothing,
/// so that there may be no window at all. Without regions, a frame without samples is planned as
/// one window: it is for the detector to refuse. May throw std::bad_alloc.
WindowPlan planWindows(int32_t width, int32_t height, const WindowWish& wish);

/// True for what can be a region of some frame: it begins at no negative coordinate and isn't
/// empty.
constexpr bool isRegion(const Window& region) {
  return region.x >= 0 && region.y >= 0 && region.width > 0 && region.height > 0;
}

/// The region in a text such as "640,0,320,360": x, y, width, height. Nullopt if it isn't one.
std::optional<Window> parseRegion(std::string_view text);

/// True if a part of the region lies in the frame.
constexpr bool touchesFrame(const Window& region, int32_t width, int32_t height) {
  return region.width > 0 && region.height > 0 && region.x < width && region.y < height &&
         int64_t{region.x} + region.width > 0 && int64_t{region.y} + region.height > 0;
}

/// True if a face has about its natural shape in the detector's square picture of that window.
constexpr bool isNearlySquare(const Window& window) {
  const int64_t width = window.width;
  const int64_t height = window.height;
  return 4 * width <= 5 * height && 4 * height <= 5 * width;
}

}  // namespace tavro::host
