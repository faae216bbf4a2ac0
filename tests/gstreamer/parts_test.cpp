// The parts of the element that need no pipeline.

#include "gstreamer/face_message.h"
#include "tests/gstreamer/gstreamer_support.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

using gstreamer::Face;

/// How deep a luma sample lies in the rectangle, whose corners stand on even samples; negative
/// outside.
int32_t depthOf(int32_t x, int32_t y, const FaceRect& face, const Layout& layout) {
  const int32_t right = std::min((face.right + 1) / 2 * 2, layout.width);
  const int32_t bottom = std::min((face.bottom + 1) / 2 * 2, layout.height);
  return std::min({x - face.left / 2 * 2, y - face.top / 2 * 2, right - 1 - x, bottom - 1 - y});
}

class Drawing : public GStreamerTest {};

TEST_F(Drawing, ChangesTheOutlineAndNothingElse) {
  TracedRandom random;
  const uint8_t color[] = {173, 42, 26};
  const Portrait portrait;
  for (int round = 0; round < 60; ++round) {
    const Layout layout = {round % 2 == 0 ? "I420" : "NV12", random.between(1, 90),
                           round < 50 ? random.between(1, 90) : 960, random.between(0, 9)};
    FaceRect face;
    face.left = random.between(0, layout.width - 1);
    face.right = random.between(face.left + 1, layout.width);
    face.top = random.between(0, layout.height - 1);
    face.bottom = random.between(face.top + 1, layout.height);
    SCOPED_TRACE(layout.caps() + testing::PrintToString(face));
    const int32_t thickness = std::min(layout.width, layout.height) < 640 ? 2 : 4;

    const I420Frame before = portrait.frame(layout.width, layout.height);
    const BufferHandle buffer(makeBuffer(before, layout));
    const BufferHandle undrawn(gst_buffer_copy_deep(buffer.get()));
    GstVideoInfo info;
    gst_video_info_set_format(&info, layout.format(), static_cast<guint>(layout.width),
                              static_cast<guint>(layout.height));
    GstVideoFrame picture;
    ASSERT_TRUE(gst_video_frame_map(&picture, &info, buffer.get(), GST_MAP_READWRITE));
    const Face faces[] = {{1, face}};
    gstreamer::drawFaces(picture, faces);
    const I420Frame after = copyOf(picture);
    int32_t wrong = 0;
    for (int32_t plane = 0; plane < host::planeCount; ++plane)
      for (int32_t y = 0; y < after.planeHeight(plane); ++y)
        for (int32_t x = 0; x < after.planeWidth(plane); ++x) {
          const int32_t scale = plane == 0 ? 1 : 2;
          const int32_t depth = depthOf(x * scale, y * scale, face, layout);
          const int32_t sample = y * after.planeStride(plane) + x;
          const uint8_t now = after.planeData(plane)[sample];
          // At a border with an odd place the line may be thicker by the half chroma sample.
          const bool mayBeLine = depth >= 0 && depth <= thickness;
          const bool mustBeLine = depth >= 0 && depth < thickness;
          const bool isLine = now == color[plane];
          const bool isUntouched = now == before.planeData(plane)[sample];
          wrong += mustBeLine ? !isLine : !(isUntouched || (mayBeLine && isLine));
          // What has been checked is put back, and nothing may differ in the end.
          static_cast<uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(
              &picture, plane))[y * GST_VIDEO_FRAME_COMP_STRIDE(&picture, plane) +
                                x * GST_VIDEO_FRAME_COMP_PSTRIDE(&picture, plane)] =
              before.planeData(plane)[sample];
        }
    EXPECT_EQ(wrong, 0);
    gst_video_frame_unmap(&picture);
    ASSERT_EQ(bytesOf(buffer.get()), bytesOf(undrawn.get())) << "samples around the picture";
  }
}

}  // namespace
}  // namespace tavro::test
