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
  if (text == "table") *format = OutputFormat::Table;
  else if (text == "csv") *format = OutputFormat::Csv;
  else if (text == "json") *format = OutputFormat::Json;
  else return false;
  return true;
}

void CResultFormatter::Begin(const std::vector<std::string>& columns) {
  columns_ = columns;
  pending_.clear();
  rows_ = 0;
  if (format_ == OutputFormat::Csv) {
    if (results_) fputs("\r\n", out_);
    std::vector<Cell> header;
    for (const auto& name : columns_) header.push_back(Cell{Cell::Text, name});
    WriteCsvLine(header);
  } else if (format_ == OutputFormat::Json) {
    fputs("[", out_);
  }
  ++results_;
}

void CResultFormatter::Row(const std::vector<Cell>& cells) {
  switch (format_) {
    case OutputFormat::Table: pending_.push_back(cells); break;
    case OutputFormat::Csv: WriteCsvLine(cells); break;
    case OutputFormat::Json: {
      std::string line = rows_ ? ",\n{" : "\n{";
      for (size_t i = 0; i < cells.size() && i < columns_.size(); ++i) {
        if (i) line += ",";
        line += JsonString(columns_[i]) + ":" + JsonValue(cells[i]);
      }
      line += "}";
      fputs(line.c_str(), out_);
      break;
    }
  }
  ++rows_;
}

void CResultFormatter::End(bool complete) {
  if (format_ == OutputFormat::Table) WriteTable();
  else if (format_ == OutputFormat::Json) fputs(rows_ ? "\n]\n" : "]\n", out_);
  fflush(out_);
}

void CResultFormatter::WriteCsvLine(const std::vector<Cell>& cells) {
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (i) line += ',';
    // NULL is an empty field; an empty text is written quoted so the two stay apart.
    if (cells[i].kind != Cell::Null) line += CsvField(cells[i].text, cells[i].kind == Cell::Text);
  }
  line += "\r\n";
  fputs(line.c_str(), out_);
}

void CResultFormatter::WriteTable() {
  std::vector<size_t> widths;
  for (const auto& name : columns_) widths.push_back(DisplayWidth(name));
  std::vector<std::vector<std::string>> texts;
  texts.reserve(pending_.size());
  for (const auto& row : pending_) {
    std::vector<std::string> line;
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      line.push_back(TableText(row[i]));
      widths[i] = std::max(widths[i], DisplayWidth(line.back()));
    }
    texts.push_back(std::move(line));
  }
  auto pad = [](const std::string& text, size_t width, bool right) {
    const std::string fill(width - std::min(width, DisplayWidth(text)), ' ');
    return right ? fill + text : text + fill;
  };
  std::string out;
  for (size_t i = 0; i < columns_.size(); ++i) out += (i ? " | " : "") + pad(columns_[i], widths[i], false);
  out.erase(out.find_last_not_of(' ') + 1);
  out += "\n";
  for (size_t i = 0; i < columns_.size(); ++i) out += (i ? "-+-" : "") + std::string(widths[i], '-');
  out += "\n";
  for (size_t r = 0; r < texts.size(); ++r) {
    std::string line;
    for (size_t i = 0; i < texts[r].size(); ++i)
      line += (i ? " | " : "") + pad(texts[r][i], widths[i], pending_[r][i].kind == Cell::Number);
    // No trailing blanks after the last column.
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + "\n";
  }
  fputs(out.c_str(), out_);
  fputs(("(" + std::to_string(rows_) + (rows_ == 1 ? " row)\n" : " rows)\n")).c_str(), out_);
  pending_.clear();
}

}  // namespace corvane::shell
