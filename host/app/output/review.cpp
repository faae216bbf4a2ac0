#include "host/app/output/review.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "host/app/output/best_faces.h"
#include "host/app/output/text_format.h"
#include "host/app/platform/media.h"
#include "host/core/face_cover.h"
#include "host/core/face_rects.h"
#include "host/core/window_plan.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// How far a face may have been from where it is found first, or last, and when.
constexpr double unseen = 1.0;  // seconds
constexpr double memory = 1.0;  // seconds, as that of FaceNumbers
// Where a face was meanwhile is no question after a shorter gap, if it has hardly moved.
constexpr double shortGap = 0.2;
constexpr double samePlace = 0.5;
constexpr double nearlyUnseen = 1.4;  // times the smallest size that is found
constexpr int32_t networkSide = 192;
constexpr long long leastWish = 8;  // pixels

FaceRect around(const FaceRect& a, const FaceRect& b) {
  return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
          std::max(a.bottom, b.bottom)};
}

double milliseconds(double time, bool isEnd) {
  const double value = std::max(time, 0.0) * 1000.0;
  return (isEnd ? std::ceil(value) : std::floor(value)) / 1000.0;
}

bool coversAll(const TimedArea& area, const FaceRect& place, const TimeSpan& when) {
  return area.area.x <= place.left && area.area.y <= place.top &&
         int64_t{area.area.x} + area.area.width >= place.right &&
         int64_t{area.area.y} + area.area.height >= place.bottom && area.when.from <= when.from &&
         area.when.to >= when.to;
}

std::string faceName(int64_t number) {
  return "Face " + std::to_string(number);
}

}  // namespace

bool Review::add(const I420Frame& picture, const FrameResult& result) {
  width_ = picture.width();
  height_ = picture.height();
  for (size_t i = 0; i < result.faces.size(); ++i) {
    noteSize(result.faceNumbers[i], result.faces[i], result.time);
    if (!see(picture, result.faceNumbers[i], result.faces[i], result.time))
      return false;
  }
  if (!findCrossings(picture, result))
    return false;
  tellEnds(result.time - memory);
  latest_ = result.time;
  return true;
}

/// A face that wasn't there in the frame before is new, or comes back after a gap.
bool Review::see(const I420Frame& picture, int64_t number, const FaceRect& face, double time) {
  std::optional<I420Frame> cut;
  if (!cutFrom(picture, face, cut))
    return false;
  const auto known = present_.find(number);
  const bool isNew = known == present_.end();
  if (isHidden(number) && isNew && latest_.has_value() && isInMiddle(face))
    tellHide(time, faceName(number) + " appears in mid-picture. It may have shown before.",
             {face, {time - unseen, time}, encoded(cut)});
  if (isHidden(number) && !isNew && known->second.time < *latest_ &&
      (time - known->second.time > shortGap || overlap(known->second.face, face) < samePlace))
    tellHide(
        known->second.time,
        faceName(number) + " isn't found for " + decimal(time - known->second.time, 2) +
            " seconds. What is hidden meanwhile lies between both places.",
        {around(known->second.face, face), {known->second.time, time}, encoded(known->second.cut)});
  present_.insert_or_assign(number, Sighting{face, time, std::move(cut)});
  return true;
}

/// Two faces that meet may take each other's number, or one goes behind the other.
bool Review::findCrossings(const I420Frame& picture, const FrameResult& result) {
  for (size_t i = 0; i < result.faces.size(); ++i)
    for (size_t j = i + 1; j < result.faces.size(); ++j) {
      const FaceRect& a = result.faces[i];
      const FaceRect& b = result.faces[j];
      if (std::max(a.left, b.left) >= std::min(a.right, b.right) ||
          std::max(a.top, b.top) >= std::min(a.bottom, b.bottom))
        continue;
      const FaceRect both = around(a, b);
      const std::pair<int64_t, int64_t> numbers =
          std::minmax(result.faceNumbers[i], result.faceNumbers[j]);
      const auto [crossing, isNew] =
          crossings_.try_emplace(numbers, Event{both, {result.time, result.time}});
      if (isNew) {
        std::optional<I420Frame> cut;
        if (!cutFrom(picture, both, cut))
          return false;
        crossing->second.jpeg = encoded(cut);
      }
      crossing->second.place = around(crossing->second.place, both);
      crossing->second.when.to = result.time;
    }
  return true;
}

void Review::noteSize(int64_t number, const FaceRect& face, double time) {
  const double width = double(face.right) - face.left;
  const double height = double(face.bottom) - face.top;
  const double side = std::sqrt(std::max(0.0, width * height));
  const double limit = request_.smallestFace > 0
                           ? request_.smallestFace
                           : std::sqrt(double(width_) * double(height_)) * seenSize / networkSide;
  if (side >= limit * nearlyUnseen || side < 1.0 || !request_.hiding.when.contains(time))
    return;
  if (!smallest_.has_value() || side < smallest_->side)
    smallest_ = {number, time, side};
}

/// Tells of what was seen last before that time.
void Review::tellEnds(double time) {
  std::erase_if(present_, [&](const auto& entry) {
    const auto& [number, seen] = entry;
    if (seen.time >= time)
      return false;
    if (isHidden(number) && isInMiddle(seen.face))
      tellHide(seen.time, faceName(number) + " is lost in mid-picture. It may show afterwards.",
               {seen.face, {seen.time, seen.time + FaceCover::lead + unseen}, encoded(seen.cut)});
    return true;
  });
  std::erase_if(crossings_, [&](const auto& entry) {
    const auto& [numbers, event] = entry;
    if (event.when.to >= time)
      return false;
    const double end = event.when.to + 0.001;  // the last frame is one of them
    tellHide(event.when.from,
             "Faces " + std::to_string(numbers.first) + " and " + std::to_string(numbers.second) +
                 " meet. They may take each other's number, or one may go unseen.",
             {event.place, {event.when.from, end}, event.jpeg});
    return true;
  });
}

std::vector<Moment> Review::moments() {
  // Who is there in the last frame isn't lost.
  std::erase_if(present_, [&](const auto& entry) { return entry.second.time >= *latest_; });
  tellEnds(std::numeric_limits<double>::infinity());
  if (smallest_.has_value() && request_.smallestFace != leastWish)
    moments_.push_back(
        {smallest_->time,
         faceName(smallest_->number) + " has a side of " +
             std::to_string(std::llround(smallest_->side)) +
             " pixels, hardly more than what can be found. Smaller faces may have been missed.",
         "--smallest-face " +
             std::to_string(std::max(std::llround(smallest_->side / 2), leastWish))});
  std::ranges::stable_sort(moments_, {}, &Moment::time);
  return std::move(moments_);
}

/// A face that shows there has to be hidden by hand.
void Review::tellHide(double time, std::string what, Event event) {
  const HidingOptions& hiding = request_.hiding;
  FaceRect place = withMargin(event.place, hiding.style.margin);
  place = {std::max(place.left, 0), std::max(place.top, 0), std::min(place.right, width_),
           std::min(place.bottom, height_)};
  const TimeSpan when = {std::max({milliseconds(event.when.from, false), hiding.when.from}),
                         std::min(milliseconds(event.when.to, true), hiding.when.to)};
  const auto isHidden = [&](const TimedArea& area) { return coversAll(area, place, when); };
  if (when.from >= when.to || place.left >= place.right || place.top >= place.bottom ||
      std::ranges::any_of(hiding.hide, isHidden))
    return;
  moments_.push_back({time, std::move(what),
                      "--hide " + std::to_string(place.left) + ',' + std::to_string(place.top) +
                          ',' + std::to_string(place.right - place.left) + ',' +
                          std::to_string(place.bottom - place.top) + '@' + decimal(when.from, 3) +
                          '-' + decimal(when.to, 3),
                      std::move(event.jpeg)});
}

bool Review::isHidden(int64_t number) const {
  const std::vector<int64_t>& kept = request_.hiding.keepFaces;
  return std::ranges::find(kept, number) == kept.end();
}

/// A face at the border has come in or goes out.
bool Review::isInMiddle(const FaceRect& face) const {
  const FaceRect wide = withMargin(face);
  return wide.left > 0 && wide.top > 0 && wide.right < width_ && wide.bottom < height_;
}

bool Review::cutFrom(const I420Frame& picture, const FaceRect& face,
                     std::optional<I420Frame>& cut) const {
  if (request_.largestSide == 0)
    return true;
  cut = cutOut(picture, face, request_.largestSide);
  return cut.has_value() || faceQuality(picture, face) == 0.0;
}

std::vector<uint8_t> Review::encoded(const std::optional<I420Frame>& cut) const {
  return cut.has_value() ? encodeJpeg(*cut, request_.colorMatrix) : std::vector<uint8_t>();
}

}  // namespace tavro::host
