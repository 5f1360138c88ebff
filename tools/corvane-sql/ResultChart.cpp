#include "tools/corvane-sql/ResultChart.h"

#include <cstdlib>

#include "historian/CsvLoader.h"

namespace corvane::shell {

namespace {

std::string Upper(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  return text;
}

// "MIN_Value" or, in the five-tag forms, "MIN_Value_3": the position of "_VALUE", else npos.
size_t ValueSuffix(const std::string& upper) {
  const size_t at = upper.rfind("_VALUE");
  if (at == std::string::npos || at == 0) return std::string::npos;
  size_t end = at + 6;
  if (end == upper.size()) return at;
  if (upper[end] != '_' || end + 1 == upper.size()) return std::string::npos;
  for (++end; end < upper.size(); ++end)
    if (upper[end] < '0' || upper[end] > '9') return std::string::npos;
  return at;
}

// The quality words of the historian and of the HDA statuses share their top two
// bits: 10 is bad.
bool Bad(const Cell* quality) {
  if (!quality || quality->kind != Cell::Number) return false;
  const unsigned long long code = strtoull(quality->text.c_str(), nullptr, 10);
  return (code & 0xC0000000ull) == 0x80000000ull;
}

}  // namespace

void CResultChart::Begin(const std::vector<Column>& columns) {
  problem_.clear();
  for (size_t i = 0; i < columns.size(); ++i) {
    const std::string name = Upper(columns[i].name);
    if (name == "TIMESTAMP" && time_ == SIZE_MAX) time_ = i;
    if (name == "TAGNAME") tag_ = i;
    if (name == "VALUE") value_ = i;
    if (name == "QUALITY") quality_ = i;
  }
  for (size_t i = 0; i < columns.size() && time_ == SIZE_MAX; ++i)
    if (columns[i].kind == Cell::Time) time_ = i;
  if (time_ == SIZE_MAX) {
    problem_ = "the result has no TIMESTAMP column to draw against";
    return;
  }
  if (tag_ != SIZE_MAX && value_ != SIZE_MAX) {
    mode_ = Mode::Tags;
    return;
  }
  // The HDA procedures: every aggregate's value, with its status beside it.
  for (size_t i = 0; i < columns.size(); ++i) {
    std::string name = Upper(columns[i].name);
    const size_t at = ValueSuffix(name);
    if (at == std::string::npos) continue;
    Source source{i, SIZE_MAX, 0};
    name.replace(at, 6, "_STATUS");
    for (size_t k = 0; k < columns.size(); ++k)
      if (Upper(columns[k].name) == name) source.quality = k;
    sources_.push_back(source);
  }
  if (sources_.empty()) {
    for (size_t i = 0; i < columns.size(); ++i) {
      const Cell::Kind kind = columns[i].kind;
      if (i != time_ && i != tag_ && i != quality_ && (kind == Cell::Number || kind == Cell::Bool || kind == Cell::Null))
        sources_.push_back(Source{i, quality_, 0});
    }
  }
  if (sources_.empty()) problem_ = "the result has no numeric column to draw";
  for (Source& source : sources_) {
    if (chart_.SeriesCount() == kMostSeries) {
      leftOut_.insert(columns[source.value].name);
      continue;
    }
    source.series = chart_.AddSeries(columns[source.value].name, columns[source.value].kind == Cell::Bool);
  }
  if (sources_.size() > kMostSeries) sources_.resize(kMostSeries);
}

bool CResultChart::Row(const std::vector<Cell>& cells) {
  if (cancel_ && cancel_->load()) return false;
  ++rows_;
  if (!problem_.empty() || time_ >= cells.size() || cells[time_].kind != Cell::Time) return true;
  ULONGLONG time = 0;
  if (!historian::CCsvLoader::ParseTimestamp(cells[time_].text, &time)) return true;
  const Cell* quality = quality_ < cells.size() ? &cells[quality_] : nullptr;
  if (mode_ == Mode::Columns) {
    for (const Source& source : sources_)
      Draw(source.series, static_cast<int64_t>(time), cells[source.value],
           source.quality < cells.size() ? &cells[source.quality] : nullptr);
    return true;
  }
  const Cell& value = cells[value_];
  if (value.kind == Cell::Text) return true;  // a text tag has nothing to draw
  const std::string& tag = cells[tag_].text;
  auto found = tagSeries_.find(tag);
  if (found == tagSeries_.end()) {
    if (chart_.SeriesCount() == kMostSeries) {
      leftOut_.insert(tag);
      return true;
    }
    found = tagSeries_.emplace(tag, chart_.AddSeries(tag, value.kind == Cell::Bool)).first;
  }
  Draw(found->second, static_cast<int64_t>(time), value, quality);
  return true;
}

void CResultChart::Draw(size_t series, int64_t time, const Cell& value, const Cell* quality) {
  if (value.kind == Cell::Null || Bad(quality)) {
    chart_.AddGap(series, time);
  } else if (value.kind == Cell::Bool) {
    chart_.Add(series, time, value.text == "true" ? 1.0 : 0.0);
  } else if (value.kind == Cell::Number) {
    chart_.Add(series, time, strtod(value.text.c_str(), nullptr));
  }
}

std::vector<std::string> CResultChart::Tags() const {
  std::vector<std::string> tags;
  if (mode_ == Mode::Tags)
    for (size_t i = 0; i < chart_.SeriesCount(); ++i) tags.push_back(chart_.Name(i));
  return tags;
}

void CResultChart::SetStepped(const std::string& tag, bool stepped) {
  const auto found = tagSeries_.find(tag);
  if (found != tagSeries_.end()) chart_.SetStepped(found->second, stepped);
}

}  // namespace corvane::shell
