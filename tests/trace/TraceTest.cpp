#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "base/Trace.h"
#include "tests/support/TraceCapture.h"

using corvane::test::CapturedLine;
using corvane::test::TraceCapture;

namespace {

// "level source text" of each captured line.
std::vector<std::string> Summary(const std::vector<CapturedLine>& lines) {
  std::vector<std::string> out;
  for (const CapturedLine& l : lines) out.push_back(std::to_string(l.level) + " " + l.source + " " + l.text);
  return out;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  return lines;
}

}  // namespace

// The source is the bare file name whatever the path style; dots in directories are not
// extensions. The level, line and text of a line are checked in the file tests below.
TEST(TraceCaptureLines, NameTheirSourceByItsBareFileName) {
  TraceCapture capture;
  ASSERT_TRUE(OTraceMsg::BeginTrace(corvane::ModuleTrace(), 400, "C:\\src\\provider\\store\\DataStore.cpp", 123));
  OTraceMsg::TraceMsg(OLESTR("x"));
  ASSERT_TRUE(OTraceMsg::BeginTrace(corvane::ModuleTrace(), 400, "/src/v1.2/SQLParser", 7));
  OTraceMsg::TraceMsg(OLESTR("y"));
  EXPECT_EQ(Summary(capture.Lines()), (std::vector<std::string>{"400 DataStore x", "400 SQLParser y"}));
}

TEST(TraceEnvironment, ParsesLevelAndDestinationAndConfiguresTheFacility) {
  // Only the first ':' splits; anything unreadable is refused (-1).
  const struct {
    const char* text;
    int level;
    const char* path;
  } cases[] = {{"100:/tmp/corvane.log", 100, "/tmp/corvane.log"}, {"700:C:\\logs\\c.log", 700, "C:\\logs\\c.log"},
               {" 0 ", 0, ""}, {"", -1, ""}, {"4x0", -1, ""}, {"-5", -1, ""}, {"400:", -1, ""},
               {"99999999999", -1, ""}};
  for (const auto& c : cases) {
    corvane::TraceSetting s;
    EXPECT_EQ(corvane::ParseTraceSetting(c.text, &s), c.level >= 0) << "'" << c.text << "'";
    if (c.level >= 0) {
      EXPECT_EQ(s.level, c.level) << c.text;
      EXPECT_EQ(s.path, c.path) << c.text;
    }
  }
  // A readable setting takes effect (TraceFirstUse writes to its file); garbage, no
  // setting, or a file that cannot be opened leave tracing off rather than failing later.
  TraceCapture saved;  // puts the sink and threshold back at the end
  for (const char* setting : {"garbage", "800", "100:no_such_directory/x/y.log", static_cast<const char*>(nullptr)}) {
#ifdef _WIN32
    const corvane::WString w = corvane::FromUtf8(setting ? setting : "");
    SetEnvironmentVariableW(L"CORVANE_TRACE", setting ? reinterpret_cast<const wchar_t*>(w.c_str()) : nullptr);
#else
    if (setting)
      setenv("CORVANE_TRACE", setting, 1);
    else
      unsetenv("CORVANE_TRACE");
#endif
    corvane::ConfigureTraceFromEnvironment();
    EXPECT_EQ(corvane::TraceThreshold(), setting && setting[0] == '8' ? 800 : corvane::kTraceOff) << setting;
  }
}

TEST(TraceThreads, PendingLineBelongsToItsThread) {
  TraceCapture capture(TRACE_DETAIL);
  // This thread begins a line, another thread writes a whole line in between, then
  // this thread finishes: each line keeps its own level and text.
  ASSERT_TRUE(OTraceMsg::BeginTrace(corvane::ModuleTrace(), TRACE_WARNING, "Main.cpp", 1));
  std::thread other([] {
    if (OTraceMsg::BeginTrace(corvane::ModuleTrace(), TRACE_DETAIL, "Other.cpp", 2))
      OTraceMsg::TraceMsg(OLESTR("other"));
    OTraceMsg::TraceMsg(OLESTR("nothing pending here"));
  });
  other.join();
  OTraceMsg::TraceMsg(OLESTR("main"));
  EXPECT_EQ(Summary(capture.Lines()), (std::vector<std::string>{"100 Other other", "700 Main main"}));
}

// Eight threads write to one file while this one sets the threshold and the sink again and
// again: every line arrives whole and in its thread's order (a torn, interleaved or lost
// line shows), and the sanitizer builds check the reconfiguration for races.
TEST(TraceThreads, ManyThreadsWriteWholeLinesToAFileWhileItIsReconfigured) {
  TraceCapture saved;  // puts the sink and threshold back at the end
  const std::string path = "trace_facility_threads.log";
  std::remove(path.c_str());
  auto sink = corvane::MakeFileTraceSink(path);
  ASSERT_NE(sink, nullptr);
  corvane::SetTraceSink(sink);
  corvane::SetTraceThreshold(TRACE_DETAIL);

  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  // A long text makes a torn or interleaved write visible.
  const corvane::WString padding(200, OLECHAR('x'));
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &padding, &running] {
      for (int i = 0; i < kLines; ++i)
        CVTRACE(TRACE_INFO, OLESTR("thread %02d line %04d %s end"), t, i, padding.c_str());
      --running;
    });
  }
  for (int i = 0; running > 0; ++i) {  // INFO lines pass at either threshold
    corvane::SetTraceThreshold(i % 2 ? TRACE_INFO : TRACE_DETAIL);
    corvane::SetTraceSink(sink);
  }
  for (auto& th : threads) th.join();
  corvane::SetTraceSink(nullptr);
  sink.reset();  // closes the file

  const auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  const std::string tail = " " + std::string(200, 'x') + " end";
  for (const auto& l : lines) {
    int t = -1, i = -1, at = 0;
    ASSERT_EQ(std::sscanf(l.c_str(), "[400] TraceTest(%*d): thread %d line %d%n", &t, &i, &at), 2) << l;
    ASSERT_TRUE(t >= 0 && t < kThreads) << l;
    EXPECT_EQ(i, next[t]) << "lines of one thread out of order or lost: " << l;
    next[t] = i + 1;
    ASSERT_EQ(l.substr(static_cast<size_t>(at)), tail) << l;
  }
  std::remove(path.c_str());
}

// Run only by its own ctest entry, with CORVANE_TRACE set before the process starts:
// the first trace reads the environment without any call from the host.
TEST(TraceFirstUse, DISABLED_ReadsTheEnvironmentByItself) {
  const int line = __LINE__ + 1;
  CVTRACE(TRACE_WARNING, OLESTR("first use %s"), OLESTR("configured"));
  CVTRACE(TRACE_NOTICE, OLESTR("below the configured level"));
  EXPECT_EQ(corvane::TraceThreshold(), TRACE_WARNING);
  corvane::SetTraceSink(nullptr);  // closes the file
  EXPECT_EQ(ReadLines("trace_first_use.log"),
            std::vector<std::string>{"[700] TraceTest(" + std::to_string(line) + "): first use configured"});
  std::remove("trace_first_use.log");
}
