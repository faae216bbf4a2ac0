#include "tests/image/image_sweep.h"

#include <algorithm>

#include "image/row_kernels.h"

namespace tavro::test {
namespace {

using TavroRTC::FDModule::ImageDesc;
using TavroRTC::FDModule::ImageFormat;
using TavroRTC::FDModule::setPlainRowsOnly;

testing::AssertionResult checkForm(const ImageCase& c, Random& random, Guard guard,
                                   bool plainOnly) {
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

testing::AssertionResult checkImage(const ImageCase& c, Random& random) {
  for (const Guard guard : {Guard::behind, Guard::inFront})
    for (const bool plainOnly : {false, true})
      if (testing::AssertionResult result = checkForm(c, random, guard, plainOnly); !result) {
        result << ", plain " << plainOnly << ", planes";
        for (const Size& size : c.src)
          result << ' ' << size.width << 'x' << size.height;
        result << " to";
        for (const Size& size : c.dst)
          result << ' ' << size.width << 'x' << size.height;
        return result;
      }
  return testing::AssertionSuccess();
}

Planes makePlanes(const std::vector<Size>& sizes, Random& random, Guard guard) {
  Planes planes;
  for (const Size& size : sizes)
    planes.emplace_back(size.width, size.height, random.chance(0.6) ? 0 : random.between(1, 5),
                        guard);
  return planes;
}

ImageDesc describe(Planes& planes, Size size, ImageFormat format) {
  static GuardedBuffer<uint8_t> noMemory(0);  // its address is one that stops the program
  ImageDesc desc = {
      .widths = {size.width, -5, 1 << 30}, .heights = {size.height, 0, -1}, .format = format};
  for (size_t i = 0; i < 3; ++i) {
    const bool isThere = i < planes.size();
    desc.planes[i] = isThere ? planes[i].bytes.data() : noMemory.data();
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
