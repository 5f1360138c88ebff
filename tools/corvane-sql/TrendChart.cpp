#include "tools/corvane-sql/TrendChart.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "platform/Platform.h"

namespace corvane::shell {

namespace {

constexpr int64_t kMillisecond = 10000;
constexpr int64_t kSecond = 1000 * kMillisecond;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;

const char* const kColors[] = {"#2563eb", "#dc2626", "#16a34a", "#d97706", "#7c3aed",
                               "#0891b2", "#db2777", "#65a30d", "#475569", "#ea580c"};
const int kAnsiColors[] = {34, 31, 32, 33, 35, 36, 95, 92, 90, 91};
constexpr size_t kPalette = sizeof kColors / sizeof kColors[0];

struct Civil {
  int year, month, day, hour, minute, second, millis;
};

Civil CivilOf(int64_t ticks) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks));
  ft.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32);
  SYSTEMTIME st{};
  FileTimeToSystemTime(&ft, &st);
  return {st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buffer[128];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

std::string DateTimeText(int64_t ticks) {
  const Civil c = CivilOf(ticks);
  return Format("%04d-%02d-%02d %02d:%02d:%02d", c.year, c.month, c.day, c.hour, c.minute, c.second);
}

// Time ticks at round multiples of a step that gives at most `most` of them, labelled in
// the unit that the step needs (a tick at midnight shows the date instead of 00:00).
struct TimeTick {
  int64_t time;
  std::string label;
};
std::vector<TimeTick> TimeTicks(int64_t t0, int64_t t1, size_t most) {
  static const int64_t kSteps[] = {
      kMillisecond, 2 * kMillisecond, 5 * kMillisecond, 10 * kMillisecond, 20 * kMillisecond, 50 * kMillisecond,
      100 * kMillisecond, 200 * kMillisecond, 500 * kMillisecond, kSecond, 2 * kSecond, 5 * kSecond,
      10 * kSecond, 15 * kSecond, 30 * kSecond, kMinute, 2 * kMinute, 5 * kMinute, 10 * kMinute, 15 * kMinute,
      30 * kMinute, kHour, 2 * kHour, 3 * kHour, 6 * kHour, 12 * kHour, kDay, 2 * kDay,
      7 * kDay,  // 1601-01-01 was a Monday, so weeks start on Mondays
      14 * kDay, 28 * kDay, 91 * kDay, 364 * kDay, 5 * 364 * kDay, 25 * 364 * kDay, 100 * 364 * kDay};
  most = std::max<size_t>(most, 2);
  int64_t step = kSteps[sizeof kSteps / sizeof kSteps[0] - 1];
  for (int64_t s : kSteps) {
    if ((t1 - t0) / s + 1 <= static_cast<int64_t>(most)) {
      step = s;
      break;
    }
  }
  std::vector<TimeTick> ticks;
  for (int64_t t = (t0 + step - 1) / step * step; t <= t1; t += step) {
    const Civil c = CivilOf(t);
    std::string label;
    if (step < kSecond) label = Format("%02d:%02d:%02d.%03d", c.hour, c.minute, c.second, c.millis);
    else if (step < kMinute) label = Format("%02d:%02d:%02d", c.hour, c.minute, c.second);
    else if (step < kDay && t % kDay) label = Format("%02d:%02d", c.hour, c.minute);
    else if (step < 364 * kDay) label = Format("%02d-%02d", c.month, c.day);
    else label = Format("%04d-%02d-%02d", c.year, c.month, c.day);
    ticks.push_back({t, label});
  }
  return ticks;
}

// Round values (1, 2 or 5 times a power of ten) across [v0, v1], about `count` of them.
std::vector<std::pair<double, std::string>> ValueTicks(double v0, double v1, int count, const char* unit) {
  const double raw = (v1 - v0) / count;
  const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
  double step = magnitude;
  for (double m : {1.0, 2.0, 5.0, 10.0})
    if (m * magnitude >= raw) {
      step = m * magnitude;
      break;
    }
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
  std::vector<std::pair<double, std::string>> ticks;
  // Counted, not stepped by adding: a step below the values' precision must still end.
  const double first = std::ceil(v0 / step);
  for (int k = 0; k <= 4 * count && (first + k) * step <= v1 + step * 1e-9; ++k) {
    const double v = (first + k) * step;
    const double shown = std::fabs(v) < step * 1e-6 ? 0.0 : v;
    ticks.emplace_back(v, Format("%.*f%s", decimals, shown, unit));
  }
  return ticks;
}

// Text as XML character data: markup escaped, characters that XML forbids and bytes
// that are not UTF-8 replaced, so any tag name or statement gives a valid document.
std::string XmlText(const std::string& text, size_t most = 200) {
  std::string out;
  size_t shown = 0;
  for (size_t i = 0; i < text.size() && shown < most; ++shown) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const size_t length = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    bool valid = length > 0 && i + length <= text.size() && (length == 1 || c >= 0xC2);
    for (size_t k = 1; valid && k < length; ++k) valid = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
    if (!valid || (c < 0x20 && c != '\t')) {
      out += "\xEF\xBF\xBD";
      i += valid ? length : 1;
      continue;
    }
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out.append(text, i, length);
    }
    i += length;
  }
  if (shown == most && out.size() < text.size()) out += "\xE2\x80\xA6";
  return out;
}

std::string Utf8(uint32_t cp) {
  std::string out;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
  return out;
}

size_t CodePoints(const std::string& text) {
  size_t n = 0;
  for (unsigned char c : text) n += (c & 0xC0) != 0x80;
  return n;
}

std::string RangeText(double low, double high) {
  return Format("%.5g", low) + " \xE2\x80\xA6 " + Format("%.5g", high);
}

}  // namespace

std::string CTrendChart::RangeNote(const Frame& f, const std::string& separator) {
  if (f.empty) return "no samples";
  return "UTC, " + DateTimeText(f.t0) + " to " + DateTimeText(f.t1) +
         (f.percent ? separator + "values in percent of each series' range" : "");
}

void CTrendChart::Bin::Merge(const Bin& o) {
  const int64_t gaps[] = {firstGap, lastGap, o.firstGap, o.lastGap};
  innerGap = std::max(innerGap, o.innerGap);
  if (o.Good()) {
    if (!Good()) {
      first = o.first, last = o.last, low = o.low, high = o.high;
    } else {
      if (o.first.time < first.time) first = o.first;
      if (o.last.time > last.time) last = o.last;
      if (o.low.value < low.value || (o.low.value == low.value && o.low.time < low.time)) low = o.low;
      if (o.high.value > high.value || (o.high.value == high.value && o.high.time < high.time)) high = o.high;
    }
  }
  firstGap = std::min(firstGap, o.firstGap);
  lastGap = std::max(lastGap, o.lastGap);
  // Gaps narrower than a pixel column still break the line.
  for (int64_t gap : gaps)
    if (innerGap == INT64_MIN && Good() && gap > first.time && gap < last.time) innerGap = gap;
}

CTrendChart::CTrendChart(size_t columns) : columns_(std::max<size_t>(columns, 2)) {}

size_t CTrendChart::AddSeries(const std::string& name, bool stepped) {
  series_.push_back(Series{});
  series_.back().name = name;
  series_.back().stepped = stepped;
  return series_.size() - 1;
}

void CTrendChart::SetStepped(size_t series, bool stepped) { series_[series].stepped = stepped; }

// The bin of `time`, made coarser (pairs of bins merged) until the series spans at most
// twice the plot's columns: a bin then never covers more than one column.
CTrendChart::Bin& CTrendChart::BinFor(Series& s, int64_t time) {
  const int64_t capacity = static_cast<int64_t>(2 * columns_);
  for (;;) {
    const int64_t index = time >> s.level;
    if (s.bins.empty()) {
      s.firstBin = index;
      s.bins.emplace_back();
      return s.bins.front();
    }
    const int64_t lastBin = s.firstBin + static_cast<int64_t>(s.bins.size()) - 1;
    if (std::max(lastBin, index) - std::min(s.firstBin, index) < capacity) {
      for (; index < s.firstBin; --s.firstBin) s.bins.emplace_front();
      while (index > s.firstBin + static_cast<int64_t>(s.bins.size()) - 1) s.bins.emplace_back();
      return s.bins[static_cast<size_t>(index - s.firstBin)];
    }
    std::deque<Bin> coarser;
    const int64_t first = s.firstBin >> 1;
    for (size_t i = 0; i < s.bins.size(); ++i) {
      const size_t at = static_cast<size_t>(((s.firstBin + static_cast<int64_t>(i)) >> 1) - first);
      if (at >= coarser.size()) coarser.resize(at + 1);
      coarser[at].Merge(s.bins[i]);
    }
    s.bins.swap(coarser);
    s.firstBin = first;
    ++s.level;
  }
}

void CTrendChart::Add(size_t series, int64_t time, double value) {
  if (!std::isfinite(value)) return AddGap(series, time);
  Series& s = series_[series];
  Bin sample;
  sample.first = sample.last = sample.low = sample.high = Point{time, value};
  BinFor(s, time).Merge(sample);
  s.low = s.any ? std::min(s.low, value) : value;
  s.high = s.any ? std::max(s.high, value) : value;
  s.any = true;
  ++samples_;
}

void CTrendChart::AddGap(size_t series, int64_t time) {
  Bin gap;
  gap.firstGap = gap.lastGap = time;
  BinFor(series_[series], time).Merge(gap);
  ++samples_;
}

CTrendChart::Frame CTrendChart::MakeFrame() const {
  Frame f;
  f.t0 = INT64_MAX;
  f.t1 = INT64_MIN;
  bool anyValue = false;
  for (const Series& s : series_) {
    for (const Bin& b : s.bins) {
      if (b.Good()) f.t0 = std::min(f.t0, b.first.time), f.t1 = std::max(f.t1, b.last.time);
      if (b.firstGap != INT64_MAX) f.t0 = std::min(f.t0, b.firstGap), f.t1 = std::max(f.t1, b.lastGap);
    }
    if (!s.any) continue;
    f.v0 = anyValue ? std::min(f.v0, s.low) : s.low;
    f.v1 = anyValue ? std::max(f.v1, s.high) : s.high;
    anyValue = true;
  }
  f.empty = f.t0 > f.t1;
  if (f.empty) f.t0 = 0, f.t1 = kSecond;
  if (f.t1 == f.t0) f.t0 -= kSecond, f.t1 += kSecond;  // one instant: a two-second window around it
  if (!anyValue) f.v0 = 0, f.v1 = 1;
  // A series whose range is under a twenty-fifth of the whole would show as a flat line.
  for (const Series& s : series_)
    f.percent = f.percent || (s.any && s.high > s.low && (s.high - s.low) * 25 < f.v1 - f.v0);
  for (const Series& s : series_) {
    if (!f.percent) f.scale.emplace_back(0.0, 1.0);
    else if (s.high > s.low) f.scale.emplace_back(s.low, 100.0 / (s.high - s.low));
    else f.scale.emplace_back(s.low - 50.0, 1.0);  // a constant sits half-way up
  }
  if (f.percent) f.v0 = 0, f.v1 = 100;
  const double span = f.v1 > f.v0 ? f.v1 - f.v0 : std::max(std::fabs(f.v0) * 0.1, 1.0);
  if (f.v1 == f.v0) f.v0 -= span / 2, f.v1 += span / 2;
  else f.v0 -= span * 0.04, f.v1 += span * 0.04;  // lines along the extremes stay visible
  return f;
}

std::vector<std::vector<CTrendChart::Point>> CTrendChart::Lines(size_t index) const {
  const Series& s = series_[index];
  const Frame f = MakeFrame();
  const double perTick = static_cast<double>(columns_) / static_cast<double>(f.t1 - f.t0 + 1);
  auto columnOf = [&](const Bin& b) {
    const int64_t t = b.Good() ? b.first.time : b.firstGap;
    return std::min(static_cast<size_t>(static_cast<double>(t - f.t0) * perTick), columns_ - 1);
  };
  // Bins merged per pixel column.
  std::vector<Bin> columns;
  size_t current = SIZE_MAX;
  for (const Bin& b : s.bins) {
    if (b.Empty()) continue;
    const size_t c = columnOf(b);
    if (c != current) columns.emplace_back(), current = c;
    columns.back().Merge(b);
  }
  std::vector<std::vector<Point>> lines;
  const Bin* previous = nullptr;
  for (const Bin& b : columns) {
    if (!b.Good()) {  // only samples that cannot be drawn: a gap
      previous = nullptr;
      continue;
    }
    // A gap sample after the previous column's last point or before this one's first
    // breaks the line between them.
    if (!previous || previous->lastGap > previous->last.time || b.firstGap < b.first.time) lines.emplace_back();
    Point points[4] = {b.first, b.low, b.high, b.last};
    std::stable_sort(points + 1, points + 3, [](const Point& x, const Point& y) { return x.time < y.time; });
    bool broken = b.innerGap == INT64_MIN;
    for (const Point& p : points) {
      if (!broken && p.time > b.innerGap) lines.emplace_back(), broken = true;
      std::vector<Point>& line = lines.back();
      if (!line.empty() && line.back().time == p.time && line.back().value == p.value) continue;
      if (s.stepped && !line.empty() && line.back().value != p.value) line.push_back(Point{p.time, line.back().value});
      line.push_back(p);
    }
    previous = &b;
  }
  return lines;
}

std::string CTrendChart::Svg(const std::string& title) const {
  const Frame f = MakeFrame();
  const auto ticks = ValueTicks(f.v0, f.v1, 6, f.percent ? "%" : "");
  size_t widest = 0;
  for (const auto& tick : ticks) widest = std::max(widest, tick.second.size());
  // Room on the left for the longest value label (about 7 pixels a character at 12 px).
  const double left = std::max(50.0, 7.5 * static_cast<double>(widest) + 14), top = 44;
  const double plotWidth = static_cast<double>(columns_), plotHeight = 400;
  const double width = left + plotWidth + 24, bottom = top + plotHeight;
  std::vector<std::string> entries;
  size_t longest = 0;
  for (const Series& s : series_) {
    entries.push_back(XmlText(s.name, 40) + (s.any ? " (" + RangeText(s.low, s.high) + ")" : std::string(" (no values)")) +
                      (s.stepped ? " stepped" : ""));
    longest = std::max(longest, CodePoints(s.name.substr(0, 40)) + (entries.back().size() - XmlText(s.name, 40).size()));
  }
  const double cell = 7.0 * static_cast<double>(longest) + 44;
  const size_t perRow = std::max<size_t>(1, static_cast<size_t>((width - 10) / cell));
  const double legendTop = bottom + 58;
  const double height = legendTop + 22.0 * static_cast<double>((series_.size() + perRow - 1) / perRow) + 10;
  auto x = [&](int64_t t) { return left + static_cast<double>(t - f.t0) / static_cast<double>(f.t1 - f.t0) * plotWidth; };
  auto y = [&](double v) { return top + (f.v1 - v) / (f.v1 - f.v0) * plotHeight; };

  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  out += Format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
                "font-family=\"sans-serif\" font-size=\"12\">\n",
                width, height, width, height);
  out += "<title>" + XmlText(title) + "</title>\n";
  out += "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
  out += Format("<text x=\"%.0f\" y=\"24\" font-size=\"14\" font-weight=\"bold\">", left) +
         XmlText(title, static_cast<size_t>((width - left) / 9.5)) +
         "</text>\n";
  out += "<g stroke=\"#e2e8f0\" stroke-width=\"1\">\n";
  std::string labels;
  for (const auto& tick : ticks) {
    out += Format("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", left, y(tick.first), left + plotWidth,
                  y(tick.first));
    labels += Format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">", left - 6, y(tick.first) + 4) +
              XmlText(tick.second) + "</text>\n";
  }
  for (const TimeTick& tick : TimeTicks(f.t0, f.t1, static_cast<size_t>(plotWidth / 90))) {
    out += Format("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", x(tick.time), top, x(tick.time), bottom);
    labels += Format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">", x(tick.time), bottom + 18) +
              XmlText(tick.label) + "</text>\n";
  }
  out += "</g>\n";
  out += Format("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" stroke=\"#64748b\"/>\n", left,
                top, plotWidth, plotHeight);
  out += "<g fill=\"#334155\">\n" + labels;
  out += Format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#64748b\">", left + plotWidth / 2,
                bottom + 38) +
         RangeNote(f, "; ") + "</text>\n</g>\n";

  for (size_t i = 0; i < series_.size(); ++i) {
    std::string d;
    for (const auto& line : Lines(i)) {
      for (size_t k = 0; k < line.size(); ++k)
        d += Format(k == 0 ? "M%.1f,%.1f" : k == 1 ? "L%.1f,%.1f" : " %.1f,%.1f", x(line[k].time),
                    y(f.Axis(i, line[k].value)));
      if (line.size() == 1) d += "h0";  // a lone sample shows as a dot (round caps)
    }
    out += Format("<path fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" stroke-linejoin=\"round\" "
                  "stroke-linecap=\"round\" d=\"",
                  kColors[i % kPalette]) +
           d + "\"><title>" + XmlText(series_[i].name) + "</title></path>\n";
  }

  out += "<g>\n";
  for (size_t i = 0; i < series_.size(); ++i) {
    const double lx = 10 + cell * static_cast<double>(i % perRow);
    const double ly = legendTop + 22.0 * static_cast<double>(i / perRow);
    out += Format("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"3\"/>", lx, ly - 4,
                  lx + 22, ly - 4, kColors[i % kPalette]);
    out += Format("<text x=\"%.1f\" y=\"%.1f\">", lx + 28, ly) + entries[i] + "</text>\n";
  }
  out += "</g>\n</svg>\n";
  return out;
}

std::string CTrendChart::Text(size_t rows, bool color) const {
  const Frame f = MakeFrame();
  rows = std::max<size_t>(rows, 2);
  const size_t cells = (columns_ + 1) / 2, dotsX = cells * 2, dotsY = rows * 4;
  std::vector<uint8_t> dots(cells * rows, 0);
  std::vector<uint8_t> owner(cells * rows, 0);
  static const uint8_t kBit[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
  auto plot = [&](long px, long py, size_t series) {
    if (px < 0 || py < 0 || px >= static_cast<long>(dotsX) || py >= static_cast<long>(dotsY)) return;
    const size_t at = static_cast<size_t>(py / 4) * cells + static_cast<size_t>(px / 2);
    dots[at] |= kBit[py % 4][px % 2];
    owner[at] = static_cast<uint8_t>(series % kPalette);
  };
  auto dx = [&](int64_t t) {
    return std::lround(static_cast<double>(t - f.t0) / static_cast<double>(f.t1 - f.t0) * static_cast<double>(dotsX - 1));
  };
  auto dy = [&](double v) { return std::lround((f.v1 - v) / (f.v1 - f.v0) * static_cast<double>(dotsY - 1)); };
  for (size_t i = 0; i < series_.size(); ++i) {
    for (const auto& line : Lines(i)) {
      long x0 = dx(line[0].time), y0 = dy(f.Axis(i, line[0].value));
      plot(x0, y0, i);
      for (size_t k = 1; k < line.size(); ++k) {  // Bresenham between neighbours
        const long x1 = dx(line[k].time), y1 = dy(f.Axis(i, line[k].value));
        const long sx = x0 < x1 ? 1 : -1, sy = y0 < y1 ? 1 : -1, ex = std::labs(x1 - x0), ey = -std::labs(y1 - y0);
        long error = ex + ey;
        while (x0 != x1 || y0 != y1) {
          const long e2 = 2 * error;
          if (e2 >= ey) error += ey, x0 += sx;
          if (e2 <= ex) error += ex, y0 += sy;
          plot(x0, y0, i);
        }
      }
    }
  }

  std::vector<std::string> rowLabel(rows);
  size_t labelWidth = 0;
  for (const auto& tick : ValueTicks(f.v0, f.v1, static_cast<int>(std::max<size_t>(2, rows / 3)), f.percent ? "%" : "")) {
    const size_t row = static_cast<size_t>(dy(tick.first)) / 4;
    if (row < rows && rowLabel[row].empty()) rowLabel[row] = tick.second;
    labelWidth = std::max(labelWidth, tick.second.size());
  }
  const std::string reset = color ? "\033[0m" : "";
  std::string out;
  for (size_t r = 0; r < rows; ++r) {
    out += std::string(labelWidth - rowLabel[r].size(), ' ') + rowLabel[r] + (rowLabel[r].empty() ? "\xE2\x94\x82" : "\xE2\x94\xA4");
    int active = -1;
    for (size_t c = 0; c < cells; ++c) {
      const size_t at = r * cells + c;
      if (!dots[at]) {
        out += ' ';
        continue;
      }
      if (color && active != owner[at]) out += Format("\033[%dm", kAnsiColors[owner[at]]), active = owner[at];
      out += Utf8(0x2800 + dots[at]);
    }
    out += (active >= 0 ? reset : "") + "\n";
  }
  // The time axis with its ticks, then the labels where they fit.
  std::string labels(cells + labelWidth + 12, ' ');
  std::vector<bool> tick(cells, false);
  size_t free = 0;
  for (const TimeTick& t : TimeTicks(f.t0, f.t1, std::max<size_t>(2, cells / 12))) {
    const size_t c = std::min(cells - 1, static_cast<size_t>(dx(t.time) / 2));
    tick[c] = true;
    const size_t at = labelWidth + 1 + c - std::min(c, t.label.size() / 2);
    if (at < free || at + t.label.size() > labels.size()) continue;
    labels.replace(at, t.label.size(), t.label);
    free = at + t.label.size() + 2;
  }
  out += std::string(labelWidth, ' ') + "\xE2\x94\x94";
  for (size_t c = 0; c < cells; ++c) out += tick[c] ? "\xE2\x94\xAC" : "\xE2\x94\x80";
  labels.erase(labels.find_last_not_of(' ') + 1);
  out += "\n" + labels + "\n";
  out += std::string(labelWidth + 1, ' ') + RangeNote(f, "\n" + std::string(labelWidth + 1, ' ')) + "\n";
  // The legend, wrapped to the chart's width.
  std::string line = std::string(labelWidth + 1, ' ');
  size_t lineWidth = labelWidth + 1;
  for (size_t i = 0; i < series_.size(); ++i) {
    const Series& s = series_[i];
    const std::string entry = s.name + (s.any ? " " + RangeText(s.low, s.high) : " (no values)") + (s.stepped ? " stepped" : "");
    const size_t entryWidth = CodePoints(entry) + 3;
    if (lineWidth > labelWidth + 1 && lineWidth + entryWidth > labelWidth + 1 + cells) {
      out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
      line = std::string(labelWidth + 1, ' ');
      lineWidth = labelWidth + 1;
    }
    line += (color ? Format("\033[%dm", kAnsiColors[i % kPalette]) : std::string()) + "\xE2\x94\x81\xE2\x94\x81" + reset +
            " " + entry + "   ";
    lineWidth += entryWidth + 3;
  }
  if (!series_.empty()) out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  return out;
}

}  // namespace corvane::shell
