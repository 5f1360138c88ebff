#include "tests/support/TraceCapture.h"

#include <algorithm>

namespace corvane::test {

struct TraceCapture::Sink : ITraceSink {
  void Write(const TraceLine& line) override {
    CapturedLine c{line.level, line.source, line.line, ToUtf8(line.text)};
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(std::move(c));
  }
  mutable std::mutex mutex;
  std::vector<CapturedLine> lines;
};

TraceCapture::TraceCapture(int threshold)
    : sink_(std::make_shared<Sink>()), previousThreshold_(TraceThreshold()) {
  previousSink_ = SetTraceSink(sink_);
  SetTraceThreshold(threshold);
}

TraceCapture::~TraceCapture() {
  SetTraceThreshold(previousThreshold_);
  SetTraceSink(previousSink_);
}

std::vector<CapturedLine> TraceCapture::Lines() const {
  std::lock_guard<std::mutex> lock(sink_->mutex);
  return sink_->lines;
}

std::vector<std::string> TraceCapture::Texts() const {
  std::vector<std::string> out;
  for (auto& l : Lines()) out.push_back(l.text);
  return out;
}

bool TraceCapture::Contains(const std::string& text) const {
  const auto texts = Texts();
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

void TraceCapture::Clear() {
  std::lock_guard<std::mutex> lock(sink_->mutex);
  sink_->lines.clear();
}

}  // namespace corvane::test
