#pragma once

// Where the taps of a convolution fall: which of them lie inside the image for one position, and
// which columns of a row need no such test at all.

#include <cstddef>

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule {
// Internal to each kernel file: the files are compiled for different instruction sets, and a shared
// inline function would end up in the program in whichever of its forms the linker meets first.
// std::min and std::max are such functions, too.
namespace {

constexpr int32_t least(int32_t a, int32_t b) {
  return a < b ? a : b;
}
constexpr int32_t greatest(int32_t a, int32_t b) {
  return a > b ? a : b;
}

/// Taps from begin up to, not including, end.
struct TapRange {
  int32_t begin;
  int32_t end;
};

/// The taps of a window at `position` (negative in the padding) that lie inside 0 to extent - 1.
inline TapRange tapsInside(int32_t position, int32_t extent, int32_t kernel, int32_t dilation) {
  return {greatest(0, (dilation - position - 1) / dilation),
          least(kernel, (extent + dilation - 1 - position) / dilation)};
}

inline TapRange rowTaps(const ConvProblem& p, int32_t y) {
  return tapsInside(y * p.strideH - p.padTop, p.inputH, p.kernelH, p.dilationH);
}

inline TapRange columnTaps(const ConvProblem& p, int32_t x) {
  return tapsInside(x * p.strideW - p.padLeft, p.inputW, p.kernelW, p.dilationW);
}

/// The columns of every row: those from tileBegin to tileEnd - 1 go in whole tiles, and all taps of
/// their windows lie inside the image; the others go one by one.
struct ColumnZones {
  int32_t tileBegin;
  int32_t tileEnd;
};

inline ColumnZones columnZones(const ConvProblem& p, int32_t tile) {
  const int32_t left = (p.padLeft + p.strideW - 1) / p.strideW;
  const int32_t right = (p.padRight + p.strideW - 1) / p.strideW;
  const int32_t middle = greatest(p.outputW - left - right, 0) / tile * tile;
  const int32_t begin = least(left, p.outputW);
  return {begin, begin + middle};
}

/// The first channel of block `index`: a short last block is moved back to end at the last channel.
inline int32_t blockStart(int32_t index, int32_t block, int32_t channels) {
  return greatest(least(index * block, channels - block), 0);
}

inline int32_t blockCount(int32_t block, int32_t channels) {
  return (channels + block - 1) / block;
}

/// Goes over the output in rising order and calls `pixel(y, x, rows, columns)` for a single column
/// or `tiles(y, x, rows, columns)` for a tile that begins at x; both get the taps that are inside.
template <int tile, typename Pixel, typename Tile>
inline void forEachZone(const ConvProblem& p, Pixel pixel, Tile tiles) {
  const ColumnZones zones = columnZones(p, tile);
  for (int32_t y = 0; y < p.outputH; ++y) {
    const TapRange rows = rowTaps(p, y);
    for (int32_t x = 0; x < zones.tileBegin; ++x)
      pixel(y, x, rows, columnTaps(p, x));
    for (int32_t x = zones.tileBegin; x < zones.tileEnd; x += tile)
      tiles(y, x, rows, TapRange{0, p.kernelW});
    for (int32_t x = zones.tileEnd; x < p.outputW; ++x)
      pixel(y, x, rows, columnTaps(p, x));
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
