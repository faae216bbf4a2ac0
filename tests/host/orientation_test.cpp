// Turning pictures upright, against a reference that works on coordinates one by one.

#include "host/app/orientation.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/display.h>
}

#include "tests/support/frames.h"
#include "tests/support/traced_random.h"

namespace tavro::host {
namespace {

/// Where FFmpeg's display matrix takes a stored sample, in a picture that is then moved back into
/// the positive quadrant: (x, y) times the matrix.
std::pair<int32_t, int32_t> displayed(const int32_t* matrix, int32_t x, int32_t y, int32_t width,
                                      int32_t height) {
  const auto sign = [&](int i) { return matrix[i] / 65536; };
  const int32_t movedX = sign(0) * x + sign(3) * y;
  const int32_t movedY = sign(1) * x + sign(4) * y;
  const int32_t lowestX = std::min(0, sign(0)) * (width - 1) + std::min(0, sign(3)) * (height - 1);
  const int32_t lowestY = std::min(0, sign(1)) * (width - 1) + std::min(0, sign(4)) * (height - 1);
  return {movedX - lowestX, movedY - lowestY};
}

TEST(Orientation, MovesEverySampleAsTheDisplayMatrixSays) {
  test::TracedRandom random;
  for (const auto& [width, height] : {std::pair{1, 1}, {1, 7}, {6, 4}, {33, 65}, {71, 40}}) {
    const I420Frame stored = test::randomFrame(random, width, height, width + random.between(0, 9),
                                               (width + 1) / 2 + random.between(0, 9));
    for (const double angle : {0.0, 90.0, 180.0, 270.0})
      for (const int mirrored : {0, 1, 2, 3}) {
        int32_t matrix[9];
        av_display_rotation_set(matrix, angle);
        av_display_matrix_flip(matrix, mirrored & 1, mirrored >> 1);
        SCOPED_TRACE(testing::Message()
                     << width << "x" << height << " by " << angle << ", mirrored " << mirrored);
        const auto upright = turnedUpright(stored, orientationOf(matrix));
        ASSERT_TRUE(upright.has_value());
        for (int32_t plane = 0; plane < planeCount; ++plane) {
          const int32_t planeWidth = stored.planeWidth(plane);
          const int32_t planeHeight = stored.planeHeight(plane);
          for (int32_t y = 0; y < planeHeight; ++y)
            for (int32_t x = 0; x < planeWidth; ++x) {
              const auto [toX, toY] = displayed(matrix, x, y, planeWidth, planeHeight);
              ASSERT_LT(toX, upright->planeWidth(plane));
              ASSERT_LT(toY, upright->planeHeight(plane));
              ASSERT_EQ(upright->planeData(plane)[toY * upright->planeStride(plane) + toX],
                        stored.planeData(plane)[y * stored.planeStride(plane) + x]);
            }
        }
      }
  }
}

TEST(Orientation, LeavesOtherAnglesAlone) {
  int32_t matrix[9] = {};
  EXPECT_TRUE(orientationOf(matrix).isUpright());
  for (const double angle : {30.0, 45.0, 100.0, -135.0}) {
    av_display_rotation_set(matrix, angle);
    EXPECT_TRUE(orientationOf(matrix).isUpright()) << angle;
  }
  av_display_rotation_set(matrix, 90.2);  // rounded by whoever wrote it
  EXPECT_TRUE(orientationOf(matrix).transpose);
}

}  // namespace
}  // namespace tavro::host
