// atexit() of a library under the thread sanitizer, which runs such functions at the program's
// exit, when the code of an unloaded library is gone. As in the C library, it is a part of each
// library that calls it, and the functions run when that library is unloaded.

extern "C" {
extern void* __dso_handle;  // NOLINT(bugprone-reserved-identifier): the compiler's
int __cxa_atexit(void (*function)(void*), void* argument, void* library);  // NOLINT

__attribute__((visibility("hidden"))) int atexit(void (*function)()) {
  return __cxa_atexit([](void* called) { reinterpret_cast<void (*)()>(called)(); },
                      reinterpret_cast<void*>(function), &__dso_handle);
}
}
