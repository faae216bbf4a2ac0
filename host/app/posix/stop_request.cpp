#include "host/app/stop_request.h"

#include <csignal>

namespace tavro::host {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int /*signal*/) {
  stopRequested = 1;
}

}  // namespace

void catchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = &requestStop;
  // One-shot, and without SA_RESTART: a read that waits for a silent pipe has to come back.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool isStopRequested() {
  return stopRequested != 0;
}

}  // namespace tavro::host
