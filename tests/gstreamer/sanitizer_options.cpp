// What the address sanitizer asks a program for; without it nobody calls these. GLib gives up the
// first of its tables of words when there are too many words for it, since other threads may still
// read it. It is the one block that is allocated while the libraries are loaded and then lost,
// which only shows if the calls are traced through libraries without frame pointers, too.

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the sanitizer's
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n";
}
// NOLINTEND(bugprone-reserved-identifier)
