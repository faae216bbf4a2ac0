#include "image/yuv_to_packed.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "image/row_kernels.h"
#include "tests/image/reference.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Bgr;
using tavro::test::bgrOf;

TEST(YuvToPacked, knownColours) {
  const struct {
    uint8_t y, u, v, b, g, r;
  } rows[] = {{16, 128, 128, 0, 0, 0},        {235, 128, 128, 255, 255, 255},
              {128, 128, 128, 130, 130, 130}, {81, 90, 240, 0, 0, 254},
              {145, 54, 34, 2, 255, 0},       {41, 240, 110, 253, 0, 0},
              {255, 255, 255, 255, 125, 255}, {0, 0, 0, 0, 135, 0}};
  for (const auto& row : rows) {
    uint8_t out[3] = {};
    ASSERT_EQ(convertI420ToPacked(&row.y, 1, &row.u, 1, &row.v, 1, out, 3, yuvTableBgr, 1, 1,
                                  PackMode::threeBytes),
              0);
    EXPECT_TRUE(out[0] == row.b && out[1] == row.g && out[2] == row.r)
        << +row.y << ": " << +out[0] << ' ' << +out[1] << ' ' << +out[2];
  }
}

// All 2^24 colours, by both forms.
TEST(YuvToPacked, everyColourByBothForms) {
  uint8_t y[256], u[128], v[128], expected[768], actual[768];
  for (int32_t i = 0; i < 256; ++i)
    y[i] = static_cast<uint8_t>(i);
  for (int32_t chroma = 0; chroma < 65536; ++chroma) {
    std::memset(u, chroma & 255, sizeof(u));
    std::memset(v, chroma >> 8, sizeof(v));
    for (int32_t i = 0; i < 256; ++i) {
      const Bgr colour = bgrOf(i, chroma & 255, chroma >> 8);
      std::memcpy(expected + ptrdiff_t{3} * i, &colour, 3);
    }
    for (const bool plainOnly : {false, true}) {
      setPlainRowsOnly(plainOnly ? 1 : 0);
      chooseYuvRow(256, PackMode::threeBytes)(y, u, v, actual, yuvTableBgr, 256);
      setPlainRowsOnly(0);
      ASSERT_EQ(std::memcmp(actual, expected, sizeof(actual)), 0)
          << "u " << (chroma & 255) << " v " << (chroma >> 8) << " plain " << plainOnly;
    }
  }
}

TEST(YuvToPacked, refusesWithoutWriting) {
  uint8_t planes[4][4] = {};
  planes[3][0] = 7;
  const auto convert = [&](int missing, int32_t width, int32_t height, int32_t mode) {
    const auto plane = [&](int i) { return i == missing ? nullptr : planes[i]; };
    return convertI420ToPacked(plane(0), 1, plane(1), 1, plane(2), 1, plane(3), 4, yuvTableBgr,
                               width, height, static_cast<PackMode>(mode));
  };
  for (int missing = 0; missing < 4; ++missing)
    EXPECT_EQ(convert(missing, 1, 1, 3), -1) << missing;
  for (const auto& [width, height, mode] :
       {std::array{0, 1, 3}, {1, 0, 3}, {-8, 1, 3}, {1, INT32_MIN, 3}, {1, 1, 0}, {1, 1, 4}})
    EXPECT_EQ(convert(-1, width, height, mode), -1) << width << ' ' << height << ' ' << mode;
  EXPECT_EQ(planes[3][0], 7);
}

}  // namespace
}  // namespace TavroRTC::FDModule
