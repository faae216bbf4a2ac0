// The three image dispatchers with any descriptor. Sizes, codes, rectangles and missing planes are
// arbitrary; each plane that a call may touch has exactly the bytes that its size and stride span,
// at any stride, below zero or shorter than a row, too.

#include <memory>
#include <string_view>

#include "fuzz/byte_reader.h"
#include "image/image_dispatch.h"
#include "image/row_kernels.h"

namespace {

using namespace TavroRTC::FDModule;
using tavro::fuzz::ByteReader;
using tavro::fuzz::require;

constexpr int64_t mostBytes = 1 << 19;

// What the planes of an image hold, a letter each: bytes per pixel, or a chroma plane of single
// samples (h) or of pairs (p).
using PlaneLetters = std::string_view;

struct Conversion {
  PlaneLetters src;
  PlaneLetters dst;
};
constexpr Conversion conversions[] = {
    {"3", "4"},    {"4", "3"},    {"3", "4"},   {"", ""},     {"", ""},      {"", ""},
    {"3", "1"},    {"3", "1"},    {"4", "1"},   {"4", "1"},   {"3", "1hh"},  {"3", "1hh"},
    {"4", "1hh"},  {"4", "1hh"},  {"4", "1hh"}, {"4", "1hh"}, {"1hh", "3"},  {"1hh", "3"},
    {"1hh", "4"},  {"1hh", "4"},  {"1hh", "4"}, {"1hh", "4"}, {"1hh", "1p"}, {"1hh", "1p"},
    {"1p", "1hh"}, {"1p", "1hh"},
};
constexpr PlaneLetters formats[] = {"4", "4", "4", "4", "3", "3", "1hh", "", "", "1"};

template <typename T, size_t count>
T lookUp(const T (&table)[count], int32_t code) {
  return code >= 0 && static_cast<size_t>(code) < count ? table[code] : T{};
}

/// An image in memory that ends where the planes do.
class Image {
 public:
  Image(int32_t width, int32_t height, PlaneLetters letters, ByteReader& in) {
    for (int i = 0; i < 3; ++i) {
      desc.widths[i] = i == 0 ? width : in.number();
      desc.heights[i] = i == 0 ? height : in.number();
      desc.strides[i] = in.number();
    }
    desc.format = static_cast<ImageFormat>(in.number());
    const uint8_t missing = in.chance(24) ? in.byte() : 0;
    for (size_t i = 0; i < letters.size(); ++i)
      if ((missing >> i & 1) == 0)
        place(i, letters[i], width, height, in);
    isComplete = (missing & ((1U << letters.size()) - 1)) == 0;
  }

  ImageDesc desc;
  bool isComplete = false;

 private:
  void place(size_t i, char letter, int32_t width, int32_t height, ByteReader& in) {
    const bool isChroma = letter == 'h' || letter == 'p';
    const int64_t bytesPerSample = letter == 'p' ? 2 : isChroma ? 1 : letter - '0';
    const int64_t columns = isChroma ? int64_t{width / 2} + width % 2 : width;
    const int64_t rows = isChroma ? int64_t{height / 2} + height % 2 : height;
    size_t size = 0;
    int64_t start = 0;
    if (columns >= 1 && rows >= 1) {
      const int64_t row = columns * bytesPerSample;
      const bool isGapless = in.chance(160) || rows > 4096;
      const int64_t stride = isGapless ? row : row + in.between(-40, 40);
      // Upside down now and then; destination rows never overlap.
      desc.strides[i] = static_cast<int32_t>(in.chance(32) ? -stride : stride);
      const int64_t span = desc.strides[i] * (rows - 1);
      start = span < 0 ? -span : 0;
      size = static_cast<size_t>((span < 0 ? -span : span) + row);
      require(size <= mostBytes * 8, "the fuzzer keeps its planes small");
    }
    memory_[i].reset(new uint8_t[size]);
    tavro::fuzz::fill(memory_[i].get(), size, in);
    desc.planes[i] = memory_[i].get() + start;
  }

  std::unique_ptr<uint8_t[]> memory_[3];
};

struct Size {
  int32_t width;
  int32_t height;

  bool isEmpty() const { return width < 1 || height < 1; }
};

int32_t drawSide(ByteReader& in) {
  const uint8_t kind = in.byte();
  if (kind < 200)
    return in.between(1, 80);
  return kind < 240 ? in.between(0, 40000) : in.number();
}

Size drawSize(ByteReader& in) {
  Size size = {drawSide(in), drawSide(in)};
  if (!size.isEmpty() && int64_t{size.width} * size.height > mostBytes / 4) {
    size.width = std::min(size.width, 1 << 16);
    size.height = std::max<int32_t>(1, static_cast<int32_t>(mostBytes / 4 / size.width));
  }
  return size;
}

void convert(ByteReader& in) {
  const int32_t op = in.chance(240) ? in.between(0, 25) : in.number();
  const Conversion conversion = lookUp(conversions, op);
  const Size size = drawSize(in);
  Image src(size.width, size.height, conversion.src, in);
  Image dst(size.width, size.height, conversion.dst, in);
  const int32_t result = convertImage(src.desc, dst.desc, static_cast<ColorOp>(op));
  if (conversion.src.empty())
    require(result == 0, "a code that names nothing does nothing");
  else
    require((result == 0) == (!size.isEmpty() && src.isComplete && dst.isComplete),
            "a conversion is done or refused");
}

void scale(bool isCropped, ByteReader& in) {
  const int32_t format = in.chance(240) ? in.between(0, 9) : in.number();
  const PlaneLetters letters = lookUp(formats, format);
  const int32_t filter = in.chance(240) ? in.between(0, 2) : in.number();
  const Size srcSize = drawSize(in);
  const Size dstSize = drawSize(in);
  Image src(srcSize.width, srcSize.height, letters, in);
  Image dst(dstSize.width, dstSize.height, letters, in);
  src.desc.format = static_cast<ImageFormat>(format);
  CropRect rect = {0, 0, srcSize.width, srcSize.height};
  if (isCropped) {
    rect = {in.number(), in.number(), in.number(), in.number()};
    if (!srcSize.isEmpty() && in.chance(200)) {
      rect.x = in.between(0, std::min(srcSize.width, 60000) - 1);
      rect.y = in.between(0, std::min(srcSize.height, 60000) - 1);
      rect.width = in.between(0, std::min(srcSize.width - rect.x, 60000));
      rect.height = in.between(0, std::min(srcSize.height - rect.y, 60000));
    }
  }
  const auto code = static_cast<ScaleFilter>(filter);
  const int32_t result = isCropped ? cropAndScaleImage(src.desc, dst.desc, rect, code)
                                   : scaleImage(src.desc, dst.desc, code);
  const bool isInside = rect.x >= 0 && rect.y >= 0 && rect.width >= 0 && rect.height >= 0 &&
                        int64_t{rect.x} + rect.width <= srcSize.width &&
                        int64_t{rect.y} + rect.height <= srcSize.height;
  if (isCropped && !isInside)
    require(result == -1, "a rectangle outside of the image is refused");
  else if (letters.empty())
    require(result == 0, "a format that names nothing does nothing");
  else if (!src.isComplete || !dst.isComplete || rect.width < 1 || rect.height < 1 ||
           dstSize.isEmpty() || filter < 0 || filter > 2)
    require(result == -1, "what can't be scaled is refused");
  else
    require(result == 0 || result == -1, "a status");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  setPlainRowsOnly(in.chance(48) ? 1 : 0);
  switch (in.byte() % 3) {
    case 0:
      convert(in);
      break;
    case 1:
      scale(false, in);
      break;
    default:
      scale(true, in);
  }
  return 0;
}
