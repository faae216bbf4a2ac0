// tavro-fd on devices: a terminal, and one that is always full.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <thread>

#include "tests/host/application_runner.h"

namespace tavro::test {
namespace {

/// What a terminal shows that gets the standard error and, if `outputToo`, the standard output.
std::string shownOnTerminal(const std::vector<std::string>& arguments, bool outputToo) {
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
  EXPECT_EQ(runProgram(APPLICATION_FILE, arguments,
                       {nullDevice, outputToo ? terminal : nullDevice, terminal}),
            0);
  close(slave);  // the last one that writes: the reader comes to its end
  reader.join();
  close(master);
  return shown;
}

class Devices : public FileTest {
 protected:
  std::string clip() {
    std::string path = folder_.file("clip.y4m");
    writeFile(path, y4m(quarters(32, 18, {1, 2, 3, 4}, 2)));
    return path;
  }
};

TEST_F(Devices, ProgressIsShownUnlessItDisturbsTheResults) {
  const std::string video = clip();
  const auto showsProgress = [&](const std::string& passes, bool outputToo) {
    return shownOnTerminal({video, "--repeat", passes, "--module", FAKE_GOOD_FILE, "--every", "2"},
                           outputToo)
               .find("\r\033[Ktavro-fd: ") != std::string::npos;
  };
  // Passes too short for a line each, which take long enough all together, sooner or later.
  std::string passes = "5000";
  while (!showsProgress(passes, false) && passes.size() < 7)
    passes += '0';
  EXPECT_LT(passes.size(), 7U);
  EXPECT_FALSE(showsProgress(passes, true));
}

TEST_F(Devices, AFullOneIsToldInOneLine) {
  const Outcome full = runWithFake({clip(), "--output", "/dev/full"});
  EXPECT_EQ(full.exitCode, 2);
  EXPECT_NE(full.errors.find("\ntavro-fd: the results can't be written: "), std::string::npos);
}

}  // namespace
}  // namespace tavro::test
