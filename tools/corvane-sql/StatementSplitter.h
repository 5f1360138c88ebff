// Cuts SQL text into statements the way the shell reads files, stdin and the prompt:
// a statement ends with a line whose last non-blank character is `;` (outside quotes),
// so a `;` inside a line or a quoted text never splits anything. Lines starting with
// `--` (outside quotes) are comments.
#pragma once
#include <string>
#include <vector>

namespace corvane::shell {

class CStatementSplitter {
 public:
  // Adds one line (without its line break); returns true when it completed a
  // statement, which Take then hands over without the closing `;`.
  bool AddLine(const std::string& line);
  std::string Take();
  // True while a statement has begun but not ended.
  bool Pending() const;
  // What is left when the input ends (a last statement without `;`), or empty.
  std::string Finish();
  void Reset() { text_.clear(); quote_ = 0; }

  // Every statement of a whole text.
  static std::vector<std::string> Split(const std::string& text);

 private:
  std::string text_;
  char quote_ = 0;  // the open quote character carried over from earlier lines
  std::string done_;
};

// Trims blanks at both ends.
std::string Trim(const std::string& text);

}  // namespace corvane::shell
