#include "tools/corvane-sql/Shell.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>

#include "provider/Trace.h"

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
#ifdef _WIN32
  std::signal(SIGINT, OnInterrupt);  // the handler is reset on every delivery there
#endif
}

// Shows only some columns of a schema rowset, with type numbers as names.
class CProjectingSink : public IRowSink {
 public:
  CProjectingSink(IRowSink& target, std::vector<std::string> wanted, std::string typeColumn = {})
      : target_(target), wanted_(std::move(wanted)), typeColumn_(std::move(typeColumn)) {}
  void Begin(const std::vector<std::string>& columns) override {
    for (const auto& name : wanted_)
      for (size_t i = 0; i < columns.size(); ++i)
        if (columns[i] == name) picked_.push_back(i);
    std::vector<std::string> names;
    for (size_t i : picked_) names.push_back(columns[i] == typeColumn_ ? "TYPE" : columns[i]);
    typeIndex_ = SIZE_MAX;
    for (size_t k = 0; k < picked_.size(); ++k)
      if (columns[picked_[k]] == typeColumn_) typeIndex_ = k;
    target_.Begin(names);
  }
  void Row(const std::vector<Cell>& cells) override {
    std::vector<Cell> out;
    for (size_t i : picked_) out.push_back(i < cells.size() ? cells[i] : Cell{});
    if (typeIndex_ < out.size() && out[typeIndex_].kind == Cell::Number) out[typeIndex_] = Cell{Cell::Text, TypeName(out[typeIndex_].text)};
    target_.Row(out);
  }
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

}  // namespace

void InstallInterruptHandler(bool interactive) {
  g_interactive = interactive;
#ifdef _WIN32
  std::signal(SIGINT, OnInterrupt);
#else
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
#endif
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
         ".format [table|csv|json]  show or set the output format\n"
         ".trace LEVEL[:FILE]|off   trace at or above LEVEL to stderr or FILE\n"
         ".quit                 leave (also .exit or Ctrl-D)\n"
         "SQL statements end with ';' at the end of a line; Ctrl-C stops a running statement.\n";
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
  if (text.empty()) return true;
  CResultFormatter out(format_, stdout, results_);
  Failure failure;
  g_cancel.store(false);
  g_statementRunning.store(true);
  HRESULT hr;
  {
    CProgress progress(showProgress_);
    hr = connection_.Execute(text, parameters_, out, g_cancel, std::ref(progress), &failure);
  }
  g_statementRunning.store(false);
  results_ = out.Results();
  if (hr == E_ABORT) {
    anyFailed_ = true;
    fprintf(stderr, "cancelled after %llu rows\n", static_cast<unsigned long long>(out.Rows()));
    g_cancel.store(false);
    return false;
  }
  if (FAILED(hr)) {
    Report(failure);
    return false;
  }
  return true;
}

bool CShell::RunDotCommand(const std::string& line) {
  std::string command = line, argument;
  const size_t space = line.find_first_of(" \t");
  if (space != std::string::npos) {
    command = line.substr(0, space);
    argument = Trim(line.substr(space));
  }
  while (!argument.empty() && argument.back() == ';') argument.pop_back();
  CResultFormatter out(format_, stdout, results_);
  Failure failure;
  HRESULT hr = S_OK;
  if (command == ".help") {
    fputs(HelpText(), stdout);
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
    static const char* const kNames[] = {"table", "csv", "json"};
    if (argument.empty()) {
      printf("%s\n", kNames[static_cast<int>(format_)]);
    } else if (!CResultFormatter::ParseFormat(argument, &format_)) {
      fprintf(stderr, "unknown format '%s' (table, csv or json)\n", argument.c_str());
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
  fflush(stdout);
  results_ = out.Results();
  if (FAILED(hr)) {
    Report(failure);
    return false;
  }
  return true;
}

}  // namespace corvane::shell
