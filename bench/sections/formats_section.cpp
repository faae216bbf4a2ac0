// Every conversion and the scaling of packed pixels at 1280x720, beside OpenCV's and swscale's
// nearest equivalents. Those compute with other rounding; OpenCV's gray isn't limited-range luma.

#include <stdexcept>
#include <string>
#include <vector>

#include "bench/peers/picture_tasks.h"
#include "bench/report_data.h"
#include "image/image_dispatch.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

constexpr FrameSize size = {1280, 720};
constexpr int usualRounds = 20;
constexpr int runsPerTurn = 5;

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
  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  Row row{.group = "formats", .name = name, .detail = "", .timing = timings[0], .peers = {}};
  for (size_t i = 0; i < names.size(); ++i)
    row.peers.push_back({names[i], timings[i + 1]});
  report.rows.push_back(std::move(row));
}

}  // namespace

void measureFormats(Report& report, const ReportOptions& options) {
  AnyImage source(size, 4);
  AnyImage target(size, 4);
  for (const auto& [op, name] : ops) {
    const auto convert = [&, op = op, name = name] {
      expectSuccess(convertImage(source.desc, target.desc, op), name);
    };
    measureTask(report, options, name, convert, openCvConversion(op, size),
                swscaleConversion(op, size));
  }
  for (const int32_t bytesPerPixel : {3, 4})
    for (const FrameSize to : {FrameSize{640, 360}, {192, 192}, {1920, 1080}}) {
      AnyImage from(size, bytesPerPixel);
      AnyImage result(to, bytesPerPixel);
      const std::string name = "scale " + std::to_string(8 * bytesPerPixel) + " bits to " +
                               std::to_string(to.width) + "x" + std::to_string(to.height);
      const auto scale = [&] {
        expectSuccess(scaleImage(from.desc, result.desc, ScaleFilter::Bilinear), name);
      };
      measureTask(report, options, name, scale, openCvScale(bytesPerPixel, size, to),
                  swscaleScale(bytesPerPixel, size, to));
    }
}

}  // namespace tavro::bench
