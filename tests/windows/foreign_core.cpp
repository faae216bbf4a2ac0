// A core library as another vendor would have it: another compiler, another C runtime, and nothing
// but the four functions that a module imports.

#include "modules/face_detection/host_interface.h"
#include "tests/windows/foreign.h"

namespace {

ForeignNotes notes = {};

int32_t note(char call, const char* name) {
  char* end = notes.calls;
  while (*end != '\0')
    ++end;
  if (end < notes.calls + sizeof notes.calls - 1)
    *end = strcmp(name, TavroRTC::FDModule::moduleName) == 0 ? call : '?';
  return 0;
}

}  // namespace

ForeignNotes* foreignNotes() {
  return &notes;
}

int32_t qosl_so_register(const char* name, const void* codeAddress) {
  notes.codeAddress = codeAddress;
  return note('s', name);
}

int32_t qosl_module_register(const char* name, TavroRTC::FDModule::ModuleCallback callback) {
  notes.callback = callback;
  return note('m', name);
}

int32_t qosl_module_unregister(const char* name) {
  return note('u', name);
}

int32_t qosl_printf(const char* /*format*/, ...) {
  return 0;
}
