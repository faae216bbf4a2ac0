// The fused multiply-add kernels on 512 bits: each family's template over vectors of sixteen
// floats. There are 32 registers, so that a step takes more pixels: at least eight sums, which keep
// two units with a latency of four cycles busy, and as few loads for each multiply-add as the
// registers allow.

#include "impl_x86/border_zones.h"
#include "impl_x86/depthwise_columns.h"
#include "impl_x86/edge_lanes.h"
#include "impl_x86/pixel_list.h"
#include "impl_x86/rolling_rows.h"
#include "impl_x86/twins/avx512_vectors.h"
#include "impl_x86/twins/twin_runs.h"

namespace TavroRTC::FDModule::x86 {

bool conv1x1_32x3_512(const ConvProblem& p) {
  return runPixelList<Float16, 32, 9>(p);
}
bool conv1x1_16x4_512(const ConvProblem& p) {
  return runPixelList<Float16, 16, 12>(p);
}

bool conv3x3s1_16x4_512(const ConvProblem& p) {
  return runEdgeLanes<Float16, 16, 12, Columns<1, 1>, 4>(p);
}
bool conv3x3dil_16x4_512(const ConvProblem& p) {
  return runBorderZones<Float16, Float16, 16, 4, 12, 8>(p);
}
bool conv3x3bytes_16x4_512(const ConvProblem& p) {
  return runBytes<Float16, 12, 4>(p);
}

bool dwConv3x3_16x4_512(const ConvProblem& p) {
  return runDepthwise<Float16, 8>(p);
}

}  // namespace TavroRTC::FDModule::x86
