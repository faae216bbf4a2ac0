#pragma once

// Pictures in files: raw samples without a header, or PNG where the name ends in .png.

#include <optional>
#include <string>

#include "host/image_app/picture.h"

namespace tavro::host::image {

/// True if the name ends in .png, in upper or lower case.
bool isPngName(const std::string& path);

/// Reads a picture of the format. A raw file must hold exactly one picture of `rawSize`; a PNG
/// brings its own size. Its transparent pixels are laid over black where the format has no alpha,
/// and one with colours is no gray picture. Nothing on failure, with the reason in `error`.
std::optional<Picture> readPicture(const std::string& path, const PictureFormat& format,
                                   Size rawSize, std::string& error);

/// False on failure, with the reason in `error`.
bool writePicture(const std::string& path, const Picture& picture, std::string& error);

}  // namespace tavro::host::image
