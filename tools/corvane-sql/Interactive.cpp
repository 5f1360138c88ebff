#include "tools/corvane-sql/Interactive.h"

#include <cstdlib>
#include <iostream>
#include <string>

#ifdef CORVANE_HAVE_LIBEDIT
#include <editline/readline.h>
#endif

namespace corvane::shell {

namespace {

constexpr const char* kPrompt = "corvane> ";
constexpr const char* kContinuation = "    ...> ";

#ifdef CORVANE_HAVE_LIBEDIT
std::string HistoryFile() {
  if (const char* explicitPath = getenv("CORVANE_SQL_HISTORY")) return explicitPath;
  const char* home = getenv("HOME");
  return home ? std::string(home) + "/.corvane_sql_history" : std::string();
}

// False at the end of input.
bool ReadLine(CShell&, const char* prompt, std::string* line) {
  char* text = readline(prompt);
  if (!text) return false;
  *line = text;
  free(text);
  return true;
}
#else
bool ReadLine(CShell& shell, const char* prompt, std::string* line) {
  return shell.Print(prompt) && std::getline(std::cin, *line);
}
#endif

}  // namespace

void RunInteractive(CShell& shell) {
  shell.Print("corvane-sql: type .help for help, end statements with ';'\n");
#ifdef CORVANE_HAVE_LIBEDIT
  const std::string history = HistoryFile();
  if (!history.empty()) read_history(history.c_str());
#endif
  std::string statement;  // the lines of the statement being typed, for the history
  std::string line;
  while (!shell.QuitRequested()) {
    g_cancel.store(false);
    if (!ReadLine(shell, shell.Pending() ? kContinuation : kPrompt, &line)) break;
    if (g_cancel.exchange(false)) {  // Ctrl-C while typing drops the statement
      shell.DiscardPending();
      statement.clear();
      continue;
    }
    if (!statement.empty()) statement += "\n";
    statement += line;
    shell.FeedLine(line);
    if (!shell.Pending()) {
#ifdef CORVANE_HAVE_LIBEDIT
      if (!Trim(statement).empty()) add_history(statement.c_str());
#endif
      statement.clear();
    }
  }
  if (!shell.QuitRequested()) shell.Print("\n");
#ifdef CORVANE_HAVE_LIBEDIT
  if (!history.empty()) write_history(history.c_str());
#endif
}

}  // namespace corvane::shell
