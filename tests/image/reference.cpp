#include "tests/image/reference.h"

#include <algorithm>
#include <cstdlib>

#include "image/row_kernels.h"
#include "tests/support/processor.h"

namespace tavro::test {
namespace {

// The positions along one direction: the first one and the step.
struct Positions {
  int64_t first = 0;
  int64_t step = 0;

  Positions(int64_t src, int64_t dst, int32_t filter) {
    const int64_t shift = filter == 2 ? 32768 : 0;
    if (filter == 2 && dst > src) {
      step = (src * 65536 - 65537) / (dst - 1);
    } else if (src == 32768 && dst == 1) {
      first = 0x40000000 + shift;  // the ratio 1 << 31 has become negative
    } else {
      step = src * 65536 / dst;
      first = step / 2 - shift;
    }
  }

  int64_t at(int64_t i) const { return first + i * step; }
};

int64_t floorOf(int64_t position) {
  return position >> 16;
}

// One byte of column i between its neighbours a and b.
uint8_t filteredColumn(int32_t a, int32_t b, int64_t position, int32_t i, int32_t width,
                       int32_t bytesPerPixel, bool plainRowsOnly) {
  const auto fraction = static_cast<int32_t>(position & 65535);
  const int32_t f = fraction >> 9;
  if (bytesPerPixel == 4 || (bytesPerPixel == 1 && !plainRowsOnly && i < width / 8 * 8))
    return static_cast<uint8_t>((a * (127 - f) + b * f) >> 7);
  if (bytesPerPixel == 1 || plainRowsOnly)
    return static_cast<uint8_t>(a + (((b - a) * fraction) >> 16));
  const bool isLast = width <= 2 || i >= width - (width % 2 == 0 ? 2 : 1);
  const int32_t coarse = fraction >> 10;
  return static_cast<uint8_t>(isLast ? a + (((b - a) * f + 64) >> 7)
                                     : (a * (64 - coarse) + b * coarse + 32) >> 6);
}

uint8_t blendedRows(int32_t a, int32_t b, int32_t fraction) {
  if (fraction == 0)
    return static_cast<uint8_t>(a);
  return static_cast<uint8_t>(fraction == 128 ? (a + b + 1) >> 1
                                              : (a * (256 - fraction) + b * fraction + 128) >> 8);
}

// One byte of two pixels of a row and of the two below them.
int32_t packedBox(int32_t a, int32_t b, int32_t c, int32_t d, bool blockForm) {
  const auto mean = [](int32_t p, int32_t q) { return (p + q + 1) / 2; };
  return blockForm ? mean(mean(a, c), mean(b, d)) : (a + b + c + d + 2) / 4;
}

// A part of an image at another size. Its samples are those of whichever way of scaling fits.
struct Scaling {
  const ImagePart& src;
  int32_t width, height, filter;
  bool plainRowsOnly;
  Positions columns = Positions(src.width, width, filter);
  Positions rows = Positions(src.height, height, filter);

  // The row at a position, with its lower neighbour above the last row.
  int32_t blendedAt(int32_t i, int64_t y, int32_t byte, bool blends) const {
    const int64_t at = std::min(y, src.height > 1 ? (src.height - 1) * int64_t{65536} - 1 : 0);
    return blendedRows(src.at(i, floorOf(at), byte), src.at(i, floorOf(at) + 1, byte),
                       blends ? static_cast<int32_t>(at >> 8 & 255) : 0);
  }

  // Interpolated columns, and rows if they are blended: those first if there are fewer of them.
  int32_t interpolated(int32_t i, int32_t j, int32_t byte, bool blends) const {
    const int64_t x = floorOf(columns.at(i)), y = floorOf(rows.at(j));
    const int32_t fraction = blends ? static_cast<int32_t>(rows.at(j) >> 8 & 255) : 0;
    const int32_t a = src.at(x, y, byte), b = src.at(x + 1, y, byte);
    const int32_t c = src.at(x, y + 1, byte), d = src.at(x + 1, y + 1, byte);
    const auto column = [&](int32_t left, int32_t right) {
      return filteredColumn(left, right, columns.at(i), i, width, src.bytesPerPixel, plainRowsOnly);
    };
    return height > src.height ? blendedRows(column(a, b), column(c, d), fraction)
                               : column(blendedRows(a, c, fraction), blendedRows(b, d, fraction));
  }

  int32_t planeSample(int32_t i, int32_t j) const {
    const bool blends = filter == 2 && height != src.height;
    if (width == src.width && height == src.height)
      return src.at(i, j);
    if (width == src.width)
      return blendedAt(i, j * (int64_t{src.height} * 65536 / height), 0, filter != 0);
    if (src.width == 2 * width && src.height == 2 * height) {
      const int64_t left = 2 * int64_t{i}, up = 2 * int64_t{j};
      const int32_t top = src.at(left, up) + src.at(left + 1, up);
      const int32_t bottom = src.at(left, up + 1) + src.at(left + 1, up + 1);
      if (filter == 0)
        return src.at(left + 1, up + 1);
      return filter == 1 ? (top + 1) >> 1 : (top + bottom + 2) >> 2;
    }
    if (filter == 0)
      return src.at(width == 2 * src.width ? i / 2 : floorOf(columns.at(i)), floorOf(rows.at(j)));
    return interpolated(i, j, 0, blends);
  }

  int32_t packedSample(int32_t i, int32_t j, int32_t byte) const {
    const auto isWhole = [](int64_t position) { return position % 65536 == 0; };
    const auto isOdd = [](int64_t step) { return step / 65536 % 2 == 1; };
    const bool wholeSteps = isWhole(columns.step) && isWhole(rows.step);
    const bool rowsOnly = columns.step == 65536 && isWhole(columns.first);
    const int64_t y = floorOf(rows.at(j));
    if (wholeSteps && columns.step == 131072 && !isOdd(rows.step)) {
      const int64_t left = 2 * int64_t{i}, right = left + 1;
      const int32_t a = src.at(left, y, byte), b = src.at(right, y, byte);
      const int32_t block = src.bytesPerPixel == 3 ? 16 : 4;
      if (filter != 2)
        return filter == 0 ? b : (a + b + 1) / 2;
      return packedBox(a, b, src.at(left, y + 1, byte), src.at(right, y + 1, byte),
                       !plainRowsOnly && i < width / block * block);
    }
    if ((wholeSteps && isOdd(columns.step) && isOdd(rows.step)) || (filter == 0 && !rowsOnly))
      return src.at(floorOf(columns.at(i)), y, byte);
    if (rowsOnly)
      return blendedAt(i, rows.at(j), byte, true);
    return interpolated(i, j, byte, filter == 2 && src.height != height);
  }
};

}  // namespace

TestPlane::TestPlane(int32_t planeWidth, int32_t planeHeight, int32_t gap, Guard guard,
                     bool isUpsideDown)
    : width(planeWidth),
      height(planeHeight),
      stride(isUpsideDown ? -(planeWidth + gap) : planeWidth + gap),
      start(isUpsideDown ? ptrdiff_t{planeWidth + gap} * (height - 1) : 0),
      bytes(static_cast<size_t>(planeWidth + gap) * static_cast<size_t>(height - 1) +
                static_cast<size_t>(width),
            guard) {}

uint8_t TestPlane::at(int32_t x, int32_t y) const {
  return firstRow()[ptrdiff_t{y} * stride + x];
}

int32_t ImagePart::at(int64_t x, int64_t y, int32_t byte) const {
  const auto inside = [](int64_t i, int64_t size) { return std::clamp<int64_t>(i, 0, size - 1); };
  const int64_t column = inside(left + inside(x, width), plane.width / bytesPerPixel);
  return plane.at(static_cast<int32_t>(column * bytesPerPixel + byte),
                  static_cast<int32_t>(inside(top + inside(y, height), plane.height)));
}

Bytes scaled(const ImagePart& src, int32_t width, int32_t height, int32_t filter,
             bool plainRowsOnly) {
  if (src.bytesPerPixel == 1 && filter == 2 && height == src.height && width != src.width)
    filter = 1;  // a plane then starts where that filter does, packed pixels don't
  const Scaling scaling = {src, width, height, filter, plainRowsOnly};
  Bytes samples;
  for (int32_t j = 0; j < height; ++j)
    for (int32_t i = 0; i < width; ++i)
      for (int32_t byte = 0; byte < src.bytesPerPixel; ++byte)
        samples.push_back(static_cast<uint8_t>(
            src.bytesPerPixel == 1 ? scaling.planeSample(i, j) : scaling.packedSample(i, j, byte)));
  return samples;
}

Bgr bgrOf(int32_t y, int32_t u, int32_t v) {
  const int32_t y1 = static_cast<int32_t>(int64_t{y} * 257 * 18997 / 65536);
  const auto byte = [&](int32_t chroma) {
    return static_cast<uint8_t>(std::clamp((y1 + chroma) >> 6, 0, 255));
  };
  return {byte(128 * u - 17544), byte(8696 - 25 * u - 52 * v), byte(102 * v - 14216)};
}

Yuv yuvOf(const Rgb& colour, bool isPlain) {
  const auto [r, g, b] = colour;
  // Division that rounds down, also below 0.
  const auto in256ths = [](int32_t sum) { return (sum - (sum % 256 + 256) % 256) / 256; };
  const auto chroma = [&](int32_t sum) {
    return static_cast<uint8_t>(isPlain ? in256ths(sum + 0x8080) : in256ths(sum) + 128);
  };
  const int32_t luma =
      isPlain ? (66 * r + 129 * g + 25 * b + 0x1080) / 256 : (33 * r + 65 * g + 13 * b) / 128 + 16;
  return {static_cast<uint8_t>(luma), chroma(112 * b - 74 * g - 38 * r),
          chroma(112 * r - 94 * g - 18 * b)};
}

testing::AssertionResult holds(const TestPlane& dst, const Bytes& expected) {
  for (size_t i = 0; i < dst.bytes.size(); ++i) {
    const auto rowBytes = static_cast<size_t>(std::abs(dst.stride));
    const size_t row = i / rowBytes, x = i % rowBytes;
    const size_t y = dst.stride < 0 ? static_cast<size_t>(dst.height) - 1 - row : row;
    const bool isGap = x >= static_cast<size_t>(dst.width);
    const uint8_t wanted = isGap ? GuardedBuffer<uint8_t>::poison
                                 : expected.at(y * static_cast<size_t>(dst.width) + x);
    if (dst.bytes[i] != wanted)
      return testing::AssertionFailure()
             << "column " << x << " row " << y << (isGap ? " (gap)" : "") << ": " << +dst.bytes[i]
             << " instead of " << +wanted;
  }
  return dst.bytes.intact() ? testing::AssertionSuccess()
                            : testing::AssertionFailure() << "wrote outside the plane";
}

// --- The sweep ---

namespace {

using TavroRTC::FDModule::CpuInfo;
using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::ImageDesc;
using TavroRTC::FDModule::ImageFormat;
using TavroRTC::FDModule::setPlainRowsOnly;

enum class Form { twin, block, plain };

testing::AssertionResult checkForm(const ImageCase& c, Random& random, Guard guard, Form form) {
  const bool plainOnly = form == Form::plain;
  const Processor processor(form == Form::twin ? cpuInfo() : withoutAvx2());
  Planes src = makePlanes(c.src, random, guard);
  Planes dst = makePlanes(c.dst, random, guard);
  const Content content = drawContent(random, Content::alternating);
  std::vector<Bytes> before;
  for (TestPlane& plane : src) {
    plane.fill(content, random);
    before.emplace_back(plane.bytes.begin(), plane.bytes.end());
  }
  setPlainRowsOnly(plainOnly ? 1 : 0);
  const int32_t status = c.run(src, dst);
  setPlainRowsOnly(0);
  if (status != 0)
    return testing::AssertionFailure() << "refused";
  for (size_t i = 0; i < src.size(); ++i)
    if (!src[i].bytes.intact() || !isUnchanged(before[i], src[i].bytes.data()))
      return testing::AssertionFailure() << "changed its source";
  const std::vector<Bytes> expected = c.expected(src, plainOnly);
  for (size_t i = 0; i < dst.size(); ++i)
    if (testing::AssertionResult result = holds(dst[i], expected[i]); !result)
      return result << " in plane " << i << ", content " << static_cast<int>(content);
  return testing::AssertionSuccess();
}

}  // namespace

CpuInfo withoutAvx2() {
  CpuInfo info = cpuInfo();
  info.leaf7Ebx &= ~(1U << 5);
  return info;
}

testing::AssertionResult checkImage(const ImageCase& c, Random& random) {
  for (const Guard guard : {Guard::behind, Guard::inFront})
    for (const Form form : {Form::twin, Form::block, Form::plain}) {
      if (form == Form::twin && !cpuInfo().runsAvx2())
        continue;
      if (testing::AssertionResult result = checkForm(c, random, guard, form); !result) {
        result << ", form " << static_cast<int>(form) << ", planes";
        for (const Size& size : c.src)
          result << ' ' << size.width << 'x' << size.height;
        result << " to";
        for (const Size& size : c.dst)
          result << ' ' << size.width << 'x' << size.height;
        return result;
      }
    }
  return testing::AssertionSuccess();
}

Planes makePlanes(const std::vector<Size>& sizes, Random& random, Guard guard) {
  Planes planes;
  for (const Size& size : sizes)
    planes.emplace_back(size.width, size.height, random.chance(0.6) ? 0 : random.between(1, 5),
                        guard, random.chance(0.1));
  return planes;
}

ImageDesc describe(Planes& planes, Size size, ImageFormat format) {
  static GuardedBuffer<uint8_t> noMemory(0);  // its address is one that stops the program
  ImageDesc desc = {
      .widths = {size.width, -5, 1 << 30}, .heights = {size.height, 0, -1}, .format = format};
  for (size_t i = 0; i < 3; ++i) {
    const bool isThere = i < planes.size();
    desc.planes[i] = isThere ? planes[i].firstRow() : noMemory.data();
    desc.strides[i] = isThere ? planes[i].stride : INT32_MIN;
  }
  return desc;
}

bool isUntouched(const Planes& planes) {
  return std::ranges::all_of(planes, [](const TestPlane& plane) {
    return static_cast<bool>(
        holds(plane, Bytes(plane.bytes.size(), GuardedBuffer<uint8_t>::poison)));
  });
}

}  // namespace tavro::test
