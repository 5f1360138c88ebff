// Draws one statement's result as a trend: time from its TIMESTAMP column, and one
// series per tag for raw data (TAGNAME and VALUE columns), per `..._Value` column for the
// HDA procedures (their `..._Status` saying the quality), or per numeric column
// otherwise. Samples of bad quality and empty values break the line.
#pragma once
#include <atomic>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tools/corvane-sql/ResultFormatter.h"
#include "tools/corvane-sql/TrendChart.h"

namespace corvane::shell {

class CResultChart : public IRowSink {
 public:
  // More lines than this make no readable chart; the rest are left out and counted.
  static constexpr size_t kMostSeries = 100;

  // `columns`: the width of the plot (see CTrendChart). When `cancel` turns true the
  // next row stops the fetch.
  CResultChart(size_t columns, const std::atomic<bool>* cancel) : chart_(columns), cancel_(cancel) {}

  void Begin(const std::vector<Column>& columns) override;
  bool Row(const std::vector<Cell>& cells) override;
  void End(bool) override {}

  // Why the result cannot be drawn, or empty.
  const std::string& Problem() const { return problem_; }
  size_t Rows() const { return rows_; }
  size_t LeftOut() const { return leftOut_.size(); }
  // The tags drawn, when the series are tags: the TAGS table says which are stepped.
  std::vector<std::string> Tags() const;
  void SetStepped(const std::string& tag, bool stepped);
  const CTrendChart& Chart() const { return chart_; }

 private:
  enum class Mode { Tags, Columns };
  struct Source {
    size_t value;               // the column drawn
    size_t quality = SIZE_MAX;  // the column saying its quality, if any
    size_t series = 0;
  };
  void Draw(size_t series, int64_t time, const Cell& value, const Cell* quality);

  CTrendChart chart_;
  const std::atomic<bool>* cancel_;
  Mode mode_ = Mode::Columns;
  size_t time_ = SIZE_MAX, tag_ = SIZE_MAX, value_ = SIZE_MAX, quality_ = SIZE_MAX;
  std::vector<Source> sources_;                       // Columns mode
  std::unordered_map<std::string, size_t> tagSeries_;  // Tags mode
  std::unordered_set<std::string> leftOut_;
  std::string problem_ = "the statement gave no rows to draw";  // until Begin
  size_t rows_ = 0;
};

}  // namespace corvane::shell
