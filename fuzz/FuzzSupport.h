// What both fuzzers share: trace lines formatted and then dropped, and a check that
// aborts with its reason, so that libFuzzer keeps the input that broke a promise.
#pragma once
#include <cstdio>
#include <cstdlib>

#include "base/Trace.h"

namespace corvane::fuzz {

// Counts what it drops, so that formatting each line is still done.
class DiscardSink : public ITraceSink {
 public:
  void Write(const TraceLine& line) override { length_ += line.text.size(); }

 private:
  size_t length_ = 0;
};

inline void Check(bool condition, const char* what = "a promise broken") {
  if (!condition) {
    std::fprintf(stderr, "fuzzer: %s\n", what);
    std::abort();
  }
}

}  // namespace corvane::fuzz
