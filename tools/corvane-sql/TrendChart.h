// A trend chart of time series, drawn as a self-contained SVG document or as terminal
// text in braille characters. It keeps a bounded summary of each series instead of its
// samples: for every slice of time no wider than a pixel column, the first, last,
// lowest and highest sample. So ten million samples draw in the memory, the time per
// sample and the file size of ten thousand, and the drawing still shows every spike.
#pragma once
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace corvane::shell {

class CTrendChart {
 public:
  // Times are FILETIME ticks (100 ns since 1601-01-01 UTC).
  struct Point {
    int64_t time;
    double value;
  };

  // `columns` is the plot's width: pixels in SVG, braille dots (two per character) in text.
  explicit CTrendChart(size_t columns);

  size_t AddSeries(const std::string& name, bool stepped = false);
  // A stepped series holds each value until the next sample instead of sloping to it.
  void SetStepped(size_t series, bool stepped);
  // Samples may come in any order, series by series or interleaved.
  void Add(size_t series, int64_t time, double value);
  // A sample that cannot be drawn (bad quality, no value): the line breaks around it.
  void AddGap(size_t series, int64_t time);

  size_t SeriesCount() const { return series_.size(); }
  const std::string& Name(size_t series) const { return series_[series].name; }
  bool Stepped(size_t series) const { return series_[series].stepped; }
  uint64_t Samples() const { return samples_; }
  size_t Columns() const { return columns_; }

  // The lines of a series as they are drawn, oldest first: at most four points per
  // pixel column (first, lowest and highest in time order, last), twice that when
  // stepped, and a new line after every gap.
  std::vector<std::vector<Point>> Lines(size_t series) const;

  // A standalone SVG document: `title`, the lines on a grid with time and value axes,
  // and a legend with each series' range.
  std::string Svg(const std::string& title) const;
  // The same as text: `rows` lines of plot, an axis line, a label line and the legend,
  // coloured with ANSI escapes when `color`.
  std::string Text(size_t rows, bool color) const;

 private:
  struct Bin {
    Point first{INT64_MAX, 0}, last{INT64_MIN, 0}, low{0, 0}, high{0, 0};
    int64_t firstGap = INT64_MAX, lastGap = INT64_MIN;
    int64_t innerGap = INT64_MIN;  // a gap sample between `first` and `last`, if one is known
    bool Good() const { return first.time != INT64_MAX; }
    bool Empty() const { return !Good() && firstGap == INT64_MAX; }
    void Merge(const Bin& other);
  };
  struct Series {
    std::string name;
    bool stepped = false;
    int level = 0;          // bins are 2^level ticks wide
    int64_t firstBin = 0;   // the index of bins.front()
    std::deque<Bin> bins;
    double low = 0, high = 0;  // the range of the drawable values
    bool any = false;
  };
  // What every drawing of the chart shares. Values are drawn on one axis when their
  // ranges are alike; when one series would be a flat line beside another, each is
  // drawn over its own range and the axis reads in percent of it.
  struct Frame {
    int64_t t0 = 0, t1 = 1;
    double v0 = 0, v1 = 1;  // the axis, padded
    bool percent = false;
    std::vector<std::pair<double, double>> scale;  // per series: axis = (value - first) * second
    double Axis(size_t series, double value) const { return (value - scale[series].first) * scale[series].second; }
    bool empty = true;
  };

  // The time range in full, and whether values are in percent, `separator` between.
  static std::string RangeNote(const Frame& f, const std::string& separator);
  Bin& BinFor(Series& s, int64_t time);
  Frame MakeFrame() const;

  size_t columns_;
  std::vector<Series> series_;
  uint64_t samples_ = 0;
};

}  // namespace corvane::shell
