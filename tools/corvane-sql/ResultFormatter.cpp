#include "tools/corvane-sql/ResultFormatter.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace corvane::shell {

namespace {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buffer[8];
          snprintf(buffer, sizeof buffer, "\\u%04x", c);
          out += buffer;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string JsonValue(const Cell& cell) {
  switch (cell.kind) {
    case Cell::Null: return "null";
    case Cell::Bool: return cell.text;
    case Cell::Number:
      // JSON has no NaN or infinities.
      return (cell.text.find_first_of("ni") != std::string::npos) ? "null" : cell.text;
    case Cell::Time: {
      std::string iso = cell.text;
      if (iso.size() > 10) iso[10] = 'T';
      return JsonString(iso + "Z");
    }
    case Cell::Text: break;
  }
  return JsonString(cell.text);
}

std::string CsvField(const std::string& text, bool quoteEmpty) {
  if (text.empty()) return quoteEmpty ? "\"\"" : "";
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

// Terminal columns of a UTF-8 text: one per code point, which is right for the
// tag names, quality texts and numbers this shell shows.
size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++width;
  return width;
}

// Tables show control characters as spaces, so that one row stays one line.
std::string TableText(const Cell& cell) {
  if (cell.kind == Cell::Null) return "NULL";
  std::string text = cell.text;
  for (char& c : text)
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  return text;
}

}  // namespace

std::string ShortestDouble(double value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string ShortestFloat(float value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

bool CResultFormatter::ParseFormat(const std::string& text, OutputFormat* format) {
  for (OutputFormat f : {OutputFormat::Table, OutputFormat::Csv, OutputFormat::Json, OutputFormat::Chart}) {
    if (text == FormatName(f)) {
      *format = f;
      return true;
    }
  }
  return false;
}

const char* CResultFormatter::FormatName(OutputFormat format) {
  switch (format) {
    case OutputFormat::Table: return "table";
    case OutputFormat::Csv: return "csv";
    case OutputFormat::Json: return "json";
    case OutputFormat::Chart: return "chart";
  }
  return "?";
}

void CResultFormatter::Begin(const std::vector<Column>& columns) {
  columns_ = columns;
  widths_.clear();
  for (const Column& c : columns_) {
    // Kinds of one width give it before any row is seen; others wait for the first batch.
    const size_t typed = c.kind == Cell::Time ? 23 : c.kind == Cell::Bool ? 5 : 0;
    widths_.push_back(std::max(typed, DisplayWidth(c.name)));
  }
  firstBatch_.clear();
  tableStarted_ = stopped_ = false;
  rows_ = 0;
  rowsOut_ = 0;
  pendingEnds_.clear();
  if (format_ == OutputFormat::Csv) {
    if (results_) out_.Write("\r\n");
    std::vector<Cell> header;
    for (const auto& c : columns_) header.push_back(Cell{Cell::Text, c.name});
    WriteCsvLine(header);
  } else if (format_ == OutputFormat::Json) {
    out_.Write("[");
  }
  ++results_;
}

bool CResultFormatter::Row(const std::vector<Cell>& cells) {
  if (cancel_ && cancel_->load()) {
    // Only the rows whose text went out count as written.
    const size_t kept = out_.DropPending();
    for (size_t end : pendingEnds_)
      if (end <= kept) ++rowsOut_;
    pendingEnds_.clear();
    stopped_ = true;
    return false;
  }
  switch (format_) {
    case OutputFormat::Table:
      if (tableStarted_) {
        WriteTableRow(cells);
        RowBuffered();
      } else {
        firstBatch_.push_back(cells);
      }
      break;
    case OutputFormat::Csv:
      WriteCsvLine(cells);
      RowBuffered();
      break;
    case OutputFormat::Chart: break;  // the shell draws charts itself
    case OutputFormat::Json: {
      std::string line = rows_ ? ",\n{" : "\n{";
      for (size_t i = 0; i < cells.size() && i < columns_.size(); ++i) {
        if (i) line += ",";
        line += JsonString(columns_[i].name) + ":" + JsonValue(cells[i]);
      }
      line += "}";
      out_.Write(line);
      RowBuffered();
      break;
    }
  }
  ++rows_;
  stopped_ = out_.Failed();
  return !stopped_;
}

bool CResultFormatter::EndBatch() {
  if (stopped_) return false;
  if (format_ == OutputFormat::Table && !tableStarted_) StartTable();
  stopped_ = !out_.Flush();
  Flushed();
  return !stopped_;
}

void CResultFormatter::End(bool) {
  if (stopped_) return;
  if (format_ == OutputFormat::Table) {
    if (!tableStarted_) StartTable();
    out_.Write("(" + std::to_string(rows_) + (rows_ == 1 ? " row)\n" : " rows)\n"));
  } else if (format_ == OutputFormat::Json) {
    out_.Write(rows_ ? "\n]\n" : "]\n");
  }
  out_.Flush();
  Flushed();
}

void CResultFormatter::RowBuffered() {
  if (out_.Buffered() == 0) {
    // The write went out with everything buffered before it.
    Flushed();
    if (!out_.Failed()) ++rowsOut_;
  } else {
    pendingEnds_.push_back(out_.Buffered());
  }
}

void CResultFormatter::Flushed() {
  if (out_.Buffered() != 0 || out_.Failed()) return;
  rowsOut_ += pendingEnds_.size();
  pendingEnds_.clear();
}

void CResultFormatter::WriteCsvLine(const std::vector<Cell>& cells) {
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (i) line += ',';
    // NULL is an empty field; an empty text is written quoted so the two stay apart.
    if (cells[i].kind != Cell::Null) line += CsvField(cells[i].text, cells[i].kind == Cell::Text);
  }
  line += "\r\n";
  out_.Write(line);
}

void CResultFormatter::StartTable() {
  for (const auto& row : firstBatch_)
    for (size_t i = 0; i < row.size() && i < widths_.size(); ++i)
      widths_[i] = std::max(widths_[i], DisplayWidth(TableText(row[i])));
  std::string head, rule;
  for (size_t i = 0; i < columns_.size(); ++i) {
    head += (i ? " | " : "") + columns_[i].name + std::string(widths_[i] - DisplayWidth(columns_[i].name), ' ');
    rule += (i ? "-+-" : "") + std::string(widths_[i], '-');
  }
  head.erase(head.find_last_not_of(' ') + 1);
  out_.Write(head + "\n" + rule + "\n");
  tableStarted_ = true;
  for (const auto& row : firstBatch_) {
    WriteTableRow(row);
    RowBuffered();
  }
  firstBatch_.clear();
  firstBatch_.shrink_to_fit();
}

void CResultFormatter::WriteTableRow(const std::vector<Cell>& cells) {
  std::string line;
  for (size_t i = 0; i < cells.size() && i < widths_.size(); ++i) {
    const std::string text = TableText(cells[i]);
    const size_t width = DisplayWidth(text);
    widths_[i] = std::max(widths_[i], width);
    const std::string fill(widths_[i] - width, ' ');
    if (i) line += " | ";
    line += cells[i].kind == Cell::Number ? fill + text : text + fill;
  }
  // No trailing blanks after the last column.
  line.erase(line.find_last_not_of(' ') + 1);
  out_.Write(line + "\n");
}

}  // namespace corvane::shell
