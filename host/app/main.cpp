// tavro-fd: finds the faces in a video and prints one JSON object per frame. The road of a frame
// is run.cpp's: video_input gives it as the upright I420 picture that the detector expects,
// detector_session hands it to the module, json_lines prints the rectangles, annotation draws them
// for a sink. options.h lists what the user can ask for.
//
// Two things can be exchanged as whole folders: what reads and writes media (media.h: ffmpeg/ or
// plain/), and what the platform gives a process (process.h: posix/ or windows/).

#include <cstdio>
#include <exception>

#include "host/app/options.h"
#include "host/app/process.h"
#include "host/app/run.h"

int main(int argumentCount, char** arguments) {
  using namespace tavro::host;
  try {
    const ParsedOptions parsed = parseOptions(commandLine(argumentCount, arguments));
    if (parsed.exitCode.has_value())
      return *parsed.exitCode;
    return run(parsed.options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tavro-fd: %s\n", failure.what());
    return exitBadInput;
  }
}
