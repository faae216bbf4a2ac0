#include "tests/kernels/conv_geometry.h"

namespace TavroRTC::FDModule {

std::ostream& operator<<(std::ostream& out, const ConvProblem& p) {
  return out << "input " << p.inputH << 'x' << p.inputW << 'x' << p.inputC << ", output "
             << p.outputH << 'x' << p.outputW << 'x' << p.outputC << ", kernel " << p.kernelH << 'x'
             << p.kernelW << ", strides " << p.strideH << ' ' << p.strideW << ", dilations "
             << p.dilationH << ' ' << p.dilationW << ", padding top " << p.padTop << " bottom "
             << p.padBottom << " left " << p.padLeft << " right " << p.padRight << ", groups "
             << p.group << ", activation " << p.activation.kind;
}

}  // namespace TavroRTC::FDModule

namespace tavro::test {
namespace {

int32_t positions(int32_t extent, int32_t padding, int32_t kernel, int32_t dilation, int32_t stride,
                  Overhang overhang) {
  const int32_t room = extent + padding - ((kernel - 1) * dilation + 1);
  const int32_t least = overhang == Overhang::allowed ? 1 - stride : 0;
  return room < least ? 0 : room / stride + 1;
}

}  // namespace

ConvProblem drawGeometry(Random& random) {
  ConvProblem p;
  p.kernelW = random.between(1, 5);
  p.kernelH = random.between(1, 5);
  const int32_t largestPadding = random.chance(0.2) ? 9 : 2;
  for (int32_t* padding : {&p.padLeft, &p.padRight, &p.padTop, &p.padBottom})
    *padding = random.between(0, largestPadding);
  p.strideW = random.between(1, 3);
  p.strideH = random.between(1, 3);
  if (random.chance(0.4)) {
    p.dilationW = random.between(1, 5);
    p.dilationH = random.between(1, 5);
  }
  p.inputH = random.between(1, 40);
  p.inputW = random.between(1, 40);
  p.inputC = random.between(1, 40);
  p.outputC = random.between(1, 40);
  return p;
}

bool deriveOutputSize(ConvProblem& p, Overhang overhang) {
  p.outputH =
      positions(p.inputH, p.padTop + p.padBottom, p.kernelH, p.dilationH, p.strideH, overhang);
  p.outputW =
      positions(p.inputW, p.padLeft + p.padRight, p.kernelW, p.dilationW, p.strideW, overhang);
  return p.outputH > 0 && p.outputW > 0;
}

int64_t termCount(const ConvProblem& p) {
  return int64_t{p.kernelH} * p.kernelW * (p.inputC / p.group) * p.outputH * p.outputW * p.outputC;
}

}  // namespace tavro::test
