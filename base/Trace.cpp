// The trace facility: a process-wide threshold read with one relaxed atomic load on
// the hot path, a per-thread pending line between BeginTrace and TraceMsg, and a
// replaceable sink. Sinks write each line whole, so lines from many threads never
// interleave.
#include "base/Trace.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/System.h"

namespace corvane::detail {
std::atomic<int> g_traceThreshold{INT_MIN};
}  // namespace corvane::detail

namespace {

// INT_MIN means "not configured yet": every level passes the fast check and the slow
// path reads the environment once, then re-checks against the real threshold.
constexpr int kUnconfigured = INT_MIN;
std::atomic<int>& g_threshold = corvane::detail::g_traceThreshold;
std::once_flag g_configureOnce;

std::mutex g_sinkMutex;
std::shared_ptr<ITraceSink> g_sink;  // null: the default stderr sink

struct PendingLine {
  bool active = false;
  int level = 0;
  const char* file = nullptr;
  int line = 0;
};
thread_local PendingLine t_pending;

std::string SourceName(const char* file) {
  if (!file) return std::string();
  const char* base = file;
  for (const char* p = file; *p; ++p)
    if (*p == '/' || *p == '\\') base = p + 1;
  std::string name(base);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

class StdioSink : public ITraceSink {
 public:
  StdioSink(FILE* f, bool owned) : file_(f), owned_(owned) {}
  ~StdioSink() override {
    if (owned_ && file_) std::fclose(file_);
  }
  void Write(const TraceLine& line) override {
    std::string text = corvane::FormatTraceLine(line);
    text.push_back('\n');
    // One write per line under the sink's lock: lines stay whole and in order.
    std::lock_guard<std::mutex> lock(mutex_);
    std::fwrite(text.data(), 1, text.size(), file_);
    std::fflush(file_);
  }

 private:
  std::mutex mutex_;
  FILE* file_;
  bool owned_;
};

std::shared_ptr<ITraceSink> CurrentSink() {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  if (!g_sink) g_sink = corvane::MakeStderrTraceSink();
  return g_sink;
}

void ConfigureNow();
void EnsureConfigured() { std::call_once(g_configureOnce, ConfigureNow); }

}  // namespace

ORelTrace* ORelTrace::Register(const OLECHAR* moduleName) {
  EnsureConfigured();
  return new ORelTrace(corvane::WString(moduleName ? moduleName : OLESTR("")));
}

void ORelTrace::Unregister(ORelTrace* trace) { delete trace; }

bool OTraceMsg::BeginTrace(ORelTrace* /*trace*/, int level, const char* sourceFile, int line) {
  if (level < g_threshold.load(std::memory_order_relaxed)) return false;
  EnsureConfigured();
  if (level < g_threshold.load(std::memory_order_relaxed)) return false;
  t_pending.active = true;
  t_pending.level = level;
  t_pending.file = sourceFile;
  t_pending.line = line;
  return true;
}

void OTraceMsg::TraceMsg(const OLECHAR* format, ...) {
  if (!t_pending.active) return;
  PendingLine pending = t_pending;
  t_pending.active = false;
  TraceLine out;
  out.level = pending.level;
  out.source = SourceName(pending.file);
  out.line = pending.line;
  va_list args;
  va_start(args, format);
  out.text = corvane::WFormatV(format, args);
  va_end(args);
  CurrentSink()->Write(out);
}

namespace corvane {

ORelTrace* ModuleTrace() {
  // Registered once and kept for the life of the process: code may trace from static
  // destructors, after any owner could have unregistered it.
  static ORelTrace* const trace = ORelTrace::Register(OLESTR("Corvane"));
  return trace;
}

void SetTraceThreshold(int level) {
  EnsureConfigured();
  g_threshold.store(level == kUnconfigured ? kUnconfigured + 1 : level, std::memory_order_relaxed);
}

int TraceThreshold() {
  EnsureConfigured();
  return g_threshold.load(std::memory_order_relaxed);
}

std::shared_ptr<ITraceSink> SetTraceSink(std::shared_ptr<ITraceSink> sink) {
  EnsureConfigured();
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  std::shared_ptr<ITraceSink> previous = std::move(g_sink);
  g_sink = std::move(sink);
  return previous;
}

bool ParseTraceSetting(const std::string& text, TraceSetting* setting) {
  size_t b = 0, e = text.size();
  while (b < e && (text[b] == ' ' || text[b] == '\t')) ++b;
  while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t' || text[e - 1] == '\r' || text[e - 1] == '\n')) --e;
  const size_t colon = text.find(':', b);
  const size_t levelEnd = colon == std::string::npos || colon > e ? e : colon;
  if (levelEnd == b) return false;
  long long level = 0;
  for (size_t i = b; i < levelEnd; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    level = level * 10 + (text[i] - '0');
    if (level >= kTraceOff) return false;
  }
  std::string path;
  if (levelEnd < e) {
    path = text.substr(levelEnd + 1, e - levelEnd - 1);
    if (path.empty()) return false;
  }
  if (setting) {
    setting->level = static_cast<int>(level);
    setting->path = std::move(path);
  }
  return true;
}

void ConfigureTraceFromEnvironment() {
  // An explicit call counts as the first-use configuration, so a later first use does
  // not read the environment again over what the host set since.
  std::call_once(g_configureOnce, [] {});
  ConfigureNow();
}

}  // namespace corvane

namespace {
void ConfigureNow() {
  using namespace corvane;
  std::string value;
  const bool present = platform::ReadEnvironment("CORVANE_TRACE", &value);
  TraceSetting setting;
  std::shared_ptr<ITraceSink> sink;
  if (present && ParseTraceSetting(value, &setting)) {
    if (setting.path.empty()) {
      sink = MakeStderrTraceSink();
    } else {
      sink = MakeFileTraceSink(setting.path);
      if (!sink) {
        std::fprintf(stderr, "CORVANE_TRACE: cannot open '%s' for appending; tracing is off\n",
                     setting.path.c_str());
        setting.level = kTraceOff;
      }
    }
  } else if (present && !value.empty()) {
    std::fprintf(stderr, "CORVANE_TRACE: '%s' is not LEVEL or LEVEL:FILE; tracing is off\n", value.c_str());
  }
  {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    g_sink = std::move(sink);
  }
  g_threshold.store(setting.level, std::memory_order_relaxed);
}
}  // namespace

namespace corvane {

std::shared_ptr<ITraceSink> MakeStderrTraceSink() { return std::make_shared<StdioSink>(stderr, false); }

std::shared_ptr<ITraceSink> MakeFileTraceSink(const std::string& utf8Path) {
  FILE* f = platform::OpenFile(utf8Path, "ab");
  if (!f) return nullptr;
  return std::make_shared<StdioSink>(f, true);
}

std::string FormatTraceLine(const TraceLine& line) {
  std::string out = "[" + std::to_string(line.level) + "] " + line.source + "(" + std::to_string(line.line) +
                    "): " + ToUtf8(line.text);
  return out;
}

}  // namespace corvane
