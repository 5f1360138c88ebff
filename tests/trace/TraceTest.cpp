#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "base/Trace.h"
#include "platform/WideString.h"
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

namespace corvane {

namespace {
// Formats and returns UTF-8, so failures print readable text.
template <typename... Args>
std::string F(const OLECHAR* fmt, Args... args) { return ToUtf8(WFormat(fmt, args...)); }
}  // namespace

// The provider's texts and traces use %d, %u, %X and %s with widths and precisions; a
// wrong or unknown conversion must still give a bounded text.
TEST(WideFormat, TheConversionsTheProviderWrites) {
  EXPECT_EQ(F(OLESTR("%d|%u"), -42, 4000000000u), "-42|4000000000");
  EXPECT_EQ(F(OLESTR("%.4d-%.2d-%.2d %.2d:%.2d:%.2d.%.3d"), 2024, 3, 7, 9, 5, 0, 7), "2024-03-07 09:05:00.007");
  EXPECT_EQ(F(OLESTR("[%02u][%5d][%-5d][%08X]"), 5u, 42, 42, 0x1Fu), "[05][   42][42   ][0000001F]");
  EXPECT_EQ(F(OLESTR("%d %d"), INT_MIN, INT_MAX), "-2147483648 2147483647");
  // An HRESULT is a signed 32-bit value passed to %X.
  HRESULT hr = E_INVALIDARG;
  EXPECT_EQ(F(OLESTR("HR = %X, %X"), hr, 0x8004C001u), "HR = 80070057, 8004C001");
  EXPECT_EQ(F(OLESTR("[%s]"), static_cast<const OLECHAR*>(nullptr)), "[(null)]");
  // Non-ASCII text of two, three and four bytes passes through %s untouched, up to the last
  // plane: T a-umlaut g, euro, then U+1F600 and U+10FFFF as two surrogate pairs.
  const WString text = FromUtf8("T\xC3\xA4g\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF");
  ASSERT_EQ(8u, text.size());
  EXPECT_EQ(ToUtf8(WFormat(OLESTR("<%s>"), text.c_str())), "<T\xC3\xA4g\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF>");
  EXPECT_EQ(F(OLESTR("100%% %d%%"), 5), "100% 5%");
  // An unknown conversion shows as written and takes no argument; a lone '%' at the end stays.
  EXPECT_EQ(F(OLESTR("%y %d %"), 3), "%y 3 %");
  EXPECT_EQ(ToUtf8(corvane::WFormat(nullptr)), "");
  // A huge width is capped rather than allocating without bound.
  EXPECT_LE(WFormat(OLESTR("%999999999d"), 1).size(), 10000u);
}

TEST(Utf8Conversion, InvalidInputBecomesReplacementCharacters) {
  const std::string fffd = "\xEF\xBF\xBD";
  // Stray continuation byte, bytes never valid, truncated sequence at the end.
  EXPECT_EQ(ToUtf8(FromUtf8("a\x80z")), "a" + fffd + "z");
  EXPECT_EQ(ToUtf8(FromUtf8("\xC0\xAF")), fffd + fffd);  // overlong '/'
  EXPECT_EQ(ToUtf8(FromUtf8("\xFF")), fffd);
  EXPECT_EQ(ToUtf8(FromUtf8("x\xE2\x82")), "x" + fffd);
  // A broken sequence is one replacement, and the byte that broke it starts over.
  EXPECT_EQ(ToUtf8(FromUtf8("\xE2\x82" "A")), fffd + "A");
  // Encoded surrogates and code points above U+10FFFF are refused.
  EXPECT_EQ(ToUtf8(FromUtf8("\xED\xA0\x80")), fffd + fffd + fffd);
  EXPECT_EQ(ToUtf8(FromUtf8("\xF4\x90\x80\x80")), fffd + fffd + fffd + fffd);
  // Unpaired surrogates in UTF-16 become U+FFFD in UTF-8.
  const OLECHAR lone[] = {static_cast<OLECHAR>(0xD800), OLECHAR('x'), static_cast<OLECHAR>(0xDC00), 0};
  EXPECT_EQ(ToUtf8(lone), fffd + "x" + fffd);
}

TEST(WideCompare, CaseBlindForAsciiAndLatin1) {
  using corvane::WICmp;
  EXPECT_EQ(WICmp(OLESTR("rawdata_double"), OLESTR("RAWDATA_DOUBLE")), 0);
  EXPECT_TRUE(corvane::WIEquals(FromUtf8("\xC3\xA9t\xC3\xA9"), FromUtf8("\xC3\x89T\xC3\x89")));  // été / ÉTÉ
  EXPECT_FALSE(corvane::WIEquals(OLESTR("TAG"), OLESTR("TAGS")));
  EXPECT_LT(WICmp(OLESTR("TAG"), OLESTR("tags")), 0);
  EXPECT_GT(WICmp(OLESTR("b"), OLESTR("A")), 0);
  // Folding to lower case puts '_' before letters, as the Windows run-time does.
  EXPECT_LT(WICmp(OLESTR("A_"), OLESTR("Ab")), 0);
  EXPECT_EQ(WICmp(static_cast<const OLECHAR*>(nullptr), OLESTR("")), 0);
  EXPECT_LT(corvane::WCmp(nullptr, OLESTR("a")), 0);
  EXPECT_LT(corvane::WCmp(OLESTR("a"), OLESTR("\u00E9")), 0);  // unsigned order
  EXPECT_EQ(ToUtf8(corvane::WUpper(FromUtf8("stra\xC3\x9F" "e \xC3\xA4\xC3\xB7\xC3\xBF"))),
            "STRA\xC3\x9F" "E \xC3\x84\xC3\xB7\xC5\xB8");  // ß stays, ÷ stays, ÿ -> Ÿ
  EXPECT_EQ(corvane::WLen(nullptr), 0u);
}

}  // namespace corvane
