// The shell itself: runs statements and dot commands against one connection, writes
// results in the chosen format and failures to stderr, shows fetch progress on a
// terminal, and remembers whether anything failed (the exit status).
#pragma once
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

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
  CShell(CShellConnection& connection, OutputFormat format, std::vector<Parameter> parameters)
      : connection_(connection), format_(format), parameters_(std::move(parameters)) {}

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
  bool QuitRequested() const { return quit_; }
  void SetShowProgress(bool show) { showProgress_ = show; }

  static const char* HelpText();

 private:
  bool RunDotCommand(const std::string& line);
  bool RunSql(const std::string& sql);
  void Report(const Failure& failure);

  CShellConnection& connection_;
  OutputFormat format_;
  std::vector<Parameter> parameters_;
  CStatementSplitter splitter_;
  bool anyFailed_ = false;
  bool quit_ = false;
  bool showProgress_ = false;
  size_t results_ = 0;  // results written to stdout so far
};

}  // namespace corvane::shell
