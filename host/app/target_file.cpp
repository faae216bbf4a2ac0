#include "host/app/target_file.h"

#include <cerrno>
#include <cstring>

namespace tavro::host {

namespace {

bool succeeded(bool done, std::string& error) {
  if (!done)
    error = std::strerror(errno);
  return done;
}

}  // namespace

std::optional<TargetFile> TargetFile::open(const std::string& path, std::string& error) {
  StreamHandle stream(openFile(path, "wb"));
  if (!succeeded(stream != nullptr, error))
    return std::nullopt;
  return TargetFile(std::move(stream));
}

bool TargetFile::put(const void* bytes, size_t size, std::string& error) {
  return succeeded(std::fwrite(bytes, 1, size, stream_.get()) == size, error);
}

bool TargetFile::close(std::string& error) {
  return succeeded(std::fclose(stream_.release()) == 0, error);
}

}  // namespace tavro::host
