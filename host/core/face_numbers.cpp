#include "host/core/face_numbers.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "host/core/face_rects.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

constexpr double memory = 1.0;  // seconds
constexpr double smallestOverlap = 0.2;

struct Pair {
  double overlap;
  size_t face;
  size_t known;
};

}  // namespace

std::span<const int64_t> FaceNumbers::update(std::span<const FaceRect> faces, double time) {
  std::vector<Lost> known = std::move(present_);
  for (const Lost& lost : lost_)
    if (time - lost.lastSeen <= memory)
      known.push_back(lost);

  std::vector<Pair> pairs;
  for (size_t face = 0; face < faces.size(); ++face)
    for (size_t other = 0; other < known.size(); ++other)
      if (const double shared = overlap(faces[face], known[other].face); shared >= smallestOverlap)
        pairs.push_back({shared, face, other});
  std::ranges::stable_sort(pairs, std::ranges::greater(), &Pair::overlap);

  numbers_.assign(faces.size(), 0);
  for (const Pair& pair : pairs)
    if (numbers_[pair.face] == 0 && known[pair.known].number != 0)
      std::swap(numbers_[pair.face], known[pair.known].number);
  present_.clear();
  for (size_t face = 0; face < faces.size(); ++face) {
    if (numbers_[face] == 0)
      numbers_[face] = ++count_;
    present_.push_back({numbers_[face], faces[face], time});
  }
  std::erase_if(known, [](const Lost& face) { return face.number == 0; });
  lost_ = std::move(known);
  return numbers_;
}

void FaceNumbers::forget() {
  present_.clear();
  lost_.clear();
}

}  // namespace tavro::host
