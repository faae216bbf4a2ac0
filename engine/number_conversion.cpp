#include "engine/number_conversion.h"

#include <emmintrin.h>

#include <bit>

#include "engine/cpu_info.h"

namespace TavroRTC::FDModule {
namespace {

constexpr uint32_t halfExponentMask = 0x1F;
constexpr uint32_t halfMantissaMask = 0x3FF;
constexpr uint32_t halfInfinity = 0x7C00;
constexpr uint32_t halfNan = 0x7FFF;
constexpr uint32_t mantissaShift = 13;  // a float's mantissa has 13 bits more
constexpr uint32_t biasDifference = 127 - 15;
constexpr float smallestHalf = 0x1p-24F;

constexpr uint32_t floatInfinity = 0x7F800000;
constexpr uint32_t floatQuietNan = 0x7FC00000;
constexpr uint32_t floatMantissaBits = 23;
constexpr uint32_t floatImplicitBit = 1U << floatMantissaBits;
constexpr uint32_t largestHalfAsFloat = 0x477FE000;         // 65504
constexpr uint32_t smallestNormalHalfAsFloat = 0x38800000;  // 2^-14

float widenHalf(uint16_t half) {
  const uint32_t sign = (half & 0x8000U) << 16;
  const uint32_t exponent = (half >> 10) & halfExponentMask;
  const uint32_t mantissa = half & halfMantissaMask;
  if (exponent == halfExponentMask)
    return std::bit_cast<float>(mantissa != 0 ? floatQuietNan : sign | floatInfinity);
  if (exponent != 0)
    return std::bit_cast<float>(sign | (exponent + biasDifference) << floatMantissaBits |
                                mantissa << mantissaShift);
  const float magnitude = static_cast<float>(mantissa) * smallestHalf;
  return sign != 0 ? -magnitude : magnitude;
}

uint16_t truncateToHalf(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  const uint32_t sign = (bits >> 16) & 0x8000U;
  const uint32_t absolute = bits & 0x7FFFFFFFU;
  if (absolute > floatInfinity)
    return halfNan;
  if (absolute == floatInfinity)
    return static_cast<uint16_t>(sign | halfInfinity);
  if (absolute > largestHalfAsFloat)
    return static_cast<uint16_t>(sign | halfNan);
  if (absolute < smallestNormalHalfAsFloat) {
    const uint32_t mantissa = (absolute & (floatImplicitBit - 1)) | floatImplicitBit;
    const uint32_t shift = biasDifference + 1 - (absolute >> floatMantissaBits);
    const uint32_t subnormal = shift < 24 ? mantissa >> shift >> mantissaShift : 0;
    return static_cast<uint16_t>(sign | subnormal);
  }
  return static_cast<uint16_t>(sign |
                               (absolute - (biasDifference << floatMantissaBits)) >> mantissaShift);
}

// The number of leading elements that the processor's instruction converts.
int64_t groupsByInstruction(int64_t count) {
  return cpuInfo().runsF16c() ? count / f16c::groupSize : 0;
}

float normalise(uint8_t byte, float mean, float scale) {
  return (static_cast<float>(byte) - mean) * scale;
}

struct Normalisation {
  __m128 mean;
  __m128 scale;

  __m128 operator()(__m128i values) const {
    return _mm_mul_ps(_mm_sub_ps(_mm_cvtepi32_ps(values), mean), scale);
  }
};

constexpr int64_t byteBlock = 16;

// 16 bytes as four vectors of normalised floats.
void normaliseBlock(const uint8_t* src, const Normalisation& normalisation, __m128 dst[4]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
  const __m128i low = _mm_unpacklo_epi8(bytes, zero);
  const __m128i high = _mm_unpackhi_epi8(bytes, zero);
  dst[0] = normalisation(_mm_unpacklo_epi16(low, zero));
  dst[1] = normalisation(_mm_unpackhi_epi16(low, zero));
  dst[2] = normalisation(_mm_unpacklo_epi16(high, zero));
  dst[3] = normalisation(_mm_unpackhi_epi16(high, zero));
}

// Four pixels of three interleaved channels a, b, c go to their planes, in five shuffles:
//   first = a0 b0 c0 a1   second = b1 c1 a2 b2   third = c2 a3 b3 c3
void storePlanes(__m128 first, __m128 second, __m128 third, float* const planes[3], int64_t at) {
  const __m128 b01c01 = _mm_shuffle_ps(first, second, _MM_SHUFFLE(1, 0, 2, 1));  // b0 c0 b1 c1
  const __m128 a23b23 = _mm_shuffle_ps(second, third, _MM_SHUFFLE(2, 1, 3, 2));  // a2 b2 a3 b3
  _mm_storeu_ps(planes[0] + at, _mm_shuffle_ps(first, a23b23, _MM_SHUFFLE(2, 0, 3, 0)));
  _mm_storeu_ps(planes[1] + at, _mm_shuffle_ps(b01c01, a23b23, _MM_SHUFFLE(3, 1, 2, 0)));
  _mm_storeu_ps(planes[2] + at, _mm_shuffle_ps(b01c01, third, _MM_SHUFFLE(3, 0, 3, 1)));
}

}  // namespace

void halfToFloat(const uint16_t* src, float* dst, int64_t count) {
  const int64_t groups = groupsByInstruction(count);
  f16c::halfToFloat(src, dst, groups);
  for (int64_t i = groups * f16c::groupSize; i < count; ++i)
    dst[i] = widenHalf(src[i]);
}

void floatToHalf(const float* src, uint16_t* dst, int64_t count) {
  const int64_t groups = groupsByInstruction(count);
  f16c::floatToHalf(src, dst, groups);
  for (int64_t i = groups * f16c::groupSize; i < count; ++i)
    dst[i] = truncateToHalf(src[i]);
}

void bytesToFloat(const uint8_t* src, float* dst, int64_t count, float mean, float scale) {
  const Normalisation normalisation = {_mm_set1_ps(mean), _mm_set1_ps(scale)};
  int64_t i = 0;
  for (; i + byteBlock <= count; i += byteBlock) {
    __m128 floats[4];
    normaliseBlock(src + i, normalisation, floats);
    for (int64_t part = 0; part < 4; ++part)
      _mm_storeu_ps(dst + i + 4 * part, floats[part]);
  }
  for (; i < count; ++i)
    dst[i] = normalise(src[i], mean, scale);
}

void bytesToFloatPlanes(const uint8_t* src, float* dst, int32_t width, float mean, float scale) {
  if (width < 0)
    return;
  const int64_t pixels = width;
  const int64_t stride = pixels + 2;
  for (int64_t k = 0; k < 3; ++k) {
    dst[k * stride] = 0;
    dst[k * stride + stride - 1] = 0;
  }

  const Normalisation normalisation = {_mm_set1_ps(mean), _mm_set1_ps(scale)};
  float* const planes[3] = {dst + 1, dst + stride + 1, dst + 2 * stride + 1};
  int64_t pixel = 0;
  for (; pixel + byteBlock <= pixels; pixel += byteBlock) {
    __m128 floats[12];
    for (int64_t k = 0; k < 3; ++k)
      normaliseBlock(src + 3 * pixel + k * byteBlock, normalisation, floats + 4 * k);
    for (int64_t four = 0; four < 4; ++four)
      storePlanes(floats[3 * four], floats[3 * four + 1], floats[3 * four + 2], planes,
                  pixel + 4 * four);
  }
  for (; pixel < pixels; ++pixel)
    for (int64_t k = 0; k < 3; ++k)
      planes[k][pixel] = normalise(src[3 * pixel + k], mean, scale);
}

}  // namespace TavroRTC::FDModule
