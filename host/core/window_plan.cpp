#include "host/core/window_plan.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tavro::host {

namespace {

constexpr double rowOverlap = 0.25;
constexpr double columnOverlap = 0.2;
constexpr double mostOverlap = 0.5;
constexpr int32_t seenPart = 192 / seenSize;  // the longest window, in smallest faces

/// The squares of one layer. Rows run along the short edge.
struct Layer {
  int32_t side = 0;
  int64_t rows = 0;
  int64_t columns = 0;
};

Layer layerOf(const Window& area, int64_t rows) {
  const int32_t shortEdge = std::min(area.width, area.height);
  const int32_t longEdge = std::max(area.width, area.height);
  const double exact = shortEdge / (1.0 + (1.0 - rowOverlap) * static_cast<double>(rows - 1));
  const double even = 2.0 * std::ceil(exact / 2.0);
  const auto side = static_cast<int32_t>(std::min(even, 1.0 * (shortEdge - shortEdge % 2)));
  // Coordinates are made even, which may take two pixels from an overlap.
  const double coarser = rows == 1 ? static_cast<double>(longEdge) / seenPart + 2.0 : 0.0;
  const double overlap = std::clamp(coarser, columnOverlap * side, mostOverlap * side);
  const double columns = std::ceil((longEdge - side) / (side - overlap) - 1e-9) + 1.0;
  return {side, rows, static_cast<int64_t>(columns)};
}

/// Squares of nearly the area's own shape show nothing that it doesn't.
bool addsNothing(const Window& area, int64_t rows) {
  return rows == 1 && isNearlySquare(area);
}

/// The rows of the finest layer that is wanted; 0 if the area itself shows the smallest face.
int64_t wantedRows(const Window& area, int32_t smallestFace) {
  const int32_t shortEdge = std::min(area.width, area.height);
  if (smallestFace <= 0 || shortEdge < std::max(smallestFace, smallestWindow / seenPart))
    return 0;
  const int64_t side = std::max(int64_t{smallestFace} * seenPart, int64_t{smallestWindow});
  if (std::max(area.width, area.height) <= side)
    return 0;
  const double sides = static_cast<double>(shortEdge) / static_cast<double>(side);
  auto rows =
      static_cast<int64_t>(1.0 + std::max(std::ceil((sides - 1.0) / (1.0 - rowOverlap)), 0.0));
  while (layerOf(area, rows).side > side)  // it was rounded up
    ++rows;
  if (addsNothing(area, rows))
    ++rows;
  return rows;
}

/// The layers of squares, from coarse to fine.
std::vector<Layer> layersOf(const Window& area, int64_t finestRows) {
  std::vector<Layer> layers;
  for (int64_t rows = finestRows; rows > 0; rows /= 2)
    if (!addsNothing(area, rows))
      layers.push_back(layerOf(area, rows));
  std::ranges::reverse(layers);
  return layers;
}

int64_t windowsIn(const std::vector<Layer>& layers) {
  int64_t count = 1;  // the area itself
  for (const Layer& layer : layers)
    count += layer.rows * layer.columns;
  return count;
}

/// A part of an edge.
struct Span {
  int32_t begin;
  int32_t size;
};

/// `count` windows of `side`, spread evenly over an edge of `length`. The last one ends with it.
std::vector<Span> spread(int64_t count, int32_t length, int32_t side) {
  std::vector<Span> spans;
  const int64_t room = length - side;
  for (int64_t i = 0; i < count; ++i) {
    const auto begin = static_cast<int32_t>(count > 1 ? i * room / (count - 1) / 2 * 2 : 0);
    spans.push_back({begin, i + 1 == count ? length - begin : side});
  }
  return spans;
}

/// Regions may overlap, and then share windows.
void addOnce(const Window& window, std::vector<Window>& windows) {
  if (std::ranges::find(windows, window) == windows.end())
    windows.push_back(window);
}

void addLayer(const Window& area, const Layer& layer, std::vector<Window>& windows) {
  const bool isWide = area.width >= area.height;
  const auto columns = spread(isWide ? layer.columns : layer.rows, area.width, layer.side);
  const auto rows = spread(isWide ? layer.rows : layer.columns, area.height, layer.side);
  for (const Span& row : rows)
    for (const Span& column : columns)
      addOnce({area.x + column.begin, area.y + row.begin, column.size, row.size}, windows);
}

/// Adds the windows of an area, of which the plan may have `most`. Returns the smallest face that
/// they show everywhere.
int32_t addWindows(const Window& area, int32_t smallestFace, int64_t most,
                   std::vector<Window>& windows) {
  int64_t finestRows = std::min(wantedRows(area, smallestFace), most);  // a row has a window
  std::vector<Layer> layers = layersOf(area, finestRows);
  while (windowsIn(layers) > most)
    layers = layersOf(area, --finestRows);
  addOnce(area, windows);
  for (const Layer& layer : layers)
    addLayer(area, layer, windows);
  const int32_t longest = layers.empty() ? std::max(area.width, area.height) : layers.back().side;
  return longest / seenPart + (longest % seenPart != 0 ? 1 : 0);
}

/// The part of a region that lies in the frame, on even coordinates.
Window clipped(const Window& region, int32_t width, int32_t height) {
  const auto span = [](int64_t begin, int64_t size, int64_t limit) {
    const int64_t first = std::clamp<int64_t>(begin, 0, limit) / 2 * 2;
    const int64_t end = std::clamp<int64_t>(begin + size, 0, limit);
    return Span{static_cast<int32_t>(first),
                static_cast<int32_t>(std::min(end + end % 2, limit) - first)};
  };
  const Span x = span(region.x, region.width, width);
  const Span y = span(region.y, region.height, height);
  return {x.begin, y.begin, x.size, y.size};
}

}  // namespace

WindowPlan planWindows(int32_t width, int32_t height, const WindowWish& wish) {
  std::vector<Window> areas;
  for (const Window& region : wish.regions)
    if (touchesFrame(region, width, height))
      addOnce(clipped(region, width, height), areas);
  WindowPlan plan;
  if (wish.regions.empty())
    areas = {{0, 0, width, height}};
  for (size_t i = 0; i < areas.size(); ++i) {
    // What an area leaves over is for those behind it, and each of them has its first window.
    const auto left = static_cast<int64_t>(areas.size() - i);
    const int64_t rest = wish.mostWindows - static_cast<int64_t>(plan.windows.size());
    const int32_t reached =
        addWindows(areas[i], wish.smallestFace, std::max<int64_t>(rest / left, 1), plan.windows);
    const auto area = std::ranges::find(plan.windows, areas[i]);
    plan.areas.push_back(static_cast<size_t>(area - plan.windows.begin()));
    plan.smallestFace = std::max(plan.smallestFace, reached);
  }
  return plan;
}

std::optional<Window> parseRegion(std::string_view text) {
  Window region;
  int32_t* const numbers[] = {&region.x, &region.y, &region.width, &region.height};
  const char* next = text.data();
  const char* end = next + text.size();
  for (int32_t* number : numbers) {
    const auto [rest, failure] = std::from_chars(next, end, *number);
    const bool isLast = number == &region.height;
    if (failure != std::errc() || (isLast ? rest != end : rest == end || *rest != ','))
      return std::nullopt;
    next = isLast ? rest : rest + 1;
  }
  return isRegion(region) ? std::optional(region) : std::nullopt;
}

}  // namespace tavro::host
