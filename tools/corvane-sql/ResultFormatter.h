// Writes the rows of one statement's result in the shell's output formats: an aligned
// table with a row count, RFC 4180 CSV, or one JSON array of objects. Cells arrive
// already rendered as text together with their kind, so every format agrees on what a
// value looks like and only quotes and punctuation differ.
#pragma once
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace corvane::shell {

enum class OutputFormat { Table, Csv, Json };

struct Cell {
  enum Kind : uint8_t { Null, Text, Number, Bool, Time };
  Kind kind = Null;
  std::string text;  // Time: "YYYY-MM-DD HH:MM:SS.fff" (UTC); Number: shortest round-trip form
};

// Receives one result: its column names, then its rows, then the end.
class IRowSink {
 public:
  virtual ~IRowSink() = default;
  virtual void Begin(const std::vector<std::string>& columns) = 0;
  virtual void Row(const std::vector<Cell>& cells) = 0;
  virtual void End(bool complete) = 0;  // false when the fetch stopped early
};

class CResultFormatter : public IRowSink {
 public:
  // `resultsBefore` counts the results already written to `out`, which CSV separates
  // by an empty line.
  CResultFormatter(OutputFormat format, FILE* out, size_t resultsBefore = 0)
      : format_(format), out_(out), results_(resultsBefore) {}
  void Begin(const std::vector<std::string>& columns) override;
  void Row(const std::vector<Cell>& cells) override;
  void End(bool complete) override;
  size_t Rows() const { return rows_; }
  size_t Results() const { return results_; }

  // Parses "table", "csv" or "json"; false for anything else.
  static bool ParseFormat(const std::string& text, OutputFormat* format);

 private:
  void WriteCsvLine(const std::vector<Cell>& cells);
  void WriteTable();

  OutputFormat format_;
  FILE* out_;
  std::vector<std::string> columns_;
  std::vector<std::vector<Cell>> pending_;  // table only: widths need every row
  size_t rows_ = 0;
  size_t results_ = 0;  // results written so far, to separate CSV blocks
};

// The shortest text that reads back as the same number.
std::string ShortestDouble(double value);
std::string ShortestFloat(float value);

}  // namespace corvane::shell
