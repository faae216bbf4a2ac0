#include "host/image_app/file_bytes.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tavro::host::image {
namespace {

struct StreamCloser {
  void operator()(std::FILE* stream) const {
    if (stream != stdin)
      std::fclose(stream);
  }
};

std::string reason(const char* what, const std::string& path) {
  return std::string("can't ") + what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::optional<std::vector<uint8_t>> readBytes(const std::string& path, int64_t limit,
                                              std::string& error) {
  const std::unique_ptr<std::FILE, StreamCloser> stream(
      path == standardStream ? stdin : std::fopen(path.c_str(), "rb"));
  if (stream == nullptr) {
    error = reason("read", path);
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  uint8_t block[1 << 16];
  size_t wanted = 0;
  size_t got = 0;
  do {
    wanted = std::min(sizeof block, static_cast<size_t>(limit) - bytes.size());
    got = std::fread(block, 1, wanted, stream.get());
    bytes.insert(bytes.end(), block, block + got);
  } while (got == wanted && wanted != 0);
  if (std::ferror(stream.get()) != 0) {
    error = reason("read", path);
    return std::nullopt;
  }
  return bytes;
}

bool writeBytes(const std::string& path, std::span<const uint8_t> bytes, std::string& error) {
  std::FILE* stream = path == standardStream ? stdout : std::fopen(path.c_str(), "wb");
  if (stream == nullptr) {
    error = reason("write", path);
    return false;
  }
  bool written = std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size();
  written = std::fflush(stream) == 0 && written;
  if (!written)
    error = reason("write", path);
  if (stream != stdout && std::fclose(stream) != 0 && written) {
    error = reason("write", path);
    written = false;
  }
  return written;
}

}  // namespace tavro::host::image
