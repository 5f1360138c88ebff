// Captures trace lines for a test: while it lives, lines at or above its threshold go to memory instead of the
// configured destination; the previous destination and threshold come back when it is destroyed.
#pragma once
#include <algorithm>
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
  struct Sink : ITraceSink {
    void Write(const TraceLine& line) override {
      CapturedLine c{line.level, line.source, line.line, ToUtf8(line.text)};
      std::lock_guard<std::mutex> lock(mutex);
      lines.push_back(std::move(c));
    }
    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
  };

 public:
  explicit TraceCapture(int threshold = TRACE_DETAIL)
      : sink_(std::make_shared<Sink>()), previousSink_(SetTraceSink(sink_)), previousThreshold_(TraceThreshold()) {
    SetTraceThreshold(threshold);
  }
  ~TraceCapture() {
    SetTraceThreshold(previousThreshold_);
    SetTraceSink(previousSink_);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<CapturedLine> Lines() const {
    std::lock_guard<std::mutex> lock(sink_->mutex);
    return sink_->lines;
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> out;
    for (auto& l : Lines()) out.push_back(l.text);
    return out;
  }
  // A line with exactly this text.
  bool Contains(const std::string& text) const {
    const auto texts = Texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(sink_->mutex);
    sink_->lines.clear();
  }

 private:
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<ITraceSink> previousSink_;
  int previousThreshold_;
};

}  // namespace corvane::test
