#pragma once

// Runs the application as a user does, in a process of its own, and reads what it leaves.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/app/media.h"
#include "host/core/i420_frame.h"

namespace tavro::test {

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = testing::TempDir() + "tavro-fd-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
      throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code failure;
    std::filesystem::remove_all(path_, failure);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// A test with a folder of its own, in which the media libraries are as quiet as in the application.
class FileTest : public testing::Test {
 protected:
  FileTest() { host::prepareMedia(); }

  TemporaryFolder folder_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

struct Outcome {
  int exitCode = -1;  ///< -1 if it didn't end by itself
  std::string output;
  std::string errors;

  /// The lines of the standard output, each parsed; a line that isn't JSON fails the test.
  std::vector<nlohmann::json> results() const {
    std::vector<nlohmann::json> lines;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
      lines.push_back(nlohmann::json::parse(line, nullptr, false));
      EXPECT_TRUE(lines.back().is_object()) << line;
    }
    return lines;
  }
  /// True if the standard error is one line of the application's own.
  bool hasOneErrorLine() const {
    return errors.starts_with("tavro-fd: ") && std::count(errors.begin(), errors.end(), '\n') == 1;
  }
};

/// Starts the application with its three standard streams on the files named, and waits for its
/// end. Its exit code, or -1 if it didn't end by itself.
inline int spawnApplication(const std::vector<std::string>& arguments, const std::string& input,
                            const std::string& output, const std::string& errors) {
  std::vector<std::string> words = {APPLICATION_FILE};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words)
    pointers.push_back(word.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  for (const auto& [descriptor, path] :
       {std::pair{STDOUT_FILENO, &output}, {STDERR_FILENO, &errors}})
    posix_spawn_file_actions_addopen(&actions, descriptor, path->c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY, 0600);
  pid_t process = 0;
  const int failure =
      posix_spawn(&process, APPLICATION_FILE, &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0)
    return -1;
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs the application with the standard input from `input`.
inline Outcome runApplication(const std::vector<std::string>& arguments,
                              const std::string& input = "/dev/null") {
  const TemporaryFolder folder;
  const std::string outputFile = folder.file("output");
  const std::string errorFile = folder.file("errors");
  Outcome outcome;
  outcome.exitCode = spawnApplication(arguments, input, outputFile, errorFile);
  outcome.output = contentOf(outputFile);
  outcome.errors = contentOf(errorFile);
  return outcome;
}

/// What a terminal shows that gets the standard error and, if `outputToo`, the standard output.
inline std::string shownOnTerminal(const std::vector<std::string>& arguments, bool outputToo) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
    return "there is no terminal";
  const std::string terminal = ptsname(master);
  const int slave = open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  std::string shown;
  std::thread reader([&] {
    char text[4096];
    for (ssize_t size = 0; (size = read(master, text, sizeof text)) > 0;)
      shown.append(text, static_cast<size_t>(size));
  });
  EXPECT_EQ(spawnApplication(arguments, "/dev/null", outputToo ? terminal : "/dev/null", terminal),
            0);
  close(slave);  // the last one that writes: the reader comes to its end
  reader.join();
  close(master);
  return shown;
}

/// Runs it with the fake detector, which answers with what it was given.
inline Outcome runWithFake(std::vector<std::string> arguments,
                           const std::string& input = "/dev/null") {
  arguments.insert(arguments.end(), {"--module", FAKE_GOOD_FILE});
  return runApplication(arguments, input);
}

/// A YUV4MPEG2 stream of the frames: the simplest of the formats that carry I420 as it is.
inline std::string y4m(std::span<const host::I420Frame> frames,
                       const std::string& parameters = "F25:1 C420jpeg") {
  std::string stream = "YUV4MPEG2 W" + std::to_string(frames.front().width()) + " H" +
                       std::to_string(frames.front().height()) + " " + parameters + "\n";
  for (const host::I420Frame& frame : frames) {
    stream += "FRAME\n";
    for (int32_t plane = 0; plane < host::planeCount; ++plane)
      for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
        stream.append(reinterpret_cast<const char*>(frame.planeData(plane)) +
                          ptrdiff_t{y} * frame.planeStride(plane),
                      static_cast<size_t>(frame.planeWidth(plane)));
  }
  return stream;
}

/// A frame whose quarters have the given luma (top left, top right, bottom left, bottom right) and
/// whose chroma is neutral.
inline host::I420Frame quarters(int32_t width, int32_t height, const uint8_t (&luma)[4]) {
  auto frame = host::I420Frame::allocate(width, height);
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      frame->writablePlane(0)[y * width + x] = luma[(y >= height / 2 ? 2 : 0) + (x >= width / 2)];
  for (const int32_t plane : {1, 2})
    std::fill_n(frame->writablePlane(plane), frame->planeStride(plane) * frame->planeHeight(plane),
                uint8_t{128});
  return std::move(*frame);
}

}  // namespace tavro::test
