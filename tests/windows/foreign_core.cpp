// A core library as another vendor would have it: another compiler, another C runtime, and nothing
// but the four functions that a module imports.

#include "tests/windows/foreign_core.h"

namespace {

ForeignNotes notes = {.calls = {},
                      .callCount = 0,
                      .codeAddress = nullptr,
                      .callback = nullptr,
                      .namesAreRight = true};

void note(int32_t call, const char* name) {
  if (notes.callCount < 8)
    notes.calls[notes.callCount++] = call;
  const char* expected = TavroRTC::FDModule::moduleName;
  while (*expected != '\0' && *expected == *name) {
    ++expected;
    ++name;
  }
  notes.namesAreRight = notes.namesAreRight && *expected == *name;
}

}  // namespace

ForeignNotes* foreignNotes() {
  return &notes;
}

int32_t qosl_so_register(const char* name, const void* codeAddress) {
  note(1, name);
  notes.codeAddress = codeAddress;
  return 0;
}

int32_t qosl_module_register(const char* name, TavroRTC::FDModule::ModuleCallback callback) {
  note(2, name);
  notes.callback = callback;
  return 0;
}

int32_t qosl_module_unregister(const char* name) {
  note(3, name);
  return 0;
}

int32_t qosl_printf(const char* /*format*/, ...) {
  return 0;
}
