#include "host/core/diverted_output.h"

#include <cstdio>

#ifdef __GLIBC__

#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <mutex>

namespace tavro::host {

namespace {

// The stream's lock is enough. Tools that look for races see this one only.
std::mutex streamMutex;

/// False if something that was printed before couldn't be written: it would be written to wherever
/// the stream leads next.
bool flushOutput() {
  std::cout.flush();  // has a buffer of its own if the program wants it so
  return std::fflush(stdout) == 0;
}

}  // namespace

DivertedOutput::DivertedOutput(bool isShown) {
  // In this order: the caller may have locked the stream already.
  flockfile(stdout);
  streamMutex.lock();
  if (fileno(stdout) < 0 || !flushOutput())
    return;
  if (!isShown || fcntl(STDERR_FILENO, F_GETFD) < 0)
    nowhere_ = open("/dev/null", O_WRONLY | O_CLOEXEC);
  former_ = stdout->_fileno;
  stdout->_fileno = nowhere_ >= 0 ? nowhere_ : STDERR_FILENO;
}

DivertedOutput::~DivertedOutput() {
  if (former_ >= 0) {
    flushOutput();
    stdout->_fileno = former_;
  }
  if (nowhere_ >= 0)
    close(nowhere_);
  streamMutex.unlock();
  funlockfile(stdout);
}

}  // namespace tavro::host

#else

namespace tavro::host {

DivertedOutput::DivertedOutput(bool /*isShown*/) {}
DivertedOutput::~DivertedOutput() = default;

}  // namespace tavro::host

#endif
