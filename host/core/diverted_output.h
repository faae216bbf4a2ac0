#pragma once

// DivertedOutput: modules print diagnostics to the process's standard output, where a host's
// results may go. While one of these lives, what its thread prints there through stdio or iostream
// goes to the standard error, or nowhere.
//
// The descriptor stays as it is, since other threads may be writing to it at this moment; only the
// stream `stdout` gets another one. The thread holds the stream's lock meanwhile, so that lines
// that others print wait for a few milliseconds and then go where they belong.
//
// Where the C library isn't glibc, nothing is diverted.

namespace tavro::host {

class DivertedOutput {
 public:
  /// With `isShown`, the lines go to the standard error if that is open; otherwise they are lost.
  explicit DivertedOutput(bool isShown);
  ~DivertedOutput();
  DivertedOutput(const DivertedOutput&) = delete;
  DivertedOutput& operator=(const DivertedOutput&) = delete;

 private:
  [[maybe_unused]] int former_ = -1;   ///< the stream's own descriptor; -1: it wasn't touched
  [[maybe_unused]] int nowhere_ = -1;  ///< to be closed, if it isn't -1
};

}  // namespace tavro::host
