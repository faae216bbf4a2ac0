#pragma once

// A limit on single allocations of the tested code, so that an input can't ask for the whole memory
// or for hours of work: a request beyond it fails, as on a machine that has no more. Programs that
// link scarce_target.cpp get it while a ScarceTarget lives.

namespace tavro::fuzz {

class ScarceTarget {
 public:
  ScarceTarget();
  ~ScarceTarget();
  ScarceTarget(const ScarceTarget&) = delete;
  ScarceTarget& operator=(const ScarceTarget&) = delete;
};

}  // namespace tavro::fuzz
