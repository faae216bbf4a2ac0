#include "modules/face_detection/prior_boxes.h"

#include <array>

#include "modules/face_detection/network_input.h"

namespace TavroRTC::FDModule {
namespace {

constexpr float inputSide = networkInputSide;

struct Grid {
  int cells;     // along each side of the input
  float stride;  // side of a cell in input pixels
  int sizeCount;
  std::array<float, 3> sizes;  // sides of a cell's priors in input pixels
};

constexpr std::array<Grid, 3> grids = {{
    {24, 8, 3, {8, 16, 32}},
    {12, 16, 2, {64, 96}},
    {6, 32, 2, {128, 192}},
}};

constexpr size_t countPriors() {
  size_t count = 0;
  for (const Grid& grid : grids)
    count += static_cast<size_t>(grid.cells * grid.cells * grid.sizeCount);
  return count;
}
static_assert(countPriors() == priorCount);

}  // namespace

void generatePriors(std::span<PriorBox, priorCount> priors) {
  auto prior = priors.begin();
  for (const Grid& grid : grids) {
    const auto cellCentre = [&](int cell) {
      return (static_cast<float>(cell) + 0.5F) * grid.stride / inputSide;
    };
    for (int row = 0; row < grid.cells; ++row)
      for (int column = 0; column < grid.cells; ++column)
        for (size_t k = 0; k < static_cast<size_t>(grid.sizeCount); ++k) {
          const float side = grid.sizes[k] / inputSide;
          *prior++ = {cellCentre(column), cellCentre(row), side, side};
        }
  }
}

}  // namespace TavroRTC::FDModule
