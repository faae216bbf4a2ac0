// tavro-fd: finds the faces in a video and prints one JSON object per frame. options.h lists what
// the user can ask for, batch.cpp takes one input after the other, and run.cpp takes each frame
// through the rooms:
//
//   input/      a file, stream or camera becomes upright I420 pictures
//   search/     a picture goes to the detector module; rectangles and timings come back
//   output/     text, pictures and pages are made of the frames and their faces
//   platform/   what differs between systems (process.h) and between builds with and without
//               FFmpeg's libraries (media.h); it knows none of the others
//
// A room knows those before it in the order platform, input, search, output.

#include <cstdio>
#include <exception>

#include "host/app/options.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/app/run.h"

int main(int argumentCount, char** arguments) {
  using namespace tavro::host;
  holdStandardStreams();
  try {
    const ParsedOptions parsed = parseOptions(commandLine(argumentCount, arguments));
    if (parsed.exitCode.has_value())
      return *parsed.exitCode;
    prepareMedia();
    catchStopSignals();
    if (!parsed.batch.folder.empty())
      return runBatch(parsed.batch);
    ProgressLine progress;
    return run(parsed.options, progress);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tavro-fd: %s\n", failure.what());
    return exitBadInput;
  }
}
