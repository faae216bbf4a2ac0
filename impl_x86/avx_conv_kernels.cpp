// The fused multiply-add kernels for dense convolutions: each family's template over the vectors of
// AVX and FMA.

#include "impl_x86/avx_kernels.h"
#include "impl_x86/avx_vectors.h"
#include "impl_x86/border_zones.h"
#include "impl_x86/edge_lanes.h"
#include "impl_x86/pixel_list.h"
#include "impl_x86/rolling_rows.h"

namespace TavroRTC::FDModule::x86 {

// --- Pixel list ---

constinit const ConvKernel conv1x1_32x3 = {"conv1x1_32x3",      layout::block32,
                                           fusesRelu,           ConvInput::floats,
                                           servesPixelList<32>, runPixelList<Float8, 32, 3>};
constinit const ConvKernel conv1x1_24x3 = {"conv1x1_24x3",      layout::block24,
                                           fusesRelu,           ConvInput::floats,
                                           servesPixelList<24>, runPixelList<Float8, 24, 3>};
constinit const ConvKernel conv1x1_16x4 = {"conv1x1_16x4",      layout::block16,
                                           fusesRelu,           ConvInput::floats,
                                           servesPixelList<16>, runPixelList<Float8, 16, 4>};

// --- Edge lanes ---

constinit const ConvKernel conv3x3s1_16x4 = {"conv3x3s1_16x4",
                                             layout::block16,
                                             fusesRelu,
                                             ConvInput::floats,
                                             servesEdgeLanes<16, 4, Columns<1, 1>>,
                                             runEdgeLanes<Float8, 16, 4, Columns<1, 1>>};
constinit const ConvKernel conv3x3s2_16x4 = {"conv3x3s2_16x4",
                                             layout::block16,
                                             fusesRelu,
                                             ConvInput::floats,
                                             servesEdgeLanes<16, 4, Columns<2, 1>>,
                                             runEdgeLanes<Float8, 16, 4, Columns<2, 1>>};
constinit const ConvKernel conv3x3s1_24x3 = {"conv3x3s1_24x3",
                                             layout::block24,
                                             fusesRelu,
                                             ConvInput::floats,
                                             servesEdgeLanes<24, 3, Columns<1, 1>>,
                                             runEdgeLanes<Float8, 24, 3, Columns<1, 1>>};
constinit const ConvKernel conv3x3s1_4x6 = {"conv3x3s1_4x6",
                                            layout::block4,
                                            fusesRelu,
                                            ConvInput::floats,
                                            fitsGeometry<6, Columns<1, 1>>,
                                            runEdgeLanes<FusedFloat4, 4, 6, Columns<1, 1>>};
constinit const ConvKernel conv3x3s2d2_4x6 = {"conv3x3s2d2_4x6",
                                              layout::block4,
                                              fusesRelu,
                                              ConvInput::floats,
                                              fitsGeometry<6, Columns<2, 2>>,
                                              runEdgeLanes<FusedFloat4, 4, 6, Columns<2, 2>>};

// --- Border zones ---

constinit const ConvKernel conv3x3dil_16x4 = {
    "conv3x3dil_16x4", layout::block16, fusesRelu,
    ConvInput::floats, servesDilated,   runBorderZones<Float8, Float8, 16, 4>};
constinit const ConvKernel conv3x3any_4x6 = {
    "conv3x3any_4x6",  layout::block4, fusesRelu,
    ConvInput::floats, is3x3,          runBorderZones<FusedFloat4, Float4, 4, 6>};

// --- Rolling rows ---

constinit const ConvKernel conv3x3bytes_16x4 = {"conv3x3bytes_16x4", layout::block16TapsInner,
                                                fusesRelu,           ConvInput::bytes,
                                                servesBytes,         runBytes<Float8, 4>};
constinit const ConvKernel conv3x3single_48 = {"conv3x3single_48", layout::channelTapsInner,
                                               fusesRelu,          ConvInput::floats,
                                               servesSingle,       runSingle<Float8>};

}  // namespace TavroRTC::FDModule::x86
