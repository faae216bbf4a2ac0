#include "image/row_kernels.h"

#include <gtest/gtest.h>

#include <vector>

namespace TavroRTC::FDModule {
namespace {

// What the kernels compute is tested through the scalers and converters, at every width.

TEST(RowKernelSelection, goesByWholeBlocksAndTheSwitch) {
  const auto address = [](auto* kernel) { return reinterpret_cast<const void*>(kernel); };
  const auto kernelsAt = [&](int32_t blocks, int32_t rest) {
    return std::vector{address(chooseInterpolateRows(blocks * 4 + rest, 4)),
                       address(chooseColumns(blocks * 8 + rest, 1)),
                       address(chooseColumns(blocks * 4 + rest, 4)),
                       address(chooseHalveRow(blocks * 16 + rest, 1, ScaleFilter::Nearest)),
                       address(chooseHalveRow(blocks * 16 + rest, 3, ScaleFilter::Bilinear)),
                       address(chooseHalveRow(blocks * 4 + rest, 4, ScaleFilter::Bilinear)),
                       address(chooseHalveRow(blocks * 16 + rest, 1, ScaleFilter::Bilinear)),
                       address(chooseYuvRow(blocks * 8 + rest, PackMode::threeBytes))};
  };
  const auto block = kernelsAt(1, 0);
  const auto withTail = kernelsAt(1, 1);
  EXPECT_EQ(kernelsAt(6, 0), block);
  EXPECT_EQ(kernelsAt(0, 3), withTail);
  setPlainRowsOnly(1);
  const auto plain = kernelsAt(6, 0);
  EXPECT_EQ(kernelsAt(6, 1), plain);
  setPlainRowsOnly(0);
  for (size_t i = 0; i < block.size(); ++i)
    EXPECT_TRUE(plain[i] != block[i] && plain[i] != withTail[i] && block[i] != withTail[i])
        << "family " << i;
}

TEST(RowKernels, widthsBelowOneDoNothing) {
  for (const bool plainOnly : {false, true})
    for (const int32_t width : {0, -1, -16, -37}) {
      SCOPED_TRACE(width);
      const uint8_t unread[4] = {};
      uint8_t first = 7, second = 7;
      setPlainRowsOnly(plainOnly ? 1 : 0);
      chooseCopyRow(width)(unread, &first, width);
      for (const int32_t fraction : {0, 128, 200})
        chooseInterpolateRows(width, 1)(&first, unread, 1, width, fraction);
      for (ColumnsRow* columns :
           {chooseColumns(width, 1), chooseColumns(width, 3), chooseColumns(width, 4),
            sampleColumns, sampleColumns24, sampleColumns32, doubleColumns})
        columns(&first, unread, width, 0, 1);
      for (const int32_t filter : {0, 1, 2})
        for (const int32_t bytes : {1, 3, 4})
          chooseHalveRow(width, bytes, static_cast<ScaleFilter>(filter))(unread, 1, &first, width);
      for (const int32_t mode : {1, 2, 3})
        chooseYuvRow(width, static_cast<PackMode>(mode))(unread, unread, unread, &first,
                                                         YuvTableBgr, width);
      for (const PixelLayout& layout : {rgb24, bgr24, rgba32, bgra32, argb32, abgr32}) {
        chooseLumaRow(width, layout)(unread, &first, width);
        chooseChromaRow(width, layout)(unread, 0, &first, &second, width);
      }
      for (const PackedOp op :
           {PackedOp::addOpaque, PackedOp::dropLast, PackedOp::addOpaqueSwapped})
        choosePackedRow(width, op)(unread, &first, width);
      chooseFineLumaRow(width)(unread, &first, width);
      chooseMergeChromaRow(width)(unread, unread, &first, width);
      chooseSplitChromaRow(width)(unread, &first, &second, width);
      setPlainRowsOnly(0);
      EXPECT_TRUE(first == 7 && second == 7);
    }
}

}  // namespace
}  // namespace TavroRTC::FDModule
