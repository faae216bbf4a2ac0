#pragma once

// What the application can do, as tables: the formats with their planes and what PNG makes of them,
// the filters, and the operations as pairs of formats. `tavro-image --list` prints these tables,
// and names on the command line are looked up in them.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "image/image_desc.h"

namespace tavro::host::image {

struct PlaneShape {
  int32_t bytesPerPixel = 0;  ///< 0: the plane isn't there
  bool halved = false;        ///< one sample for 2 by 2 pixels
};

struct PictureFormat {
  std::string_view name;
  std::string_view otherName;  ///< empty: none
  std::string_view layout;     ///< for the reader: the bytes in memory
  PlaneShape planes[3];        ///< in the order in which a raw file has them, without gaps
  std::optional<TavroRTC::FDModule::ImageFormat> scaledAs;  ///< empty: can't be scaled
  std::optional<uint32_t> pngFormat;                        ///< libpng's PNG_FORMAT_...
};

struct Filter {
  std::string_view name;
  std::string_view meaning;
  TavroRTC::FDModule::ScaleFilter code;
};

/// One pair that an operation converts. Those that copy bytes serve more than one pair.
struct Conversion {
  std::string_view from;
  std::string_view to;
  std::string_view operation;
  TavroRTC::FDModule::ColorOp code;
};

/// Null if there is none of that name.
const PictureFormat* findFormat(std::string_view name);
const Filter* findFilter(std::string_view name);
const Conversion* findConversion(const PictureFormat& from, const PictureFormat& to);

/// The names for a message: "nearest, linear, bilinear".
std::string formatNames();
std::string filterNames();
/// The formats that `from` converts to; empty if there is none.
std::string targetNames(const PictureFormat& from);

/// All three tables for the user, several lines.
std::string listing();

}  // namespace tavro::host::image
