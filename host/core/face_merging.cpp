#include "host/core/face_merging.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <numeric>
#include <optional>
#include <utility>

#include "host/core/face_rects.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// One face or two?
constexpr double sameOverlap = 0.3;
constexpr double mostOf = 0.7;  // of the smaller one lies in the larger
constexpr double cutOffMostOf = 0.5;
constexpr double halfAsLarge = 0.5;  // by the lengths of their sides
constexpr double middle = 0.2;       // between the centres, in sizes of the larger

// How well a window shows a face.
constexpr double networkSize = 192.0;
constexpr double smallestGood = 32.0;
constexpr double largestGood = 96.0;
constexpr double closeToEdge = 0.05;  // in sizes of the face
constexpr double farFromEdge = 0.25;
constexpr double advantage = 0.3;  // of the window that the face was taken from before

// From frame to frame.
constexpr double followOverlap = 0.2;
constexpr double fadePart = 0.2;      // of the difference, each frame
constexpr double longestStep = 0.06;  // in sizes of the face

double widthOf(const FaceRect& face) {
  return static_cast<double>(face.right) - face.left;
}
double heightOf(const FaceRect& face) {
  return static_cast<double>(face.bottom) - face.top;
}
double sizeOf(const FaceRect& face) {
  return std::sqrt(std::max(widthOf(face), 0.0) * std::max(heightOf(face), 0.0));
}

/// The part of `inner` that lies in `outer`.
double partInside(const FaceRect& inner, const FaceRect& outer) {
  const FaceRect shared = {std::max(inner.left, outer.left), std::max(inner.top, outer.top),
                           std::min(inner.right, outer.right),
                           std::min(inner.bottom, outer.bottom)};
  const double area = widthOf(inner) * heightOf(inner);
  return area > 0.0 ? std::max(widthOf(shared), 0.0) * std::max(heightOf(shared), 0.0) / area : 0.0;
}

double distanceBetween(const FaceRect& a, const FaceRect& b) {
  const auto middleOf = [](double first, double second) { return (first + second) / 2.0; };
  return std::hypot(middleOf(a.left, a.right) - middleOf(b.left, b.right),
                    middleOf(a.top, a.bottom) - middleOf(b.top, b.bottom));
}

bool areSame(const FaceRect& a, const FaceRect& b, bool oneIsCutOff) {
  if (overlap(a, b) >= sameOverlap)
    return true;
  const bool bIsSmaller = sizeOf(b) < sizeOf(a);
  const FaceRect& smaller = bIsSmaller ? b : a;
  const FaceRect& larger = bIsSmaller ? a : b;
  const double inside = partInside(smaller, larger);
  if (inside < (oneIsCutOff ? cutOffMostOf : mostOf))
    return false;
  return oneIsCutOff || sizeOf(smaller) >= halfAsLarge * sizeOf(larger) ||
         distanceBetween(a, b) <= middle * sizeOf(larger);
}

using Edges = std::array<double, 4>;  // in the order of FaceRect

Edges edgesOf(const FaceRect& face) {
  return {double(face.left), double(face.top), double(face.right), double(face.bottom)};
}

template <typename Operation>
Edges combined(const Edges& a, const Edges& b, Operation operation) {
  Edges result;
  std::ranges::transform(a, b, result.begin(), operation);
  return result;
}

FaceRect rounded(const Edges& edges) {
  std::array<int32_t, 4> values;
  std::ranges::transform(edges, values.begin(), [](double edge) {
    return static_cast<int32_t>(std::clamp(std::round(edge), double{INT32_MIN}, double{INT32_MAX}));
  });
  return {values[0], values[1], values[2], values[3]};
}

/// A difference between two rectangles, somewhat less of it.
Edges faded(Edges offset, double size) {
  for (double& edge : offset) {
    const double step = std::min(fadePart * std::abs(edge), longestStep * size);
    edge = std::abs(edge) < 0.5 ? 0.0 : edge - std::copysign(step, edge);
  }
  return offset;
}

}  // namespace

double sightOf(const FaceRect& face, const Window& window, int32_t frameWidth,
               int32_t frameHeight) {
  const double width = widthOf(face);
  const double height = heightOf(face);
  if (width <= 0.0 || height <= 0.0)
    return 0.0;
  const double size = networkSize * std::min(width / window.width, height / window.height);
  double sight = std::min({1.0, size / smallestGood, largestGood / size});
  const auto look = [&](double distance, double length, bool isFramesEdge) {
    if (isFramesEdge)
      return;
    const double clearance = distance / length;
    sight *= clearance < closeToEdge ? 0.0 : std::min(clearance / farFromEdge, 1.0);
  };
  const FaceRect edges = {window.x, window.y, window.x + window.width, window.y + window.height};
  look(double(face.left) - edges.left, width, edges.left == 0);
  look(double(face.top) - edges.top, height, edges.top == 0);
  look(double(edges.right) - face.right, width, edges.right == frameWidth);
  look(double(edges.bottom) - face.bottom, height, edges.bottom == frameHeight);
  return sight;
}

std::vector<std::vector<size_t>> sameFaces(std::span<const Sighting> sightings,
                                           std::span<const Window> windows, int32_t frameWidth,
                                           int32_t frameHeight) {
  std::vector<double> sights;
  for (const Sighting& sighting : sightings)
    sights.push_back(sightOf(sighting.face, windows[sighting.window], frameWidth, frameHeight));
  std::vector<size_t> order(sightings.size());
  std::iota(order.begin(), order.end(), size_t{0});
  // Whatever is whole comes before whatever is cut off.
  std::ranges::stable_sort(order, std::ranges::greater(), [&](size_t index) {
    const bool isKept = sightings[index].follows != Sighting::nothing;
    return std::pair(sights[index] > 0.0, sights[index] + (isKept ? advantage : 0.0));
  });

  std::vector<std::vector<size_t>> groups;
  for (const size_t index : order) {
    std::vector<size_t>* home = nullptr;
    double closest = -1.0;
    for (std::vector<size_t>& group : groups) {
      const FaceRect& best = sightings[group.front()].face;
      const bool oneIsCutOff = sights[index] == 0.0 || sights[group.front()] == 0.0;
      const double shared = overlap(best, sightings[index].face);
      if (shared > closest && areSame(best, sightings[index].face, oneIsCutOff)) {
        home = &group;
        closest = shared;
      }
    }
    if (home != nullptr)
      home->push_back(index);
    else
      groups.push_back({index});
  }
  return groups;
}

FaceMerger::FaceMerger(std::vector<Window> windows, int32_t frameWidth, int32_t frameHeight)
    : windows_(std::move(windows)), frameWidth_(frameWidth), frameHeight_(frameHeight) {}

/// Finds the sightings that each face's window goes on to report.
void FaceMerger::followFaces(std::vector<Sighting>& sightings) const {
  for (size_t face = 0; face < faces_.size(); ++face) {
    Sighting* closest = nullptr;
    double most = followOverlap;
    for (Sighting& sighting : sightings) {
      const double shared = overlap(sighting.face, faces_[face].opinion);
      if (sighting.window == faces_[face].window && sighting.follows == Sighting::nothing &&
          shared >= most) {
        closest = &sighting;
        most = shared;
      }
    }
    if (closest != nullptr)
      closest->follows = face;
  }
}

/// The known face that each group is: the one that its best sighting follows, else one that another
/// follows, else the one that was shown there. Sighting::nothing for a new face.
std::vector<size_t> FaceMerger::findOwners(const Groups& groups,
                                           std::span<const Sighting> sightings) const {
  std::vector<size_t> owners(groups.size(), Sighting::nothing);
  const auto claim = [&](size_t group, size_t face) {
    if (owners[group] == Sighting::nothing && std::ranges::find(owners, face) == owners.end())
      owners[group] = face;
  };
  for (size_t group = 0; group < groups.size(); ++group)
    claim(group, sightings[groups[group].front()].follows);
  for (size_t group = 0; group < groups.size(); ++group)
    for (const size_t sighting : groups[group])
      claim(group, sightings[sighting].follows);

  struct Pair {
    double shared;
    size_t group;
    size_t face;
  };
  std::vector<Pair> pairs;
  for (size_t group = 0; group < groups.size(); ++group)
    for (size_t face = 0; face < faces_.size(); ++face)
      if (const double shared = overlap(sightings[groups[group].front()].face, faces_[face].shown);
          shared >= followOverlap)
        pairs.push_back({shared, group, face});
  std::ranges::stable_sort(pairs, std::ranges::greater(), &Pair::shared);
  for (const Pair& pair : pairs)
    claim(pair.group, pair.face);
  return owners;
}

FaceMerger::Edges FaceMerger::offsetAfter(const Face& before, size_t owner,
                                          std::span<const Sighting> sightings,
                                          std::span<const size_t> group) {
  const Sighting& best = sightings[group.front()];
  // Two opinions on one frame tell how far they are apart, also if the face moves.
  for (const size_t sighting : group)
    if (sightings[sighting].follows == owner)
      return combined(combined(edgesOf(sightings[sighting].face), before.offset, std::plus()),
                      edgesOf(best.face), std::minus());
  for (const Sighting& other : before.others)
    if (other.window == best.window && overlap(other.face, best.face) >= followOverlap)
      return combined(edgesOf(before.shown), edgesOf(other.face), std::minus());
  return combined(edgesOf(before.shown), edgesOf(best.face), std::minus());
}

std::span<const FaceRect> FaceMerger::update(std::vector<Sighting> sightings) {
  followFaces(sightings);
  const Groups groups = sameFaces(sightings, windows_, frameWidth_, frameHeight_);
  const std::vector<size_t> owners = findOwners(groups, sightings);

  std::vector<std::optional<Face>> known(faces_.size());
  std::vector<Face> added;
  for (size_t i = 0; i < groups.size(); ++i) {
    const Sighting& best = sightings[groups[i].front()];
    Face face{.window = best.window, .opinion = best.face, .shown = best.face};
    for (const size_t other : std::span(groups[i]).subspan(1))
      face.others.push_back(sightings[other]);
    if (owners[i] == Sighting::nothing) {
      added.push_back(std::move(face));
      continue;
    }
    face.offset =
        faded(offsetAfter(faces_[owners[i]], owners[i], sightings, groups[i]), sizeOf(best.face));
    face.shown = rounded(combined(edgesOf(best.face), face.offset, std::plus()));
    known[owners[i]] = std::move(face);
  }
  faces_.clear();
  for (std::optional<Face>& face : known)
    if (face.has_value())
      faces_.push_back(std::move(*face));
  std::ranges::move(added, std::back_inserter(faces_));
  shown_.clear();
  std::ranges::transform(faces_, std::back_inserter(shown_), &Face::shown);
  return shown_;
}

}  // namespace tavro::host
