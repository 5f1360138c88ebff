#include "tools/corvane-sql/StatementSplitter.h"

namespace corvane::shell {

std::string Trim(const std::string& text) {
  const char* blanks = " \t\r\n\f\v";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool CStatementSplitter::AddLine(const std::string& raw) {
  std::string line = raw;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const std::string trimmed = Trim(line);
  if (!quote_ && (trimmed.compare(0, 2, "--") == 0 || (!Pending() && trimmed.empty()))) return false;
  // Track quotes so that a `;` at the end of a line inside a text does not end it.
  size_t lastSemicolon = std::string::npos;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quote_) {
      if (c == quote_) quote_ = 0;  // a doubled quote closes and reopens: same result
    } else if (c == '\'' || c == '"' || c == '[') {
      quote_ = c == '[' ? ']' : c;
    } else if (c == ';') {
      lastSemicolon = i;
    } else if (c != ' ' && c != '\t') {
      lastSemicolon = std::string::npos;
    }
  }
  if (!text_.empty()) text_ += '\n';
  if (!quote_ && lastSemicolon != std::string::npos) {
    text_ += line.substr(0, lastSemicolon);
    done_ = Trim(text_);
    text_.clear();
    return !done_.empty();
  }
  text_ += line;
  return false;
}

std::string CStatementSplitter::Take() {
  std::string out;
  out.swap(done_);
  return out;
}

bool CStatementSplitter::Pending() const { return !Trim(text_).empty() || quote_; }

std::string CStatementSplitter::Finish() {
  std::string rest = Trim(text_);
  Reset();
  return rest;
}

std::vector<std::string> CStatementSplitter::Split(const std::string& text) {
  CStatementSplitter splitter;
  std::vector<std::string> statements;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (splitter.AddLine(text.substr(start, end - start))) statements.push_back(splitter.Take());
    start = end + 1;
  }
  std::string rest = splitter.Finish();
  if (!rest.empty()) statements.push_back(rest);
  return statements;
}

}  // namespace corvane::shell
