// tavro-fd: finds the faces in a video and prints one JSON object per frame. The road of a frame
// is run.cpp's: video_input decodes it, frame_conversion and orientation make it the upright I420
// picture that the detector expects, detector_session hands it to the module, json_lines prints
// the rectangles, annotation draws them for a sink. options.h lists what the user can ask for.

#include <cstdio>
#include <exception>

#include "host/app/options.h"
#include "host/app/run.h"

int main(int argumentCount, char** arguments) {
  using namespace tavro::host;
  try {
    const ParsedOptions parsed = parseOptions(argumentCount, arguments);
    if (parsed.exitCode.has_value())
      return *parsed.exitCode;
    return run(parsed.options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tavro-fd: %s\n", failure.what());
    return exitBadInput;
  }
}
