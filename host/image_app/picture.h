#pragma once

// Picture: one picture in memory, its planes one after the other without gaps. In a file it is just
// these samples without a header, or PNG where the name ends in .png.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/image_app/catalog.h"

namespace tavro::host::image {

struct Size {
  int32_t width = 0;
  int32_t height = 0;
};

/// Pictures beyond these are refused, long before a size overflows or memory runs out.
inline constexpr int32_t maximumSide = 32768;
inline constexpr int64_t maximumPixels = int64_t{1} << 28;

bool isAllowed(Size size);
/// "640x480".
std::string asText(Size size);
/// The bytes of a picture of an allowed size.
int64_t byteCount(const PictureFormat& format, Size size);

class Picture {
 public:
  /// All samples are 0. The size must be allowed; the format must outlive the picture.
  Picture(const PictureFormat& format, Size size);

  const PictureFormat& format() const { return *format_; }
  Size size() const { return size_; }
  std::vector<uint8_t>& bytes() { return bytes_; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  /// The planes for the image subsystem; good as long as the picture is.
  TavroRTC::FDModule::ImageDesc desc();

 private:
  const PictureFormat* format_;
  Size size_;
  std::vector<uint8_t> bytes_;
};

/// True if the name has that extension, in upper or lower case.
bool isNamed(const std::string& path, const char* extension);
bool isPngName(const std::string& path);

/// Reads a picture of the format. A raw file must hold exactly one picture of `rawSize`; a PNG
/// brings its own size. Its transparent pixels are laid over black where the format has no alpha,
/// and one with colours isn't a gray picture. Empty if it fails, with the reason in `error`.
std::optional<Picture> readPicture(const std::string& path, const PictureFormat& format,
                                   Size rawSize, std::string& error);

/// False if it fails, with the reason in `error`.
bool writePicture(const std::string& path, const Picture& picture, std::string& error);

}  // namespace tavro::host::image
