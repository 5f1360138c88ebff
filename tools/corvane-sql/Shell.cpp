#include "tools/corvane-sql/Shell.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>

#include <sys/stat.h>


#include "base/Trace.h"
#include "platform/Console.h"

namespace corvane::shell {

std::atomic<bool> g_cancel{false};
std::atomic<bool> g_statementRunning{false};

namespace {

bool g_interactive = false;

extern "C" void OnInterrupt(int) {
  if (g_statementRunning.load() || g_interactive) {
    g_cancel.store(true);
  } else {
    _Exit(130);  // nothing to stop: Ctrl-C ends a script as usual
  }
}

// Shows only some columns of a schema rowset, with type numbers as names.
class CProjectingSink : public IRowSink {
 public:
  CProjectingSink(IRowSink& target, std::vector<std::string> wanted, std::string typeColumn = {})
      : target_(target), wanted_(std::move(wanted)), typeColumn_(std::move(typeColumn)) {}
  void Begin(const std::vector<Column>& columns) override {
    for (const auto& name : wanted_)
      for (size_t i = 0; i < columns.size(); ++i)
        if (columns[i].name == name) picked_.push_back(i);
    std::vector<Column> shown;
    for (size_t i : picked_)
      shown.push_back(columns[i].name == typeColumn_ ? Column{"TYPE", Cell::Text} : columns[i]);
    typeIndex_ = SIZE_MAX;
    for (size_t k = 0; k < picked_.size(); ++k)
      if (columns[picked_[k]].name == typeColumn_) typeIndex_ = k;
    target_.Begin(shown);
  }
  bool Row(const std::vector<Cell>& cells) override {
    std::vector<Cell> out;
    for (size_t i : picked_) out.push_back(i < cells.size() ? cells[i] : Cell{});
    if (typeIndex_ < out.size() && out[typeIndex_].kind == Cell::Number) out[typeIndex_] = Cell{Cell::Text, TypeName(out[typeIndex_].text)};
    return target_.Row(out);
  }
  bool EndBatch() override { return target_.EndBatch(); }
  void End(bool complete) override { target_.End(complete); }

 private:
  static std::string TypeName(const std::string& number) {
    static const std::map<int, const char*> kNames = {
        {2, "DBTYPE_I2"},   {3, "DBTYPE_I4"},    {4, "DBTYPE_R4"},   {5, "DBTYPE_R8"},
        {7, "DBTYPE_DATE"}, {8, "DBTYPE_BSTR"},  {11, "DBTYPE_BOOL"}, {12, "DBTYPE_VARIANT"},
        {16, "DBTYPE_I1"},  {17, "DBTYPE_UI1"},  {18, "DBTYPE_UI2"}, {19, "DBTYPE_UI4"},
        {20, "DBTYPE_I8"},  {21, "DBTYPE_UI8"},  {64, "DBTYPE_FILETIME"}, {129, "DBTYPE_STR"},
        {130, "DBTYPE_WSTR"}, {135, "DBTYPE_DBTIMESTAMP"}};
    const auto found = kNames.find(atoi(number.c_str()));
    return found == kNames.end() ? number : found->second;
  }
  IRowSink& target_;
  std::vector<std::string> wanted_;
  std::string typeColumn_;
  std::vector<size_t> picked_;
  size_t typeIndex_ = SIZE_MAX;
};

// "rows so far, rows per second" on stderr for fetches that take a while.
class CProgress {
 public:
  explicit CProgress(bool enabled) : enabled_(enabled), start_(Clock::now()), last_(start_) {}
  ~CProgress() {
    if (shown_) fputs("\r\033[K", stderr);
  }
  void operator()(size_t rows) {
    if (!enabled_) return;
    const auto now = Clock::now();
    if (now - start_ < std::chrono::seconds(1) || now - last_ < std::chrono::milliseconds(200)) return;
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    fprintf(stderr, "\r%llu rows, %.0f rows/s", static_cast<unsigned long long>(rows), rows / seconds);
    fflush(stderr);
    shown_ = true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  bool enabled_;
  bool shown_ = false;
  Clock::time_point start_, last_;
};

struct TerminalSize {
  int columns = 80, rows = 24;
};

// The size of the terminal that stdout shows on; $COLUMNS and $LINES, or 80 x 24, elsewhere.
TerminalSize OutputSize() {
  TerminalSize size;
  if (const char* columns = getenv("COLUMNS")) size.columns = atoi(columns) > 0 ? atoi(columns) : size.columns;
  if (const char* rows = getenv("LINES")) size.rows = atoi(rows) > 0 ? atoi(rows) : size.rows;
  platform::OutputTerminalSize(&size.columns, &size.rows);
  return size;
}

}  // namespace

void InstallInterruptHandler(bool interactive) {
  g_interactive = interactive;
  platform::InstallInterruptHandler(OnInterrupt);
}

bool ApplyTraceSetting(const std::string& text, std::string* error) {
  if (text == "off") {
    corvane::SetTraceThreshold(corvane::kTraceOff);
    return true;
  }
  static const std::map<std::string, int> kLevels = {
      {"detail", TRACE_DETAIL}, {"info", TRACE_INFO}, {"notice", TRACE_NOTICE},
      {"warning", TRACE_WARNING}, {"error", TRACE_ERROR}};
  std::string setting = text;
  const size_t colon = setting.find(':');
  const auto named = kLevels.find(setting.substr(0, colon));
  if (named != kLevels.end()) setting = std::to_string(named->second) + setting.substr(std::min(colon, setting.size()));
  corvane::TraceSetting parsed;
  if (!corvane::ParseTraceSetting(setting, &parsed)) {
    *error = "bad trace setting '" + text + "' (LEVEL[:FILE], LEVEL a number or detail/info/notice/warning/error)";
    return false;
  }
  std::shared_ptr<ITraceSink> sink = parsed.path.empty() ? corvane::MakeStderrTraceSink()
                                                         : corvane::MakeFileTraceSink(parsed.path);
  if (!sink) {
    *error = "cannot open trace file '" + parsed.path + "'";
    return false;
  }
  corvane::SetTraceSink(sink);
  corvane::SetTraceThreshold(parsed.level);
  return true;
}

const char* CShell::HelpText() {
  return ".help                 this text\n"
         ".tables               the virtual tables\n"
         ".columns TABLE        the columns of a table\n"
         ".procedures           the stored procedures\n"
         ".format [table|csv|json|chart]  show or set the output format (chart: a text\n"
         "                      trend of each result, sized to the terminal)\n"
         ".chart FILE.svg       draw the next statement's result as an SVG trend chart\n"
         ".trace LEVEL[:FILE]|off   trace at or above LEVEL to stderr or FILE\n"
         ".quit                 leave (also .exit or Ctrl-D)\n"
         "SQL statements end with ';' at the end of a line; Ctrl-C stops a running statement.\n";
}

bool CShell::Print(const std::string& text) {
  if (out_.Write(text) && out_.Flush()) return true;
  Stopped(0);
  return false;
}

// A NUL would end the statement early wherever it is read as a C string, and the cut
// statement could do something else entirely (a DELETE losing half its condition).
bool CShell::RefuseNul(const std::string& text) {
  const size_t at = text.find('\0');
  if (at == std::string::npos) return false;
  anyFailed_ = true;
  fprintf(stderr, "error: the statement holds a NUL byte (at byte %llu); nothing was run\n",
          static_cast<unsigned long long>(at + 1));
  fflush(stderr);
  return true;
}

// After a statement stopped before its end: a failed output ends the shell (said once on
// stderr), anything else was Ctrl-C.
bool CShell::Stopped(size_t rows) {
  anyFailed_ = true;
  if (out_.Failed()) {
    if (!outputReported_) fprintf(stderr, "corvane-sql: cannot write the output: %s\n", strerror(out_.Error()));
    outputReported_ = true;
  } else {
    fprintf(stderr, "cancelled after %llu rows\n", static_cast<unsigned long long>(rows));
    g_cancel.store(false);
    // At the prompt Ctrl-C stops one statement; a script stops altogether, as it does
    // when Ctrl-C comes between its statements.
    interrupted_ = true;
    if (!g_interactive) quit_ = true;
  }
  fflush(stderr);
  return false;
}

bool CShell::Run(const std::string& statement) {
  const std::string text = Trim(statement);
  if (text.empty()) return true;
  if (text[0] == '.') return RunDotCommand(text);
  return RunSql(text);
}

void CShell::FeedLine(const std::string& line) {
  if (!splitter_.Pending()) {
    const std::string trimmed = Trim(line);
    if (!trimmed.empty() && trimmed[0] == '.') {
      RunDotCommand(trimmed);
      return;
    }
  }
  if (splitter_.AddLine(line)) RunSql(splitter_.Take());
}

void CShell::FinishInput() {
  const std::string rest = splitter_.Finish();
  if (!rest.empty()) RunSql(rest);
}

void CShell::Report(const Failure& failure) {
  anyFailed_ = true;
  char code[16];
  snprintf(code, sizeof code, "%08X", static_cast<unsigned>(failure.hr));
  std::string text = std::string("error 0x") + code + ":";
  if (failure.descriptions.empty()) text += " (no error record)";
  for (size_t i = 0; i < failure.descriptions.size(); ++i) text += (i ? "\n" : " ") + failure.descriptions[i];
  fprintf(stderr, "%s\n", text.c_str());
  fflush(stderr);
}

bool CShell::RunSql(const std::string& sql) {
  std::string text = Trim(sql);
  while (!text.empty() && text.back() == ';') text = Trim(text.substr(0, text.size() - 1));
  if (text.empty() || RefuseNul(text)) return text.empty();
  if (!chartFile_.empty() || format_ == OutputFormat::Chart) return RunChart(text);
  CResultFormatter out(format_, out_, results_, &g_cancel);
  Failure failure;
  g_cancel.store(false);
  g_statementRunning.store(true);
  HRESULT hr;
  {
    CProgress progress(showProgress_);
    size_t used = 0;
    hr = connection_.Execute(text, parameters_, out, g_cancel, std::ref(progress), &failure, &used);
    parametersUsed_ = std::max(parametersUsed_, std::min(used, parameters_.size()));
  }
  g_statementRunning.store(false);
  results_ = out.Results();
  if (hr == E_ABORT || out_.Failed()) return Stopped(out.RowsWritten());
  if (FAILED(hr)) {
    Report(failure);
    return false;
  }
  return true;
}

bool CShell::RunChart(const std::string& sql) {
  const std::string file = chartFile_;
  chartFile_.clear();
  TerminalSize size = file.empty() ? OutputSize() : TerminalSize{};
  // SVG: a plot 900 pixels wide. Text: two braille dots per character, leaving room
  // for the value labels.
  CResultChart chart(file.empty() ? 2 * (size.columns > 24 ? size.columns - 12 : 12) : 900, &g_cancel);
  Failure failure;
  g_cancel.store(false);
  g_statementRunning.store(true);
  HRESULT hr;
  {
    CProgress progress(showProgress_);
    size_t used = 0;
    hr = connection_.Execute(sql, parameters_, chart, g_cancel, std::ref(progress), &failure, &used);
    parametersUsed_ = std::max(parametersUsed_, std::min(used, parameters_.size()));
  }
  g_statementRunning.store(false);
  if (hr == E_ABORT) return Stopped(chart.Rows());
  if (FAILED(hr)) {
    Report(failure);
    return false;
  }
  if (!chart.Problem().empty()) {
    anyFailed_ = true;
    fprintf(stderr, "error: cannot draw a chart: %s\n", chart.Problem().c_str());
    return false;
  }
  LookUpStepped(chart);
  if (chart.LeftOut())
    fprintf(stderr, "chart: %llu series more than %llu left out\n", static_cast<unsigned long long>(chart.LeftOut()),
            static_cast<unsigned long long>(CResultChart::kMostSeries));
  if (file.empty()) return Print(chart.Chart().Text(size.rows > 16 ? size.rows - 8 : 8, out_.Terminal()));
  const std::string svg = chart.Chart().Svg(sql);
  errno = 0;
  FILE* f = fopen(file.c_str(), "wb");
  int error = f ? 0 : errno;
  if (f) {
    // A half-written chart is removed, but only a plain file: never a device or a pipe.
    struct stat info;
    const bool plain = fstat(fileno(f), &info) == 0 && S_ISREG(info.st_mode);
    if (fwrite(svg.data(), 1, svg.size(), f) != svg.size()) error = errno ? errno : EIO;
    if (fclose(f) != 0 && !error) error = errno ? errno : EIO;  // a full disk shows here
    if (error && plain) remove(file.c_str());
  }
  if (error) {
    anyFailed_ = true;
    fprintf(stderr, "error: cannot write the chart to '%s': %s\n", file.c_str(), strerror(error));
    return false;
  }
  if (showProgress_)
    fprintf(stderr, "chart: %s (%llu series, %llu rows)\n", file.c_str(),
            static_cast<unsigned long long>(chart.Chart().SeriesCount()), static_cast<unsigned long long>(chart.Rows()));
  return true;
}

// Stepped tags hold their value until the next sample; the TAGS table says which.
void CShell::LookUpStepped(CResultChart& chart) {
  class CSteppedSink : public IRowSink {
   public:
    explicit CSteppedSink(CResultChart& chart) : chart_(chart) {}
    void Begin(const std::vector<Column>&) override {}
    bool Row(const std::vector<Cell>& cells) override {
      if (cells.size() == 2) chart_.SetStepped(cells[0].text, cells[1].text == "true");
      return true;
    }
    void End(bool) override {}

   private:
    CResultChart& chart_;
  } sink(chart);
  const std::atomic<bool> never{false};
  for (const std::string& tag : chart.Tags()) {
    std::string quoted;
    for (char c : tag) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    Failure ignored;  // a tag that cannot be looked up is drawn sloped
    connection_.Execute("SELECT TAGNAME, STEPPEDINTERPOLATION FROM TAGS WHERE TAGNAME = '" + quoted + "'", {}, sink,
                        never, nullptr, &ignored);
  }
}

bool CShell::RunDotCommand(const std::string& line) {
  std::string command = line, argument;
  const size_t space = line.find_first_of(" \t");
  if (space != std::string::npos) {
    command = line.substr(0, space);
    argument = Trim(line.substr(space));
  }
  while (!argument.empty() && argument.back() == ';') argument.pop_back();
  if (RefuseNul(line)) return false;
  // Schema lists are no trends: a chart format shows them as a table.
  CResultFormatter out(format_ == OutputFormat::Chart ? OutputFormat::Table : format_, out_, results_);
  Failure failure;
  HRESULT hr = S_OK;
  if (command == ".help") {
    Print(HelpText());
  } else if (command == ".chart") {
    if (argument.empty()) {
      fprintf(stderr, ".chart needs the file to draw the next result into (.chart FILE.svg)\n");
      anyFailed_ = true;
      return false;
    }
    chartFile_ = argument;
  } else if (command == ".quit" || command == ".exit") {
    quit_ = true;
  } else if (command == ".tables") {
    CProjectingSink sink(out, {"TABLE_NAME", "TABLE_TYPE", "DESCRIPTION"});
    hr = connection_.Schema(DBSCHEMA_TABLES, {}, sink, &failure);
  } else if (command == ".columns" && !argument.empty()) {
    CProjectingSink sink(out, {"COLUMN_NAME", "ORDINAL_POSITION", "DATA_TYPE"}, "DATA_TYPE");
    hr = connection_.Schema(DBSCHEMA_COLUMNS, {"", "", argument}, sink, &failure);
  } else if (command == ".procedures") {
    CProjectingSink sink(out, {"PROCEDURE_NAME", "DESCRIPTION"});
    hr = connection_.Schema(DBSCHEMA_PROCEDURES, {}, sink, &failure);
  } else if (command == ".format") {
    if (argument.empty()) {
      Print(std::string(CResultFormatter::FormatName(format_)) + "\n");
    } else if (!CResultFormatter::ParseFormat(argument, &format_)) {
      fprintf(stderr, "unknown format '%s' (table, csv, json or chart)\n", argument.c_str());
      anyFailed_ = true;
      return false;
    }
  } else if (command == ".trace" && !argument.empty()) {
    std::string error;
    if (!ApplyTraceSetting(argument, &error)) {
      fprintf(stderr, "%s\n", error.c_str());
      anyFailed_ = true;
      return false;
    }
  } else {
    fprintf(stderr, "unknown command '%s' (try .help)\n", line.c_str());
    anyFailed_ = true;
    return false;
  }
  results_ = out.Results();
  if (hr == E_ABORT || out_.Failed()) return Stopped(out.RowsWritten());
  if (FAILED(hr)) {
    Report(failure);
    return false;
  }
  return true;
}

}  // namespace corvane::shell
