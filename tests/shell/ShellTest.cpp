// The shell as its users run it: a process with arguments, files, stdin and a terminal.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string g_shell, g_readme;

// The sanitizers' own bookkeeping (freed blocks held back, shadow memory) swamps what the shell holds.
constexpr bool kMemoryMeasurable = !CORVANE_SANITIZED;

struct Result { int status = -1; std::string out, err; long maxRssKb = 0; };

std::string TempDir() {
  static std::string dir = [] {
    char pattern[] = "/tmp/corvane-shell-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  return dir;
}

std::string WriteFile(const std::string& name, const std::string& text) {
  const std::string path = TempDir() + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// In a forked child: becomes the shell with `args`.
[[noreturn]] void Exec(const std::vector<std::string>& args) {
  std::vector<char*> argv{const_cast<char*>(g_shell.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(g_shell.c_str(), argv.data());
  _exit(127);
}

// Where the shell's stdout goes besides a file: a pipe whose reader has gone, with
// SIGPIPE ignored as supervisors and Python's subprocess leave it.
const char kClosedPipe[] = "closed pipe";

// Runs the shell with `args`, `input` on stdin, and collects its outputs; killed after two minutes.
Result RunShell(const std::vector<std::string>& args, const std::string& input = "", std::string out = "") {
  const std::string in = WriteFile("stdin", input), err = TempDir() + "/stderr";
  const bool pipeOut = out == kClosedPipe, ownOut = out.empty();
  if (ownOut) out = TempDir() + "/stdout";
  int fds[2] = {-1, -1};
  if (pipeOut && pipe(fds) == 0) close(fds[0]);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(pipeOut ? fds[1] : open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    if (pipeOut) signal(SIGPIPE, SIG_IGN);
    Exec(args);
  }
  if (pipeOut) close(fds[1]);
  Result r;
  int status = 0;
  rusage usage{};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (wait4(pid, &status, WNOHANG, &usage) == 0) {
    if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
    usleep(10000);
  }
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.maxRssKb = usage.ru_maxrss;
  if (ownOut) r.out = ReadFile(out);
  r.err = ReadFile(err);
  return r;
}
// The exit status and stderr in one text, so one comparison shows both.
std::string Failure(const Result& r) { return std::to_string(r.status) + " " + r.err; }

// Two tags with known samples on 2024-01-01, one of each kind the formats treat apart.
const char kData[] =
    "tag,timestamp,value,quality,vartype\n"
    "Flow,2024-01-01 00:00:00,1.5,192,VT_R8\n"
    "Flow,2024-01-01 00:01:00.25,0.1,192,\n"
    "Note,2024-01-01 00:00:00,\"a, \"\"quoted\"\" note\",192,VT_BSTR\n"
    "Note,2024-01-01 00:01:00,,0,\n"
    "On,2024-01-01 00:00:00,true,192,VT_BOOL\n";
const char kDay[] = "TIMESTAMP >= '2024-01-01' AND TIMESTAMP < '2024-01-02'";

// The two-tag file, unless the arguments name their own data.
std::vector<std::string> WithData(std::vector<std::string> args) {
  if (std::find(args.begin(), args.end(), "--data") == args.end())
    args.insert(args.begin(), {"--data", WriteFile("data.csv", kData)});
  return args;
}

// Runs: arguments, stdin, then "status stderr" and stdout, whole.
struct Case { std::vector<std::string> args; std::string input, failure, out; };

TEST(ShellRuns, EachGivesItsStatusErrorsAndOutput) {
  using namespace std::string_literals;
  const std::string raw = "SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE "s + kDay;
  // A `;` inside a text ends nothing; the last statement needs no `;`.
  const std::string script = "-- the tags first\nSELECT TAGNAME\n  FROM TAGS\n  WHERE TAGNAME = 'Flow';\n\n"
                             "SELECT TAGNAME FROM TAGS WHERE TAGNAME = 'a;\nb';\n"
                             "SELECT TAGNAME FROM TAGS WHERE TAGNAME = 'On'";
  // Cut at the NUL, the DELETE would lose its upper bound and remove both samples.
  const std::string nul =
      "DELETE FROM RAWDATA WHERE TAGNAME = 'Flow' AND TIMESTAMP >= '2024-01-01 00:00:00'\0 AND TIMESTAMP < "
      "'2023-01-01';\n.format\0 json\nSELECT VALUE FROM RAWDATA WHERE TAGNAME = 'Flow' AND "s + kDay + ";\n";
  const Case cases[] = {
      // CSV: RFC 4180, shortest numbers, an empty text quoted.
      {{"--format", "csv", "-e", raw}, "", "0 ",
       "TAGNAME,TIMESTAMP,VALUE,QUALITY\r\n"
       "Flow,2024-01-01 00:00:00.000,1.5,192\r\n"
       "Flow,2024-01-01 00:01:00.250,0.1,192\r\n"
       "Note,2024-01-01 00:00:00.000,\"a, \"\"quoted\"\" note\",192\r\n"
       "Note,2024-01-01 00:01:00.000,\"\",0\r\n"
       "On,2024-01-01 00:00:00.000,true,192\r\n"},
      // JSON: one array of objects per statement.
      {{"--format", "json", "-e", "SELECT TAGNAME, TIMESTAMP, VALUE FROM RAWDATA WHERE "s + kDay, "-e",
        "SELECT TAGNAME FROM TAGS WHERE TAGNAME = 'x'"},
       "", "0 ",
       "[\n"
       "{\"TAGNAME\":\"Flow\",\"TIMESTAMP\":\"2024-01-01T00:00:00.000Z\",\"VALUE\":1.5},\n"
       "{\"TAGNAME\":\"Flow\",\"TIMESTAMP\":\"2024-01-01T00:01:00.250Z\",\"VALUE\":0.1},\n"
       "{\"TAGNAME\":\"Note\",\"TIMESTAMP\":\"2024-01-01T00:00:00.000Z\",\"VALUE\":\"a, \\\"quoted\\\" note\"},\n"
       "{\"TAGNAME\":\"Note\",\"TIMESTAMP\":\"2024-01-01T00:01:00.000Z\",\"VALUE\":\"\"},\n"
       "{\"TAGNAME\":\"On\",\"TIMESTAMP\":\"2024-01-01T00:00:00.000Z\",\"VALUE\":true}\n"
       "]\n"
       "[]\n"},
      // Every statement takes its values from the first --param on; a value none takes fails the run.
      {{"--param", "Flow", "-e", "SELECT VALUE FROM RAWDATA WHERE TAGNAME = ? AND "s + kDay, "-e",
        "SELECT TAGNAME FROM TAGS WHERE TAGNAME = ?", "--param", "Note"},
       "",
       "1 corvane-sql: 1 --param value(s) from 'Note' on were taken by no statement (every statement takes its "
       "values from the first --param on)\n",
       "VALUE\r\n1.5\r\n0.1\r\n\r\nTAGNAME\r\nFlow\r\n"},
      // Typed values: times, and a period the procedure takes as a number (as a text it would
      // read one interval), so the intervals are one minute long.
      {{"--param", "DBTYPE_DBTIMESTAMP:2024-01-01 00:00:00", "--param", "DBTYPE_DBTIMESTAMP:2024-01-01 00:02:00",
        "--param", "DBTYPE_R8:60000", "--param", "Flow", "-e",
        "SELECT Timestamp, MIN_Value, TIME_AVG_Value FROM HDA_REDUCED_ANALOG(?, ?, ?, ?)"},
       "", "0 ",
       "Timestamp,MIN_Value,TIME_AVG_Value\r\n2024-01-01 00:00:00.000,1.5,0.8029045643153527\r\n"
       "2024-01-01 00:01:00.000,0.1,0.10001210235131397\r\n"},
      // An interval without data: its values are NULL, written as empty fields.
      {{"-e", "SELECT Timestamp, MIN_Value, MIN_Status_Str FROM HDA_REDUCED_ANALOG('2023-12-31 00:00:00', "
              "'2023-12-31 00:01:00', 60000, 'Flow')"},
       "", "0 ", "Timestamp,MIN_Value,MIN_Status_Str\r\n2023-12-31 00:00:00.000,,BadNoData\r\n"},
      // Statements and files run in the order given; dot commands work in files.
      {{"-e", "SELECT TAGNAME FROM TAGS WHERE TAGNAME = 'On'",
        WriteFile("dot.sql", ".format json\nSELECT TAGNAME FROM TAGS WHERE TAGNAME = 'Flow';\n")},
       "", "0 ", "TAGNAME\r\nOn\r\n[\n{\"TAGNAME\":\"Flow\"}\n]\n"},
      // Scripts split at semicolons that end a line.
      {{WriteFile("script.sql", script)}, "", "0 ", "TAGNAME\r\nFlow\r\n\r\nTAGNAME\r\n\r\nTAGNAME\r\nOn\r\n"},
      // A statement holding a NUL is refused whole.
      {{WriteFile("nul.sql", nul)}, "",
       "1 error: the statement holds a NUL byte (at byte 82); nothing was run\n"
       "error: the statement holds a NUL byte (at byte 8); nothing was run\n",
       "VALUE\r\n1.5\r\n0.1\r\n"},
      // What cannot be drawn or written fails.
      {{}, ".chart " + TempDir() + "/x.svg\nSELECT TAGNAME FROM TAGS;\n",
       "1 error: cannot draw a chart: the result has no TIMESTAMP column to draw against\n", ""},
      {{"--chart", TempDir(), "-e", "SELECT * FROM RAWDATA WHERE TAGNAME = 'Flow'"}, "",
       "1 error: cannot write the chart to '" + TempDir() + "': Is a directory\n", ""},
      {{"--chart", "/dev/full", "-e", "SELECT * FROM RAWDATA WHERE TAGNAME = 'Flow'"}, "",
       "1 error: cannot write the chart to '/dev/full': No space left on device\n", ""},
      // Bad command lines and unreadable files: status 2 and one message, nothing run.
      {{"--data", TempDir()}, "", "2 corvane-sql: cannot read '" + TempDir() + "': Is a directory\n", ""},
      {{"--format", "xml"}, "", "2 corvane-sql: unknown format 'xml'\nTry 'corvane-sql --help'.\n", ""},
      {{"--bogus"}, "", "2 corvane-sql: unknown option '--bogus'\nTry 'corvane-sql --help'.\n", ""},
      {{"-e"}, "", "2 corvane-sql: option -e needs a value\nTry 'corvane-sql --help'.\n", ""},
      {{"--param", "DBTYPE_NOPE:1"}, "",
       "2 corvane-sql: unknown parameter type 'DBTYPE_NOPE'\nTry 'corvane-sql --help'.\n", ""},
      {{"/nonexistent/statements.sql"}, "",
       "2 corvane-sql: cannot read '/nonexistent/statements.sql': No such file or directory\n", ""},
      {{"--data", WriteFile("bad.csv", "tag,timestamp,value,quality\nFlow,yesterday,1,0\n")}, "",
       "2 corvane-sql: " + TempDir() + "/bad.csv:2: invalid timestamp 'yesterday'\n", ""},
      // A failed statement goes to stderr and the shell goes on.
      {{"-e", "SELECT * FROM NO_SUCH_TABLE", "-e", "SELECT TAGNAME FROM TAGS"}, "",
       "1 error 0x8004C001: Failed to execute a command (IID_ICommand). Details: Required table doesn't exist.\n",
       "TAGNAME\r\nFlow\r\nNote\r\nOn\r\n"},
      {{"-e", "SELEC 1"}, "",
       "1 error 0x80004005: Failed to prepare a command (IID_ICommandPrepare). Details: Failed to parse the query: "
       "'SELEC 1'. Query is not supported.\n",
       ""},
      // Parameters are typed and counted.
      {{"--param", "DBTYPE_R8:abc", "-e", "SELECT * FROM RAWDATA WHERE TAGNAME = ?"}, "",
       "1 error 0x80070057: parameter 1: 'abc' is not a valid DBTYPE_R8\n", ""},
      {{"-e", "SELECT * FROM RAWDATA WHERE TAGNAME = ?"}, "",
       "1 error 0x80040E10: the statement has 1 parameter(s) but 0 --param value(s) were given\n", ""},
  };
  for (const Case& c : cases) {
    const Result r = RunShell(WithData(c.args), c.input);
    EXPECT_EQ(c.failure, Failure(r)) << c.args.size() << " arguments, input " << c.input.substr(0, 40);
    EXPECT_EQ(c.out, r.out) << c.args.size() << " arguments, input " << c.input.substr(0, 40);
  }
  EXPECT_EQ(0, access("/dev/full", W_OK)) << "a failed chart removes only a plain file it wrote";
}

TEST(ShellOutputFormats, TableStreamsWithWidthsFromTheTypesAndTheFirstBatch) {
  std::string csv = "tag,timestamp,value,quality\n";
  for (int i = 1; i <= 300; ++i)
    csv += "W,2024-01-01 00:" + std::to_string(100 + i / 60).substr(1) + ":" + std::to_string(100 + i % 60).substr(1) +
           "," + (i == 300 ? "123456789" : std::to_string(i)) + ",0\n";
  const Result r = RunShell({"--data", WriteFile("wide.csv", csv), "--format", "table", "-e",
                             std::string("SELECT TAGNAME, TIMESTAMP, VALUE FROM RAWDATA WHERE TAGNAME = 'W' AND ") + kDay});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(0u, r.out.find("TAGNAME | TIMESTAMP               | VALUE\n"
                           "--------+-------------------------+------\n"
                           "W       | 2024-01-01 00:00:01.000 |     1\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("\nW       | 2024-01-01 00:05:00.000 | 123456789\n(300 rows)\n")) << r.out;
  if (!kMemoryMeasurable) return;
  // 250 000 rows: a table holds no more than a CSV does.
  const Result table = RunShell({"--format", "table", "-e", "SELECT * FROM RAWDATA"});
  const Result plain = RunShell({"--format", "csv", "-e", "SELECT * FROM RAWDATA"});
  ASSERT_EQ(0, table.status);
  EXPECT_LT(table.maxRssKb, plain.maxRssKb + 16 * 1024);
}

TEST(ShellFailures, AFailedWriteStopsTheStatementReleasesItAndEndsTheShell) {
  // Over the demo plant, six hours of every tag: 20 000 rows, far more than any buffer.
  for (const char* format : {"csv", "table", "json", "chart"}) {
    for (const std::string& out : {std::string("/dev/full"), std::string(kClosedPipe)}) {
      const Result r = RunShell({"--leak-check", "--format", format, "-e",
                                 "SELECT * FROM RAWDATA WHERE TIMESTAMP > DATEADD('hh', -6, NOWUTC())", "-e",
                                 "SELECT TAGNAME FROM TAGS"}, "", out);
      EXPECT_EQ(3, r.status) << format << " to " << out;
      // One line, and no leak-check line: the rowset and every provider object are gone.
      EXPECT_EQ(std::string("corvane-sql: cannot write the output: ") +
                    (out == kClosedPipe ? "Broken pipe\n" : "No space left on device\n"),
                r.err) << format;
    }
  }
  EXPECT_EQ(3, RunShell({"--help"}, "", "/dev/full").status);
}

TEST(ShellInputs, TheReadmeExamplesRunOnTheDemoPlant) {
  ASSERT_FALSE(g_readme.empty()) << "pass --readme PATH";
  std::istringstream readme(ReadFile(g_readme));
  std::string line, examples;
  bool inBlock = false;
  while (std::getline(readme, line)) {
    if (line.compare(0, 3, "```") == 0) inBlock = !inBlock && line == "```sql";
    else if (inBlock) examples += line + "\n";
  }
  ASSERT_GT(examples.size(), 200u) << "the examples were not found";
  const Result r = RunShell({"--format", "json", WriteFile("readme.sql", examples)});
  EXPECT_EQ("0 ", Failure(r));
  std::istringstream out(r.out);
  long results = 0;
  while (std::getline(out, line)) results += line == "[" || line == "[]";
  long statements = 0;
  for (size_t at = examples.find(";\n"); at != std::string::npos; at = examples.find(";\n", at + 1)) ++statements;
  EXPECT_EQ(statements, results) << "one result per example";
}

// The path data of an SVG chart, one per series in legend order.
std::vector<std::string> PathData(const std::string& svg) {
  std::vector<std::string> paths;
  for (size_t at = svg.find("<path "); at != std::string::npos; at = svg.find("<path ", at + 1)) {
    const size_t d = svg.find(" d=\"", at) + 4;
    paths.push_back(svg.substr(d, svg.find('"', d) - d));
  }
  return paths;
}

TEST(ShellCharts, ADayOfTwoTagsIsOnePathEachWithTheBadStretchAGapAndTheSteppedTagStepped) {
  // When this week's sensor failure of Ambient.Temperature began (0x808C0000).
  Result r = RunShell({"-e", "SELECT TIMESTAMP, QUALITY FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' "
                             "AND TIMESTAMP > DATEADD('dd', -7, NOWUTC())"});
  const size_t bad = r.out.find(",2156658688\r\n");
  ASSERT_NE(std::string::npos, bad) << r.err;
  const std::string failure = r.out.substr(r.out.rfind('\n', bad) + 1, 23), svg = TempDir() + "/day.svg";
  r = RunShell({"--chart", svg, "-e",
                "SELECT * FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' OR TAGNAME = 'Boiler.Stage' AND TIMESTAMP "
                ">= DATEADD('hh', -12, '" + failure + "') AND TIMESTAMP <= DATEADD('hh', 12, '" + failure + "')"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.out + r.err);
  EXPECT_EQ(0, system(("xmllint --noout " + svg).c_str())) << "a well-formed document";
  const std::string text = ReadFile(svg);
  const std::vector<std::string> paths = PathData(text);
  ASSERT_EQ(2u, paths.size());
  EXPECT_EQ(2, std::count(paths[0].begin(), paths[0].end(), 'M')) << "one line before the failure, one after";
  EXPECT_EQ(std::string::npos, text.find("-273")) << "what the failed sensor sent is not drawn";
  EXPECT_NE(std::string::npos, text.find(") stepped<")) << "the TAGS table says Boiler.Stage is stepped";
  std::istringstream points(paths[1]);
  std::string point, previous;
  while (std::getline(points, point, ' ')) {  // "M12.0,34.5L56.7,34.5 56.7,80.0 ..."
    point = point.substr(point.find_last_of("ML") + 1);
    const bool across = !previous.empty() && point.substr(0, point.find(',')) != previous.substr(0, previous.find(','));
    EXPECT_TRUE(!across || point.substr(point.find(',')) == previous.substr(previous.find(','))) << point;
    previous = point;
  }
}

TEST(ShellCharts, TextChartsFitTheTerminal) {
  setenv("COLUMNS", "60", 1);
  setenv("LINES", "20", 1);
  Result r = RunShell({"--format", "chart", "-e", "EXEC HDA_ANALOG DATEADD('dd', -1, NOWUTC()), NOWUTC(), 3600000, "
                                                  "'Tank1.Level'"});
  unsetenv("COLUMNS");
  unsetenv("LINES");
  ASSERT_EQ(0, r.status) << r.err;
  std::istringstream lines(r.out);
  std::string line;
  for (int row = 0; std::getline(lines, line); ++row) {
    EXPECT_LE(std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; }), 60) << line;
    EXPECT_TRUE(row >= 12 || line.find_first_of("\x82\xA4") != std::string::npos) << "12 rows of plot: " << line;
  }
  EXPECT_NE(std::string::npos, r.out.find(" AVG_Value ")) << r.out;
  EXPECT_EQ(std::string::npos, r.out.find('\033')) << "no colours off a terminal";
}

// A shell on a pseudo-terminal, driven by what a user types.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& args) {
    if ((pid_ = forkpty(&fd_, nullptr, nullptr, nullptr)) == 0) Exec(args);
  }
  ~Terminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(fd_);
  }
  void Type(const std::string& text) { (void)!write(fd_, text.data(), text.size()); }
  // Reads until `text` shows up after what was read before; false after 60 s.
  bool WaitFor(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (seen_.find(text, mark_) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 200) <= 0) continue;
      char buffer[65536];
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n <= 0) return false;
      seen_.append(buffer, n);
    }
    mark_ = seen_.find(text, mark_) + text.size();
    return true;
  }
  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  const std::string& Seen() const { return seen_; }
  // Types each step's text, then waits for its answer; stops at the first that does not come.
  void Converse(const std::vector<std::pair<std::string, std::string>>& steps) {
    for (const auto& [text, answer] : steps) {
      Type(text);
      ASSERT_TRUE(WaitFor(answer)) << "after " << text << ": "
                                   << seen_.substr(seen_.size() - std::min<size_t>(seen_.size(), 300));
    }
  }

 private:
  int fd_ = -1;
  pid_t pid_ = -1;
  std::string seen_;
  size_t mark_ = 0;
};

TEST(ShellInteractive, PromptMultiLineHistoryAndCtrlCStoppingALongFetch) {
  const std::string history = TempDir() + "/history";
  unlink(history.c_str());
  setenv("CORVANE_SQL_HISTORY", history.c_str(), 1);
  {
    Terminal t({"--leak-check"});
    // A statement goes on until ';'; the up arrow brings the last one back from the history. Every sample of every demo
    // tag over a week is far more than a second's work, and the table shows its first rows long before the end.
    t.Converse({{"", "corvane> "}, {".tables\n", "RAWDATA_BOOLEAN"}, {"", " rows)"}, {"SELECT TAGNAME\r", "...> "},
                {"FROM TAGS WHERE TAGNAME = 'Pump1.Flow';\r", "Pump1.Flow\r\n(1 row)"},
                {"\x1b[A\r", "Pump1.Flow\r\n(1 row)"},
                {"SELECT * FROM RAWDATA WHERE TIMESTAMP > DATEADD('dd', -7, NOWUTC());\r", "-+-"},
                {"\x03", "cancelled after "},
                {"SELECT TAGNAME FROM TAGS WHERE TAGNAME = 'Tank1.Level';\r", "\nTank1.Level"},
                {".format chart\rEXEC HDA_ANALOG DATEADD('hh', -1, NOWUTC()), NOWUTC(), 60000, 'Tank1.Level';\r",
                 "\033[34m\xE2\x94\x81\xE2\x94\x81"}});  // the legend in colour on a terminal
    if (HasFatalFailure()) return;
    t.Type(".quit\r");
    EXPECT_EQ(1, t.Wait()) << "the cancelled statement counts as failed";
    EXPECT_EQ(std::string::npos, t.Seen().find("leak check")) << "nothing was left outstanding";
  }
  // One entry per statement, the two lines kept together (libedit encodes blanks).
  EXPECT_NE(std::string::npos, ReadFile(history).find("TAGNAME\\012FROM")) << ReadFile(history);
  unsetenv("CORVANE_SQL_HISTORY");
}

TEST(ShellInteractive, CtrlCStopsAScriptAtOnce) {
  // With statements given, the shell is no prompt even on a terminal: Ctrl-C in the first
  // stops the run, and the second never starts.
  Terminal t({"-e", "SELECT * FROM RAWDATA WHERE TIMESTAMP > DATEADD('dd', -7, NOWUTC())", "-e",
              "SELECT COUNT(*) FROM TAGS"});
  t.Converse({{"", "-+-"}, {"\x03", "cancelled after "}});
  if (HasFatalFailure()) return;
  EXPECT_FALSE(t.WaitFor("COUNT")) << "the second statement ran";
  EXPECT_EQ(130, t.Wait());
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  for (int i = 1; i + 1 < argc; ++i)
    if (std::string(argv[i]) == "--shell") g_shell = argv[i + 1];
    else if (std::string(argv[i]) == "--readme") g_readme = argv[i + 1];
  if (g_shell.empty() || access(g_shell.c_str(), X_OK) != 0) {
    fprintf(stderr, "usage: shell_tests --shell PATH-TO-corvane-sql\n");
    return 2;
  }
  return RUN_ALL_TESTS();
}
