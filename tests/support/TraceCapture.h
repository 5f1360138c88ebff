// Captures trace lines for a test: while it lives, lines at or above its threshold go to memory instead of the
// configured destination; the previous destination and threshold come back when it is destroyed.
#pragma once
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Trace.h"

namespace corvane::test {

struct CapturedLine {
  int level = 0;
  std::string source;  // file name without directory and extension
  int line = 0;
  std::string text;  // UTF-8
};

class TraceCapture {
 public:
  explicit TraceCapture(int threshold = TRACE_DETAIL);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<CapturedLine> Lines() const;
  std::vector<std::string> Texts() const;
  bool Contains(const std::string& text) const;  // a line with exactly this text
  void Clear();

 private:
  struct Sink;
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<ITraceSink> previousSink_;
  int previousThreshold_;
};

}  // namespace corvane::test
