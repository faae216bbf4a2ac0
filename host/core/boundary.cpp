// The functions that modules import. They may run while the loader initialises a module, on any
// thread, and their callers know no exceptions: any failure is -1.

#include <cstdarg>
#include <cstdio>
#include <string>

#include "host/core/module_registry.h"
#include "modules/face_detection/host_interface.h"

namespace {

using tavro::host::BoundaryCall;
using tavro::host::ModuleRegistry;
using Kind = tavro::host::BoundaryCall::Kind;

template <typename Operation>
int32_t observed(const BoundaryCall& call, Operation&& operation) {
  try {
    ModuleRegistry& registry = ModuleRegistry::instance();
    const int32_t verdict = registry.observe(call);
    return verdict < 0 ? verdict : operation(registry);
  } catch (...) {
    return -1;
  }
}

/// The text of a printf call, cut to what one diagnostic line may reasonably hold.
int32_t formatted(char* text, size_t size, const char* format, va_list arguments) {
  const int length = format != nullptr ? std::vsnprintf(text, size, format, arguments) : -1;
  return length < 0 ? -1 : length;
}

}  // namespace

int32_t qosl_so_register(const char* name, const void* codeAddress) {
  return observed({.kind = Kind::watch, .name = name, .codeAddress = codeAddress},
                  [&](ModuleRegistry& registry) { return registry.watch(name, codeAddress); });
}

int32_t qosl_module_register(const char* name, TavroRTC::FDModule::ModuleCallback callback) {
  return observed({.kind = Kind::add, .name = name, .callback = callback},
                  [&](ModuleRegistry& registry) { return registry.add(name, callback); });
}

int32_t qosl_module_unregister(const char* name) {
  return observed({.kind = Kind::remove, .name = name},
                  [&](ModuleRegistry& registry) { return registry.remove(name); });
}

int32_t qosl_printf(const char* format, ...) {
  char text[1024] = "";
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = formatted(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length < 0)
    return -1;
  return observed({.kind = Kind::print, .text = text}, [&](ModuleRegistry&) {
    // Modules end their messages as they like; in the host's log each is one line.
    std::string line(text);
    while (line.ends_with('\n'))
      line.pop_back();
    std::fprintf(stderr, "[module] %s\n", line.c_str());
    return length;
  });
}
