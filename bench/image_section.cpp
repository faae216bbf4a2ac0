// The image code: scaling and conversion of a frame to the network's picture, then every conversion
// and the scaling of packed pixels, beside OpenCV's and swscale's nearest equivalents. Those
// compute with other rounding; OpenCV's gray isn't limited-range luma.

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/report.h"
#include "bench/scenes.h"
#include "image/image_dispatch.h"
#include "modules/face_detection/network_input.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

constexpr int usualRounds = 40;
constexpr int runsPerTurn = 5;

// The mean over all bytes of the sample frame's picture. The arithmetic differs from peer to peer
// by a few levels and so does the place of the chroma samples: two ways through OpenCV alone are 3
// levels apart. A picture that is wrong by one pixel down and to the right is 12 levels off.
constexpr double pictureLimit = 6;

double meanDifference(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  double sum = a.size() == b.size() ? 0 : 1e9;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
    sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
}

void measureSize(Report& report, const ReportOptions& options, FrameSize size) {
  const std::string label = std::to_string(size.width) + "x" + std::to_string(size.height);
  const host::I420Frame frame = sampleFrame(size);
  std::vector<uint8_t> planar(planarInputSize);
  std::vector<uint8_t> picture(packedInputSize);
  const auto prepare = [&] {
    if (!prepareNetworkInput(viewOf(frame), planar.data(), picture.data()))
      throw std::runtime_error("the image code refuses the sample frame");
  };
  prepare();

  std::vector<std::unique_ptr<ImagePeer>> peers;
  for (auto make : {makeOpenCvImage, makeOpenCvImageColorsFirst, makeSwscale})
    if (auto peer = make(frame))
      peers.push_back(std::move(peer));
  std::vector<Contender> contenders = {inProcess("own", runsPerTurn, prepare)};
  for (const auto& peer : peers) {
    peer->run();
    report.checks.push_back(
        {.name = "picture of " + label + ", " + peer->name() + ", mean of levels",
         .difference = meanDifference(picture, peer->picture()),
         .limit = pictureLimit});
    contenders.push_back(inProcess(peer->name(), runsPerTurn, [&peer] { peer->run(); }));
  }

  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  Row row{.group = "image",
          .name = "scale and convert " + label,
          .detail = "",
          .timing = timings[0],
          .peers = {}};
  for (size_t i = 0; i < peers.size(); ++i)
    row.peers.push_back({peers[i]->name(), timings[i + 1]});
  if (!row.peers.empty() && row.peers[0].name.starts_with("OpenCV"))
    report.targets.push_back({row.name + " against OpenCV", timings[0].median / timings[1].median,
                              Goal::atMost, 0.6, "x"});
  report.rows.push_back(std::move(row));
}

constexpr FrameSize formatsSize = {1280, 720};
constexpr int formatsRounds = 20;

struct NamedOp {
  ColorOp op;
  const char* name;
};
constexpr NamedOp ops[] = {
    {ColorOp::Packed24ToPacked32, "Packed24ToPacked32"},
    {ColorOp::Packed32ToPacked24, "Packed32ToPacked24"},
    {ColorOp::Packed24ToPacked32Swapped, "Packed24ToPacked32Swapped"},
    {ColorOp::Bgr24ToLuma, "Bgr24ToLuma"},
    {ColorOp::Rgb24ToLuma, "Rgb24ToLuma"},
    {ColorOp::Bgra32ToLuma, "Bgra32ToLuma"},
    {ColorOp::Rgba32ToLuma, "Rgba32ToLuma"},
    {ColorOp::Rgb24ToI420, "Rgb24ToI420"},
    {ColorOp::Bgr24ToI420, "Bgr24ToI420"},
    {ColorOp::Rgba32ToI420, "Rgba32ToI420"},
    {ColorOp::Bgra32ToI420, "Bgra32ToI420"},
    {ColorOp::Argb32ToI420, "Argb32ToI420"},
    {ColorOp::Abgr32ToI420, "Abgr32ToI420"},
    {ColorOp::I420ToBgr24, "I420ToBgr24"},
    {ColorOp::I420ToRgb24, "I420ToRgb24"},
    {ColorOp::I420ToBgra32, "I420ToBgra32"},
    {ColorOp::I420ToRgba32, "I420ToRgba32"},
    {ColorOp::I420ToAbgr32, "I420ToAbgr32"},
    {ColorOp::I420ToArgb32, "I420ToArgb32"},
    {ColorOp::I420ToNv21, "I420ToNv21"},
    {ColorOp::I420ToNv12, "I420ToNv12"},
    {ColorOp::Nv12ToI420, "Nv12ToI420"},
    {ColorOp::Nv21ToI420, "Nv21ToI420"},
};

/// Memory for an image of any layout: three planes of four bytes a pixel, or less of it.
class AnyImage {
 public:
  AnyImage(FrameSize extent, int32_t bytesPerPixel) : bytes_(bytesOf(extent) * 3, 99) {
    for (size_t plane = 0; plane < 3; ++plane) {
      desc.planes[plane] = bytes_.data() + plane * bytesOf(extent);
      desc.strides[plane] = extent.width * bytesPerPixel;
    }
    desc.widths[0] = extent.width;
    desc.heights[0] = extent.height;
    desc.format = bytesPerPixel == 3 ? ImageFormat::Packed24 : ImageFormat::Packed32;
  }

  ImageDesc desc;

 private:
  static size_t bytesOf(FrameSize extent) {
    return size_t{4} * static_cast<size_t>(extent.width) * static_cast<size_t>(extent.height);
  }

  std::vector<uint8_t> bytes_;
};

void expectSuccess(int32_t status, const std::string& name) {
  if (status != 0)
    throw std::runtime_error("the image code refuses " + name);
}

void measureTask(Report& report, const ReportOptions& options, const std::string& name,
                 const PictureTask& own, const PictureTask& openCv, const PictureTask& swscale) {
  std::vector<Contender> contenders = {inProcess("own", runsPerTurn, own)};
  std::vector<std::string> names;
  const auto add = [&](const char* peer, const PictureTask& task) {
    if (task == nullptr)
      return;
    contenders.push_back(inProcess(peer, runsPerTurn, task));
    names.emplace_back(peer);
  };
  add("OpenCV", openCv);
  add("swscale", swscale);
  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(formatsRounds));
  Row row{.group = "formats", .name = name, .detail = "", .timing = timings[0], .peers = {}};
  for (size_t i = 0; i < names.size(); ++i)
    row.peers.push_back({names[i], timings[i + 1]});
  report.rows.push_back(std::move(row));
}

/// How the operation that does worst compares with its fastest peer.
void addFormatsTarget(Report& report) {
  Target worst = {.name = "", .value = 0, .goal = Goal::atMost, .limit = 1, .unit = "x"};
  int slower = 0;
  for (const Row& row : report.rows) {
    if (row.group != "formats" || row.peers.empty())
      continue;
    const double fastest = std::ranges::min(row.peers, {}, [](const PeerTime& peer) {
                             return peer.timing.median;
                           }).timing.median;
    const double ratio = row.timing.median / fastest;
    slower += ratio > worst.limit ? 1 : 0;
    if (ratio > worst.value) {
      worst.value = ratio;
      worst.name =
          "every conversion and packed scale against its fastest peer, at worst " + row.name;
    }
  }
  report.quantities.push_back(
      {"conversions and packed scales slower than a peer", static_cast<double>(slower), ""});
  report.targets.push_back(worst);
}

}  // namespace

void measureImage(Report& report, const ReportOptions& options) {
  for (const FrameSize size : frameSizes)
    measureSize(report, options, size);
}

void measureFormats(Report& report, const ReportOptions& options) {
  AnyImage source(formatsSize, 4);
  AnyImage target(formatsSize, 4);
  for (const auto& [op, name] : ops) {
    const auto convert = [&, op = op, name = name] {
      expectSuccess(convertImage(source.desc, target.desc, op), name);
    };
    measureTask(report, options, name, convert, openCvConversion(op, formatsSize),
                swscaleConversion(op, formatsSize));
  }
  for (const int32_t bytesPerPixel : {3, 4})
    for (const FrameSize to : {FrameSize{640, 360}, {192, 192}, {1920, 1080}}) {
      AnyImage from(formatsSize, bytesPerPixel);
      AnyImage result(to, bytesPerPixel);
      const std::string name = "scale " + std::to_string(8 * bytesPerPixel) + " bits to " +
                               std::to_string(to.width) + "x" + std::to_string(to.height);
      const auto scale = [&] {
        expectSuccess(scaleImage(from.desc, result.desc, ScaleFilter::Bilinear), name);
      };
      measureTask(report, options, name, scale, openCvScale(bytesPerPixel, formatsSize, to),
                  swscaleScale(bytesPerPixel, formatsSize, to));
    }
  addFormatsTarget(report);
}

}  // namespace tavro::bench
