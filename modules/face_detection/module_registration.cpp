// Tells the host about this module while it is being loaded, before any other static object of the
// module is set up, so that the host knows whom it watches should a later one fail. Only the
// loadable module has this file: a program that links the detector has no host to register with.

#include <cstdlib>
#include <ios>

#include "modules/face_detection/host_interface.h"
#include "modules/face_detection/module_callback.h"

namespace TavroRTC::FDModule {
namespace {

// The build defines it: moduleName, or squareModuleName for the module with the other weights.
constexpr const char* ownName = TAVRO_MODULE_NAME;

void unregisterAtExit() {
  qosl_module_unregister(ownName);
}

TAVRO_RUN_AT_LOAD(0) void letHostWatch() {
  if (qosl_so_register(ownName, reinterpret_cast<const void*>(&letHostWatch)) < 0)
    qosl_printf("SO register failed, so could not monitor it.");
}

TAVRO_RUN_AT_LOAD(1) void registerWithHost() {
  // The host may use the callback at once. Where the runtime is part of the module, its output
  // stream is an object like any other and wouldn't be there yet.
  static const std::ios_base::Init standardStreams;
  if (qosl_module_register(ownName, &moduleCallback) < 0 || std::atexit(&unregisterAtExit) != 0)
    refuseCommands();
}

}  // namespace
}  // namespace TavroRTC::FDModule
