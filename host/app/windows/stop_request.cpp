#include "host/app/stop_request.h"

#include <windows.h>

#include <atomic>

namespace tavro::host {

namespace {

std::atomic<bool> stopRequested = false;

/// Runs on a thread of the system's. What it doesn't take ends the process.
BOOL WINAPI takeEvent(DWORD /*event*/) {
  return stopRequested.exchange(true) ? FALSE : TRUE;
}

}  // namespace

void catchStopSignals() {
  SetConsoleCtrlHandler(&takeEvent, TRUE);
}

bool isStopRequested() {
  return stopRequested;
}

}  // namespace tavro::host
