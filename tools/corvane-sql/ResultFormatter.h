// Writes the rows of one statement's result in the shell's output formats: a table
// with a row count, RFC 4180 CSV, or one JSON array of objects. Cells arrive already
// rendered as text together with their kind, so every format agrees on what a value
// looks like and only quotes and punctuation differ. Every format streams: a table takes
// its column widths from the column types and the first batch of rows, and a later,
// wider value widens its column from that row on.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/corvane-sql/Output.h"

namespace corvane::shell {

// Chart is drawn by the shell from CResultChart, never by CResultFormatter.
enum class OutputFormat { Table, Csv, Json, Chart };

struct Cell {
  enum Kind : uint8_t { Null, Text, Number, Bool, Time };
  Kind kind = Null;
  std::string text;  // Time: "YYYY-MM-DD HH:MM:SS.fff" (UTC); Number: shortest round-trip form
};

struct Column {
  std::string name;
  Cell::Kind kind = Cell::Null;  // the kind of every cell, or Null when it varies (a VARIANT)
};

// Receives one result: its columns, then its rows batch by batch, then the end.
class IRowSink {
 public:
  virtual ~IRowSink() = default;
  virtual void Begin(const std::vector<Column>& columns) = 0;
  // False stops the fetch; the statement then ends as stopped (E_ABORT).
  virtual bool Row(const std::vector<Cell>& cells) = 0;
  // After each batch of rows fetched; false stops the fetch.
  virtual bool EndBatch() { return true; }
  virtual void End(bool complete) = 0;  // false when the fetch stopped early
};

class CResultFormatter : public IRowSink {
 public:
  // `resultsBefore` counts the results already written to `out`, which CSV separates
  // by an empty line. When `cancel` turns true, the next row stops the fetch and what
  // is buffered beyond the current line is dropped.
  CResultFormatter(OutputFormat format, COutput& out, size_t resultsBefore = 0,
                   const std::atomic<bool>* cancel = nullptr)
      : format_(format), out_(out), cancel_(cancel), results_(resultsBefore) {}
  void Begin(const std::vector<Column>& columns) override;
  bool Row(const std::vector<Cell>& cells) override;
  bool EndBatch() override;
  void End(bool complete) override;
  size_t Rows() const { return rows_; }
  // Rows whose text went out whole: Ctrl-C drops the buffered rest.
  size_t RowsWritten() const { return rowsOut_; }
  size_t Results() const { return results_; }

  // Parses "table", "csv", "json" or "chart"; false for anything else.
  static bool ParseFormat(const std::string& text, OutputFormat* format);
  static const char* FormatName(OutputFormat format);

 private:
  void WriteCsvLine(const std::vector<Cell>& cells);
  void WriteTableRow(const std::vector<Cell>& cells);
  void StartTable();
  // After a row's text was handed to the output: which rows are out, which buffered.
  void RowBuffered();
  void Flushed();

  OutputFormat format_;
  COutput& out_;
  const std::atomic<bool>* cancel_;
  std::vector<Column> columns_;
  std::vector<size_t> widths_;              // table: display columns of each column
  std::vector<std::vector<Cell>> firstBatch_;  // table: held until the widths are known
  bool tableStarted_ = false;
  bool stopped_ = false;
  size_t rows_ = 0;
  size_t rowsOut_ = 0;
  std::vector<size_t> pendingEnds_;  // where each buffered row ends in the output's buffer
  size_t results_ = 0;  // results written so far, to separate CSV blocks
};

// The shortest text that reads back as the same number.
std::string ShortestDouble(double value);
std::string ShortestFloat(float value);

}  // namespace corvane::shell
