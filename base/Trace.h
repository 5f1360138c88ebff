// The provider's tracing facility. A module registers once at load
// (ORelTrace::Register) and each trace line is BeginTrace(trace, level, file, line)
// followed by TraceMsg(format, ...). Use the CVTRACE macro: below the threshold it
// costs one comparison and no formatting (its level is read twice: pass a constant).
//
// Tracing is off by default. The host sets a threshold and destination with
// SetTraceThreshold/SetTraceSink, or the environment does: CORVANE_TRACE=400 traces
// level 400 and above to stderr, CORVANE_TRACE=100:/tmp/corvane.log to that file.
#pragma once
#include <atomic>
#include <memory>
#include <string>

#include "platform/WideString.h"

// Trace levels.
enum : int {
  TRACE_DETAIL = 100,
  TRACE_INFO = 400,
  TRACE_NOTICE = 600,
  TRACE_WARNING = 700,
  TRACE_ERROR = 800,
};

struct TraceLine {
  int level = 0;
  std::string source;  // source file name without directory and extension
  int line = 0;
  corvane::WString text;
};

// Where trace lines go. Write may be called from any thread, one line at a time.
class ITraceSink {
 public:
  virtual ~ITraceSink() = default;
  virtual void Write(const TraceLine& line) = 0;
};

class ORelTrace {
 public:
  // Attaches a module (by name) to the trace facility; returns its handle. Called at
  // module load; Unregister at unload.
  static ORelTrace* Register(const OLECHAR* moduleName);
  static void Unregister(ORelTrace* trace);

  const corvane::WString& ModuleName() const { return moduleName_; }

 private:
  explicit ORelTrace(corvane::WString name) : moduleName_(std::move(name)) {}
  corvane::WString moduleName_;
};

class OTraceMsg {
 public:
  // Starts a trace line on this thread. Returns false, and leaves nothing pending,
  // when `level` is below the threshold: the caller then skips TraceMsg.
  static bool BeginTrace(ORelTrace* trace, int level, const char* sourceFile, int line);
  // Formats (wide printf) and writes the line begun on this thread.
  static void TraceMsg(const OLECHAR* format, ...);
};

namespace corvane {
// The module's trace handle (registered on first use, so static initialisation order
// does not matter).
ORelTrace* ModuleTrace();
// Threshold: lines with level >= threshold are written. kTraceOff disables tracing.
constexpr int kTraceOff = 0x7FFFFFFF;
void SetTraceThreshold(int level);
int TraceThreshold();
// Replaces the destination; null restores the default (stderr). Returns the previous
// sink so that a test capture can put it back.
std::shared_ptr<ITraceSink> SetTraceSink(std::shared_ptr<ITraceSink> sink);
// Reads CORVANE_TRACE again (done once automatically on first use).
void ConfigureTraceFromEnvironment();

// A parsed CORVANE_TRACE value: "400" is level 400 to stderr (empty path),
// "100:/tmp/corvane.log" level 100 to that file. False for anything else (tracing
// then stays off).
struct TraceSetting {
  int level = kTraceOff;
  std::string path;  // UTF-8; empty for stderr
};
bool ParseTraceSetting(const std::string& text, TraceSetting* setting);

// The sinks behind the environment setting, for hosts that choose a destination
// themselves: one line "[400] DataStore(123): text" per trace, written whole.
std::shared_ptr<ITraceSink> MakeStderrTraceSink();
// Null when the file cannot be opened for appending.
std::shared_ptr<ITraceSink> MakeFileTraceSink(const std::string& utf8Path);
// The text of one line in the stderr/file form, without the line break.
std::string FormatTraceLine(const TraceLine& line);
}  // namespace corvane

namespace corvane::detail {
// The threshold itself, so that CVTRACE can test it inline: a trace below it costs
// one relaxed load and a compare, with no call. (Before the first configuration it
// holds INT_MIN, which lets every trace through to BeginTrace, which configures.)
extern std::atomic<int> g_traceThreshold;
}  // namespace corvane::detail

namespace corvane {
// Whether a trace at `level` may be written: for work done only to feed traces.
inline bool TraceWanted(int level) { return level >= detail::g_traceThreshold.load(std::memory_order_relaxed); }
}  // namespace corvane

#define CVTRACE(level, ...)                                                                      \
  do {                                                                                           \
    if ((level) >= ::corvane::detail::g_traceThreshold.load(std::memory_order_relaxed) &&        \
        OTraceMsg::BeginTrace(::corvane::ModuleTrace(), (level), __FILE__, __LINE__))            \
      OTraceMsg::TraceMsg(__VA_ARGS__);                                                          \
  } while (0)
