// The block forms for scaling, in SSSE3. Loads and stores are unaligned and never leave the blocks
// of the row; those of packed pixels take whole pixels. Compiled with its own instruction set:
// nothing here may be visible to other files except the kernels themselves, so helpers are internal
// and the standard library's inline functions stay out.

#include <tmmintrin.h>

#include <cstring>

#include "image/block_access.h"
#include "image/row_forms.h"

namespace TavroRTC::FDModule::ssse3 {
namespace {

// ---- One byte per sample

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
// block along a row. `takePairs` returns the pairs of the block that begins at a position.
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

// ---- Three bytes per pixel

// The pixel at `position` and its right neighbour: exactly six bytes.
int64_t loadPair24(const uint8_t* src, int64_t position) {
  const uint8_t* pixel = src + (position >> 16) * 3;
  uint32_t low = 0;
  uint16_t high = 0;
  std::memcpy(&low, pixel, sizeof(low));
  std::memcpy(&high, pixel + sizeof(low), sizeof(high));
  return static_cast<int64_t>(uint64_t{high} << 32 | low);
}

// Two pixels at `position` and one step further, with weights of 6 bits. Eight bytes are written,
// two more than the pixels have.
void blendTwo24(uint8_t* dst, const uint8_t* src, int64_t position, int32_t dx) {
  // The same byte of both neighbours side by side; the last four bytes are of no use.
  const __m128i byChannel = _mm_setr_epi8(0, 3, 1, 4, 2, 5, 8, 11, 9, 12, 10, 13, 6, 7, 6, 7);
  const __m128i toChannels = _mm_setr_epi8(0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 0, 1, 0, 1);
  const auto weightsAt = [](int64_t at) {
    const auto f = static_cast<int32_t>((at >> 10) & 63);
    return f << 8 | (64 - f);
  };
  const int64_t second = position + dx;
  const __m128i pixels = _mm_unpacklo_epi64(_mm_cvtsi64_si128(loadPair24(src, position)),
                                            _mm_cvtsi64_si128(loadPair24(src, second)));
  const __m128i weights = _mm_cvtsi32_si128(weightsAt(second) << 16 | weightsAt(position));
  const __m128i sums =
      _mm_maddubs_epi16(_mm_shuffle_epi8(pixels, byChannel), _mm_shuffle_epi8(weights, toChannels));
  const __m128i blended = _mm_srli_epi16(_mm_add_epi16(sums, _mm_set1_epi16(32)), 6);
  store8(dst, _mm_packus_epi16(blended, blended));
}

// Eight pixels out of 48 bytes in three vectors, each pixel the mean of two neighbours. The means
// are taken of all bytes and those three bytes behind them; every second pixel of them counts.
void halvePixels24(uint8_t* dst, __m128i first, __m128i second, __m128i third) {
  const __m128i keepFirst = _mm_setr_epi8(0, 1, 2, 6, 7, 8, 12, 13, 14, -1, -1, -1, -1, -1, -1, -1);
  const __m128i keepSecond =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, 2, 3, 4, 8, 9, 10, 14);
  const __m128i keepSecondLast =
      _mm_setr_epi8(15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i keepThird =
      _mm_setr_epi8(-1, 0, 4, 5, 6, 10, 11, 12, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i means1 = _mm_avg_epu8(first, _mm_alignr_epi8(second, first, 3));
  const __m128i means2 = _mm_avg_epu8(second, _mm_alignr_epi8(third, second, 3));
  const __m128i means3 = _mm_avg_epu8(third, _mm_srli_si128(third, 3));
  store16(dst,
          _mm_or_si128(_mm_shuffle_epi8(means1, keepFirst), _mm_shuffle_epi8(means2, keepSecond)));
  store8(dst + 16, _mm_or_si128(_mm_shuffle_epi8(means2, keepSecondLast),
                                _mm_shuffle_epi8(means3, keepThird)));
}

// ---- Four bytes per pixel

// Two pixels, at `position` and one step further, each with its right neighbour behind it.
__m128i loadPairs32(const uint8_t* src, int64_t position, int32_t dx) {
  return _mm_unpacklo_epi64(load8(src + (position >> 16) * 4),
                            load8(src + ((position + dx) >> 16) * 4));
}

// The columns of two pixels, with their weights in the lower or the upper half of `weights`.
__m128i blendTwo32(__m128i pairs, __m128i weights) {
  const __m128i byChannel = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
  return _mm_srli_epi16(_mm_maddubs_epi16(_mm_shuffle_epi8(pairs, byChannel), weights), 7);
}

__m128i averageRows(const uint8_t* top, ptrdiff_t srcStride) {
  return _mm_avg_epu8(load16(top), load16(top + srcStride));
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

void filterColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  // One or two pixels are left for the end, which also get the excess bytes of the last step.
  const int32_t paired = dstWidth > 2 ? (dstWidth - 1) / 2 * 2 : 0;
  int64_t position = x;
  for (int32_t i = 0; i < paired; i += 2, dst += 6, position += 2 * int64_t{dx})
    blendTwo24(dst, src, position, dx);
  for (int32_t i = paired; i < dstWidth; ++i, dst += 3, position += dx) {
    const auto f = static_cast<int32_t>((position >> 9) & 127);
    const uint8_t* pixel = src + (position >> 16) * 3;
    for (int32_t byte = 0; byte < 3; ++byte) {
      const int32_t a = pixel[byte];
      dst[byte] = static_cast<uint8_t>(a + (((pixel[byte + 3] - a) * f + 64) >> 7));
    }
  }
}

void filterColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  const __m128i weightMask = _mm_set1_epi32(127);
  const __m128i firstTwo = _mm_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 4, 5, 4, 5, 4, 5, 4, 5);
  const __m128i lastTwo = _mm_setr_epi8(8, 9, 8, 9, 8, 9, 8, 9, 12, 13, 12, 13, 12, 13, 12, 13);
  // The fractions need the lower bits of the positions only.
  const auto low = [](int64_t value) { return static_cast<int32_t>(value); };
  const int64_t step = dx;
  const __m128i blockStep = _mm_set1_epi32(low(4 * step));
  int64_t position = x;
  __m128i positions =
      _mm_add_epi32(_mm_set1_epi32(x), _mm_setr_epi32(0, low(step), low(2 * step), low(3 * step)));
  for (int32_t i = 0; i < dstWidth; i += packed32Block, dst += ptrdiff_t{packed32Block} * 4) {
    const __m128i f = _mm_and_si128(_mm_srli_epi32(positions, 9), weightMask);
    const __m128i weights = _mm_or_si128(_mm_slli_epi32(f, 8), _mm_xor_si128(f, weightMask));
    const __m128i first =
        blendTwo32(loadPairs32(src, position, dx), _mm_shuffle_epi8(weights, firstTwo));
    const __m128i last =
        blendTwo32(loadPairs32(src, position + 2 * step, dx), _mm_shuffle_epi8(weights, lastTwo));
    store16(dst, _mm_packus_epi16(first, last));
    positions = _mm_add_epi32(positions, blockStep);
    position += 4 * step;
  }
}

// The boxes are averages of averages: each rounds up on its own.

void halveRowBox24(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  for (int32_t i = 0; i < dstWidth; i += packed24Block / 2, src += 48, dst += 24)
    halvePixels24(dst, averageRows(src, srcStride), averageRows(src + 16, srcStride),
                  averageRows(src + 32, srcStride));
}

void halveRowBox32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  for (int32_t i = 0; i < dstWidth; i += packed32Block, src += 32, dst += 16) {
    const __m128 left = _mm_castsi128_ps(averageRows(src, srcStride));
    const __m128 right = _mm_castsi128_ps(averageRows(src + 16, srcStride));
    const __m128 even = _mm_shuffle_ps(left, right, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 odd = _mm_shuffle_ps(left, right, _MM_SHUFFLE(3, 1, 3, 1));
    store16(dst, _mm_avg_epu8(_mm_castps_si128(even), _mm_castps_si128(odd)));
  }
}

}  // namespace TavroRTC::FDModule::ssse3
