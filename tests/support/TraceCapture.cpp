#include "tests/support/TraceCapture.h"

#include <algorithm>

namespace corvane::test {

class TraceCapture::Sink : public ITraceSink {
 public:
  void Write(const TraceLine& line) override {
    CapturedLine c{line.level, line.source, line.line, ToUtf8(line.text)};
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(c));
  }
  std::vector<CapturedLine> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<CapturedLine> lines_;
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

std::vector<CapturedLine> TraceCapture::Lines() const { return sink_->Lines(); }

std::vector<std::string> TraceCapture::Texts() const {
  std::vector<std::string> out;
  for (auto& l : sink_->Lines()) out.push_back(l.text);
  return out;
}

bool TraceCapture::Contains(const std::string& text) const {
  const auto texts = Texts();
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

void TraceCapture::Clear() { sink_->Clear(); }

}  // namespace corvane::test
