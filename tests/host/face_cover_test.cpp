// What is hidden: everything that was found, moments before, between and after too, smoothly.

#include "host/core/face_cover.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;

constexpr int64_t number[] = {1};

bool contains(const FaceRect& outer, const FaceRect& inner) {
  return outer.left <= inner.left && outer.top <= inner.top && outer.right >= inner.right &&
         outer.bottom >= inner.bottom;
}

// A face of 40 pixels that moves by two pixels a frame and is found in some frames.
FaceRect faceAt(int32_t frame) {
  return {2 * frame, 100, 2 * frame + 40, 140};
}

FaceCover coverOf(int32_t frames, double rate, auto isFound) {
  FaceCover cover;
  for (int32_t i = 0; i < frames; ++i) {
    const FaceRect face = faceAt(i);
    if (isFound(i))
      cover.add(i / rate, {&face, 1}, number);
    else
      cover.add(i / rate, {}, {});
  }
  return cover;
}

TEST(FaceCover, ClosesGapsAndLeadsInAndOut) {
  struct Case {
    double rate;
    int32_t firstFound, lastBefore, firstAfter, lastFound;
  };
  for (const Case& c : {Case{30, 20, 40, 70, 90}, Case{25, 30, 31, 56, 57}, Case{10, 5, 6, 16, 18},
                        Case{60, 30, 60, 120, 130}}) {
    const auto lead = static_cast<int32_t>(std::floor(c.rate * FaceCover::lead + 1e-6));
    const FaceCover cover = coverOf(200, c.rate, [&](int32_t i) {
      return (i >= c.firstFound && i <= c.lastBefore) || (i >= c.firstAfter && i <= c.lastFound);
    });
    for (int32_t i = 0; i < 200; ++i) {
      const auto covers = cover.at(static_cast<size_t>(i));
      const bool isHidden = i >= c.firstFound - lead && i <= c.lastFound + lead;
      ASSERT_EQ(covers.size(), isHidden ? 1U : 0U) << c.rate << " a second, frame " << i;
      if (i >= c.firstFound && i <= c.lastFound) {
        EXPECT_TRUE(contains(covers[0], faceAt(i))) << i;
      }
    }
  }
  // Longer than a second, it is two appearances.
  const FaceCover cover =
      coverOf(200, 30, [](int32_t i) { return (i >= 20 && i <= 40) || (i >= 72 && i < 90); });
  for (int32_t i = 40; i <= 72; ++i)
    EXPECT_EQ(cover.at(static_cast<size_t>(i)).size(), i <= 50 || i >= 62 ? 1U : 0U) << i;
}

TEST(FaceCover, IsSmoothAndNeverUncoversWhatWasFound) {
  std::mt19937 random(5);
  for (int round = 0; round < 20; ++round) {
    FaceCover cover;
    std::vector<FaceRect> found;
    const double rate = std::uniform_int_distribution(8, 60)(random);
    for (int32_t i = 0; i < 120; ++i) {
      const auto tremble = [&] { return std::uniform_int_distribution(-6, 6)(random); };
      found.push_back({i + tremble(), 50 + tremble(), i + 60 + tremble(), 110 + tremble()});
      cover.add(i / rate, {&found.back(), 1}, number);
    }
    int64_t foundMoves = 0;
    int64_t coverMoves = 0;
    FaceRect before = cover.at(0).at(0);
    for (size_t i = 1; i < found.size(); ++i) {
      const FaceRect now = cover.at(i).at(0);
      ASSERT_TRUE(contains(now, found[i])) << rate << " a second, frame " << i;
      EXPECT_LE(now.right - now.left, 60 + 2 * 6 + static_cast<int>(0.4 * rate) + 14) << i;
      coverMoves += std::abs(now.top - before.top);
      foundMoves += std::abs(found[i].top - found[i - 1].top);
      before = now;
    }
    if (rate >= 24) {
      EXPECT_LT(coverMoves, foundMoves / 2) << rate;
    }
  }
}

TEST(FaceCover, KnowsEnoughAfterItsLookAheadAndForgetsTheRest) {
  std::mt19937 random(6);
  FaceCover whole;
  FaceCover brief;
  std::vector<std::vector<FaceRect>> soon;
  constexpr double rate = 30;
  const auto delay = static_cast<size_t>(std::ceil(FaceCover::lookAhead * rate));
  int64_t appearance = 0;
  int32_t lastFound = -1000;
  for (int32_t i = 0; i < 300; ++i) {
    const FaceRect face = faceAt(i);
    const bool isFound = random() % 20 == 0;
    // A track of its own for each appearance, as FaceNumbers has it; time stamps that begin anew.
    if (isFound && i - lastFound > rate)
      ++appearance;
    lastFound = isFound ? i : lastFound;
    for (FaceCover* cover : {&whole, &brief})
      cover->add(i % 100 / rate, {&face, isFound ? 1U : 0U}, {&appearance, isFound ? 1U : 0U});
    if (brief.frames() > delay + 3) {  // no time passes at the three stamps that go back
      const size_t shown = brief.frames() - 1 - delay - 3;
      soon.push_back(brief.at(shown));
      brief.forgetBefore(shown);
      EXPECT_GE(brief.secondsSince(shown), FaceCover::lookAhead - 1e-6);
    }
  }
  for (size_t i = 0; i < soon.size(); ++i)
    EXPECT_EQ(whole.at(i), soon[i]) << i;
}

}  // namespace
}  // namespace tavro::host
