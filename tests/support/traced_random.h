#pragma once

// The generator of a test: a failure prints its seed as long as it lives.

#include <gtest/gtest.h>

#include "tests/support/random.h"

namespace tavro::test {

class TracedRandom : public Random {
 public:
  TracedRandom() : Random(baseSeed()), trace_("the seed", 0, seedNote(baseSeed())) {}

 private:
  testing::ScopedTrace trace_;
};

}  // namespace tavro::test
