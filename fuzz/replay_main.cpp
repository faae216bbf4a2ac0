// Feeds a fuzzer the files of a folder, in the order of their names, or single files:
//   replay_NAME PATH...

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Path = std::filesystem::path;

std::vector<Path> filesOf(const Path& path) {
  if (!std::filesystem::is_directory(path))
    return {path};
  std::vector<Path> files;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i)
    for (const Path& path : filesOf(argv[i])) {
      std::ifstream file(path, std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
      if (!file) {
        std::fprintf(stderr, "can't read %s\n", path.string().c_str());
        return 2;
      }
      // What is printed last before a crash is the file that causes it.
      std::fprintf(stderr, "%s\n", path.string().c_str());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  std::fprintf(stderr, "%d inputs\n", count);
  return count > 0 ? 0 : 2;
}
