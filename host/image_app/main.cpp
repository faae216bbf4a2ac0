// tavro-image: converts, scales and crops one picture with the image subsystem. catalog.h has the
// formats, filters and operations as tables, and everything else reads them: options.h finds the
// names in them, picture_file.h reads and writes raw files and PNG by them, picture.h lays planes
// out by them, and run.h hands two pictures to the image subsystem.

#include <cstdio>
#include <exception>

#include "host/image_app/options.h"
#include "host/image_app/run.h"

int main(int argumentCount, char** arguments) {
  using namespace tavro::host::image;
  try {
    const ParsedOptions parsed = parseOptions(argumentCount, arguments);
    return parsed.exitCode.has_value() ? *parsed.exitCode : run(parsed.options);
  } catch (const std::exception& failure) {  // no memory, for one
    std::fprintf(stderr, "tavro-image: %s\n", failure.what());
    return exitRefused;
  }
}
