// The shell itself: runs statements and dot commands against one connection, writes
// results in the chosen format (or draws them as a chart) and failures to stderr, shows
// fetch progress on a terminal, and remembers whether anything failed (the exit status).
// When the output cannot be written, it stops the statement and asks to quit.
#pragma once
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/corvane-sql/ResultChart.h"
#include "tools/corvane-sql/ResultFormatter.h"
#include "tools/corvane-sql/ShellConnection.h"
#include "tools/corvane-sql/StatementSplitter.h"

namespace corvane::shell {

// Set by Ctrl-C: the statement being fetched stops at its next batch.
extern std::atomic<bool> g_cancel;
// True while a statement runs (Ctrl-C outside one ends a non-interactive shell).
extern std::atomic<bool> g_statementRunning;
void InstallInterruptHandler(bool interactive);

// "400", "detail", "info:/tmp/trace.log", "off"...: sets the trace threshold and
// destination; false (with a reason) for anything else.
bool ApplyTraceSetting(const std::string& text, std::string* error);

class CShell {
 public:
  CShell(CShellConnection& connection, COutput& out, OutputFormat format, std::vector<Parameter> parameters)
      : connection_(connection), out_(out), format_(format), parameters_(std::move(parameters)) {}

  // Runs one statement (or a dot command); false when it failed.
  bool Run(const std::string& statement);
  // Feeds one line of a script or of the prompt: dot commands at the start of a
  // statement run at once, SQL runs when its line ends with `;`.
  void FeedLine(const std::string& line);
  // Runs what is left when the input ends.
  void FinishInput();
  bool Pending() const { return splitter_.Pending(); }
  void DiscardPending() { splitter_.Reset(); }

  bool AnyFailed() const { return anyFailed_; }
  // How many of the --param values the statements run so far took (the most any took).
  size_t ParametersUsed() const { return parametersUsed_; }
  // True once a write to the output failed (after saying so on stderr).
  bool OutputFailed() const { return out_.Failed(); }
  bool QuitRequested() const { return quit_ || out_.Failed(); }
  // True once Ctrl-C stopped a statement.
  bool Interrupted() const { return interrupted_; }
  void SetShowProgress(bool show) { showProgress_ = show; }
  // The next statement's result is drawn as an SVG chart into `path`.
  void SetChartFile(const std::string& path) { chartFile_ = path; }
  // Writes `text` to the output; false (and the failure reported) when it cannot.
  bool Print(const std::string& text);

  static const char* HelpText();

 private:
  bool RunDotCommand(const std::string& line);
  bool RunSql(const std::string& sql);
  bool RunChart(const std::string& sql);
  void LookUpStepped(CResultChart& chart);
  bool RefuseNul(const std::string& text);
  bool Stopped(size_t rows);
  void Report(const Failure& failure);

  CShellConnection& connection_;
  COutput& out_;
  OutputFormat format_;
  std::vector<Parameter> parameters_;
  CStatementSplitter splitter_;
  bool anyFailed_ = false;
  bool quit_ = false;
  bool interrupted_ = false;
  bool showProgress_ = false;
  bool outputReported_ = false;
  std::string chartFile_;
  size_t results_ = 0;  // results written to stdout so far
  size_t parametersUsed_ = 0;
};

}  // namespace corvane::shell
