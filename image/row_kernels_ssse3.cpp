// The block forms, in SSSE3. Loads and stores are unaligned and never leave the blocks of the row.
// Compiled with its own instruction set: nothing here may be visible to other files except the
// kernels themselves, so helpers are internal and the standard library's inline functions stay out.

#include <tmmintrin.h>

#include <cstring>

#include "image/block_access.h"
#include "image/row_forms.h"

namespace TavroRTC::FDModule::ssse3 {
namespace {

void averageRows(uint8_t* dst, const uint8_t* top, const uint8_t* bottom, int32_t bytes) {
  for (int32_t i = 0; i < bytes; i += interpolateBlock)
    store16(dst + i, _mm_avg_epu8(load16(top + i), load16(bottom + i)));
}

// Blends 16 samples of two rows, `fraction` of 1 to 255 parts in 256 of the lower one. The
// multiplication pairs unsigned with signed bytes, and the weights, up to 255, need the unsigned
// side. So the samples move down by 128, which makes the sums 32768 too low: they fit 16 bits, and
// the rounding term makes up for it.
class RowBlend {
 public:
  explicit RowBlend(int32_t fraction)
      : weights_(_mm_set1_epi16(static_cast<int16_t>(fraction << 8 | (256 - fraction)))) {}

  __m128i operator()(__m128i top, __m128i bottom) const {
    const __m128i toSigned = _mm_set1_epi8(-128);
    const __m128i rounding = _mm_set1_epi16(static_cast<int16_t>(32768 + 128));
    const __m128i a = _mm_xor_si128(top, toSigned);
    const __m128i b = _mm_xor_si128(bottom, toSigned);
    const __m128i low = _mm_maddubs_epi16(weights_, _mm_unpacklo_epi8(a, b));
    const __m128i high = _mm_maddubs_epi16(weights_, _mm_unpackhi_epi8(a, b));
    return _mm_packus_epi16(_mm_srli_epi16(_mm_add_epi16(low, rounding), 8),
                            _mm_srli_epi16(_mm_add_epi16(high, rounding), 8));
  }

 private:
  __m128i weights_;
};

void blendRows(uint8_t* dst, const uint8_t* top, const uint8_t* bottom, int32_t bytes,
               int32_t fraction) {
  const RowBlend blend(fraction);
  for (int32_t i = 0; i < bytes; i += interpolateBlock)
    store16(dst + i, blend(load16(top + i), load16(bottom + i)));
}

// The sample at `position` and its right neighbour, in one load.
int32_t loadPair(const uint8_t* src, int64_t position) {
  uint16_t pair = 0;
  std::memcpy(&pair, src + (position >> 16), sizeof(pair));
  return pair;
}

// Without optimisation GCC's insertion is a macro, which narrows its argument.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
// Eight pairs. Two half registers keep the chain of insertions short.
__m128i gatherPairs(const uint8_t* src, int64_t position, int64_t dx) {
  __m128i low = _mm_cvtsi32_si128(loadPair(src, position));
  __m128i high = _mm_cvtsi32_si128(loadPair(src, position + 4 * dx));
  low = _mm_insert_epi16(low, loadPair(src, position + dx), 1);
  high = _mm_insert_epi16(high, loadPair(src, position + 5 * dx), 1);
  low = _mm_insert_epi16(low, loadPair(src, position + 2 * dx), 2);
  high = _mm_insert_epi16(high, loadPair(src, position + 6 * dx), 2);
  low = _mm_insert_epi16(low, loadPair(src, position + 3 * dx), 3);
  high = _mm_insert_epi16(high, loadPair(src, position + 7 * dx), 3);
  return _mm_unpacklo_epi64(low, high);
}
#pragma GCC diagnostic pop

// Weights eight pairs of neighbours at a time by the fractions of their positions, block after
// block along a row. `takePairs` gives the pairs of the block that begins at a position.
template <typename TakePairs>
void filterPairs(uint8_t* dst, int32_t dstWidth, int32_t x, int32_t dx, TakePairs takePairs) {
  const __m128i allBits = _mm_set1_epi16(127);
  const __m128i step = _mm_set1_epi16(static_cast<int16_t>(dx));
  const __m128i blockStep = _mm_slli_epi16(step, 3);
  __m128i fractions = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(x)),
                                    _mm_mullo_epi16(step, _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7)));
  int64_t position = x;
  for (int32_t i = 0; i < dstWidth; i += columnsBlock) {
    const __m128i f = _mm_srli_epi16(fractions, 9);
    const __m128i weights = _mm_or_si128(_mm_xor_si128(f, allBits), _mm_slli_epi16(f, 8));
    const __m128i sums = _mm_maddubs_epi16(takePairs(position), weights);
    store8(dst + i, _mm_packus_epi16(_mm_srli_epi16(sums, 7), sums));
    fractions = _mm_add_epi16(fractions, blockStep);
    position += int64_t{columnsBlock} * dx;
  }
}

// Eight pixels of each output byte, in 16 bits and not yet clamped.
struct Colours {
  __m128i first, second, third;
};

Colours convertPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v,
                      const YuvTable& constants) {
  const __m128i luma = load8(y);
  const __m128i y1 = _mm_mulhi_epu16(_mm_unpacklo_epi8(luma, luma), load16(constants.yGain));
  const __m128i pairs = _mm_unpacklo_epi8(load4(u), load4(v));
  const __m128i chroma = _mm_unpacklo_epi16(pairs, pairs);
  // Only the last sum can pass the 16 bits; saturated or not, it is clamped to 255.
  const auto colour = [&](const int8_t* coefficients, const int16_t* bias) {
    const __m128i product = _mm_maddubs_epi16(chroma, load16(coefficients));
    return _mm_srai_epi16(_mm_adds_epi16(_mm_sub_epi16(load16(bias), product), y1), 6);
  };
  return {colour(constants.first, constants.firstBias),
          colour(constants.second, constants.secondBias),
          colour(constants.third, constants.thirdBias)};
}

// Eight pixels of four bytes from four vectors of 16 bits.
void storeFourBytes(uint8_t* dst, __m128i byte0, __m128i byte1, __m128i byte2, __m128i byte3) {
  const __m128i bytes02 = _mm_packus_epi16(byte0, byte2);
  const __m128i bytes13 = _mm_packus_epi16(byte1, byte3);
  const __m128i bytes01 = _mm_unpacklo_epi8(bytes02, bytes13);
  const __m128i bytes23 = _mm_unpackhi_epi8(bytes02, bytes13);
  store16(dst, _mm_unpacklo_epi16(bytes01, bytes23));
  store16(dst + 16, _mm_unpackhi_epi16(bytes01, bytes23));
}

// Eight pixels of three bytes: 16 bytes and 8 bytes, each put together from where its first and
// second colours lie (0 to 7 and 8 to 15) and where its third ones lie (0 to 7); -1 leaves a 0.
void storeThreeBytes(uint8_t* dst, const Colours& colours) {
  const __m128i head12 = _mm_setr_epi8(0, 8, -1, 1, 9, -1, 2, 10, -1, 3, 11, -1, 4, 12, -1, 5);
  const __m128i head3 = _mm_setr_epi8(-1, -1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1);
  const __m128i rest12 =
      _mm_setr_epi8(13, -1, 6, 14, -1, 7, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i rest3 = _mm_setr_epi8(-1, 5, -1, -1, 6, -1, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i bytes12 = _mm_packus_epi16(colours.first, colours.second);
  const __m128i bytes3 = _mm_packus_epi16(colours.third, colours.third);
  store16(dst, _mm_or_si128(_mm_shuffle_epi8(bytes12, head12), _mm_shuffle_epi8(bytes3, head3)));
  store8(dst + 16,
         _mm_or_si128(_mm_shuffle_epi8(bytes12, rest12), _mm_shuffle_epi8(bytes3, rest3)));
}

}  // namespace

void interpolateRows(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t bytes,
                     int32_t fraction) {
  if (fraction == 0) {
    for (int32_t i = 0; i < bytes; i += interpolateBlock)
      store16(dst + i, load16(src + i));
  } else if (fraction == 128) {
    averageRows(dst, src, src + srcStride, bytes);
  } else {
    blendRows(dst, src, src + srcStride, bytes, fraction);
  }
}

// The weights of a pair are 127 - f and f, so that both are signed bytes; 127 - f is f with its 7
// bits inverted. The fractions of all eight positions live in one vector of their own.
void filterColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  filterPairs(dst, dstWidth, x, dx,
              [&](int64_t position) { return gatherPairs(src, position, dx); });
}

void blendColumns(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t fraction,
                  int32_t dstWidth, int32_t x, int32_t dx) {
  if (fraction == 0) {
    filterColumns(dst, src, dstWidth, x, dx);
    return;
  }
  const uint8_t* below = src + srcStride;
  const RowBlend blend(fraction);
  filterPairs(dst, dstWidth, x, dx, [&](int64_t position) {
    return blend(gatherPairs(src, position, dx), gatherPairs(below, position, dx));
  });
}

void halveRowPoint(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  for (int32_t i = 0; i < dstWidth; i += halveBlock, src += 32)
    store16(dst + i,
            _mm_packus_epi16(_mm_srli_epi16(load16(src), 8), _mm_srli_epi16(load16(src + 16), 8)));
}

void halveRowBox(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i rounding = _mm_set1_epi16(2);
  const auto means = [&](const uint8_t* top) {
    const __m128i sum = _mm_add_epi16(_mm_maddubs_epi16(load16(top), ones),
                                      _mm_maddubs_epi16(load16(top + srcStride), ones));
    return _mm_srli_epi16(_mm_add_epi16(sum, rounding), 2);
  };
  for (int32_t i = 0; i < dstWidth; i += halveBlock, src += 32)
    store16(dst + i, _mm_packus_epi16(means(src), means(src + 16)));
}

void yuvRowFourBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                     const YuvTable& constants, int32_t width) {
  const __m128i opaque = _mm_set1_epi16(255);
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 4) {
    const auto [first, second, third] = convertPixels(y + i, u + i / 2, v + i / 2, constants);
    storeFourBytes(dst, first, second, third, opaque);
  }
}

void yuvRowOpaqueFirst(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width) {
  const __m128i opaque = _mm_set1_epi16(255);
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 4) {
    const auto [first, second, third] = convertPixels(y + i, u + i / 2, v + i / 2, constants);
    storeFourBytes(dst, opaque, first, second, third);
  }
}

void yuvRowThreeBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                      const YuvTable& constants, int32_t width) {
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 3)
    storeThreeBytes(dst, convertPixels(y + i, u + i / 2, v + i / 2, constants));
}

}  // namespace TavroRTC::FDModule::ssse3
