#include "host/image_app/catalog.h"

#include <png.h>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace tavro::host::image {
namespace {

using TavroRTC::FDModule::ColorOp;
using TavroRTC::FDModule::ImageFormat;
using TavroRTC::FDModule::ScaleFilter;

constexpr PlaneShape gone = {};
constexpr PlaneShape full = {1, false};
constexpr PlaneShape halved = {1, true};
constexpr PlaneShape halvedPairs = {2, true};
constexpr PlaneShape pixels24 = {3, false};
constexpr PlaneShape pixels32 = {4, false};

constexpr PictureFormat formats[] = {
    {"bgr24", "", "B, G, R", {pixels24, gone, gone}, ImageFormat::Bgr24, PNG_FORMAT_BGR},
    {"rgb24", "", "R, G, B", {pixels24, gone, gone}, ImageFormat::Packed24, PNG_FORMAT_RGB},
    {"bgra32", "", "B, G, R, A", {pixels32, gone, gone}, ImageFormat::Packed32, PNG_FORMAT_BGRA},
    {"rgba32", "", "R, G, B, A", {pixels32, gone, gone}, ImageFormat::Packed32, PNG_FORMAT_RGBA},
    {"argb32", "", "A, R, G, B", {pixels32, gone, gone}, ImageFormat::Packed32, PNG_FORMAT_ARGB},
    {"abgr32", "", "A, B, G, R", {pixels32, gone, gone}, ImageFormat::Packed32, PNG_FORMAT_ABGR},
    {"i420", "", "planes Y, U, V in 4:2:0", {full, halved, halved}, ImageFormat::I420, {}},
    {"nv12", "", "planes Y and U, V in turn in 4:2:0", {full, halvedPairs, gone}, {}, {}},
    {"nv21", "", "planes Y and V, U in turn in 4:2:0", {full, halvedPairs, gone}, {}, {}},
    {"luma", "gray", "one plane", {full, gone, gone}, ImageFormat::Gray8, PNG_FORMAT_GRAY},
};

constexpr Filter filters[] = {
    {"nearest", "the nearest sample in both directions", ScaleFilter::Nearest},
    {"linear", "interpolates columns; rows only in planes whose width stays", ScaleFilter::Linear},
    {"bilinear", "interpolates columns and rows", ScaleFilter::Bilinear},
};

#define TAVRO_CONVERSION(from, to, operation) \
  { from, to, #operation, ColorOp::operation }
constexpr Conversion conversions[] = {
    TAVRO_CONVERSION("bgr24", "bgra32", Packed24ToPacked32),
    TAVRO_CONVERSION("rgb24", "rgba32", Packed24ToPacked32),
    TAVRO_CONVERSION("bgra32", "bgr24", Packed32ToPacked24),
    TAVRO_CONVERSION("rgba32", "rgb24", Packed32ToPacked24),
    TAVRO_CONVERSION("bgr24", "rgba32", Packed24ToPacked32Swapped),
    TAVRO_CONVERSION("rgb24", "bgra32", Packed24ToPacked32Swapped),
    TAVRO_CONVERSION("bgr24", "luma", Bgr24ToLuma),
    TAVRO_CONVERSION("rgb24", "luma", Rgb24ToLuma),
    TAVRO_CONVERSION("bgra32", "luma", Bgra32ToLuma),
    TAVRO_CONVERSION("rgba32", "luma", Rgba32ToLuma),
    TAVRO_CONVERSION("rgb24", "i420", Rgb24ToI420),
    TAVRO_CONVERSION("bgr24", "i420", Bgr24ToI420),
    TAVRO_CONVERSION("rgba32", "i420", Rgba32ToI420),
    TAVRO_CONVERSION("bgra32", "i420", Bgra32ToI420),
    TAVRO_CONVERSION("argb32", "i420", Argb32ToI420),
    TAVRO_CONVERSION("abgr32", "i420", Abgr32ToI420),
    TAVRO_CONVERSION("i420", "bgr24", I420ToBgr24),
    TAVRO_CONVERSION("i420", "rgb24", I420ToRgb24),
    TAVRO_CONVERSION("i420", "bgra32", I420ToBgra32),
    TAVRO_CONVERSION("i420", "rgba32", I420ToRgba32),
    TAVRO_CONVERSION("i420", "abgr32", I420ToAbgr32),
    TAVRO_CONVERSION("i420", "argb32", I420ToArgb32),
    TAVRO_CONVERSION("i420", "nv21", I420ToNv21),
    TAVRO_CONVERSION("i420", "nv12", I420ToNv12),
    TAVRO_CONVERSION("nv12", "i420", Nv12ToI420),
    TAVRO_CONVERSION("nv21", "i420", Nv21ToI420),
};
#undef TAVRO_CONVERSION

template <typename Row, size_t count, typename Condition>
const Row* findRow(const Row (&table)[count], const Condition& condition) {
  const auto* row = std::ranges::find_if(table, condition);
  return row == std::end(table) ? nullptr : row;
}

template <typename Row, size_t count>
std::string namesOf(const Row (&table)[count]) {
  std::string names;
  for (const Row& row : table)
    names.append(names.empty() ? "" : ", ").append(row.name);
  return names;
}

/// `text` and as many blanks as make a column of `width`.
std::string column(std::string_view text, size_t width) {
  std::string cell(text);
  cell.resize(std::max(width, text.size() + 1), ' ');
  return cell;
}

}  // namespace

const PictureFormat* findFormat(std::string_view name) {
  return findRow(formats, [&](const PictureFormat& format) {
    return format.name == name || (!format.otherName.empty() && format.otherName == name);
  });
}

const Filter* findFilter(std::string_view name) {
  return findRow(filters, [&](const Filter& filter) { return filter.name == name; });
}

const Conversion* findConversion(const PictureFormat& from, const PictureFormat& to) {
  return findRow(conversions, [&](const Conversion& conversion) {
    return conversion.from == from.name && conversion.to == to.name;
  });
}

std::string formatNames() {
  return namesOf(formats);
}

std::string filterNames() {
  return namesOf(filters);
}

std::string targetNames(const PictureFormat& from) {
  std::string names;
  for (const Conversion& conversion : conversions)
    if (conversion.from == from.name)
      names.append(names.empty() ? "" : ", ").append(conversion.to);
  return names;
}

std::string listing() {
  std::ostringstream text;
  text << "Formats:\n";
  for (const PictureFormat& format : formats) {
    text << "  " << column(format.name, 10) << column(format.layout, 36)
         << column(format.scaledAs.has_value() ? "scale, crop" : "-", 13)
         << (format.pngFormat.has_value() ? "raw, PNG" : "raw");
    if (!format.otherName.empty())
      text << "   also named " << format.otherName;
    text << '\n';
  }
  text << "\nFilters:\n";
  for (const Filter& filter : filters)
    text << "  " << column(filter.name, 10) << filter.meaning << '\n';
  text << "\nConversions:\n";
  for (const Conversion& conversion : conversions)
    text << "  " << column(conversion.from, 10) << "to " << column(conversion.to, 10)
         << conversion.operation << '\n';
  return text.str();
}

}  // namespace tavro::host::image
