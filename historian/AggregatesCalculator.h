// The arithmetic of the aggregates: given one tag's raw samples in memory (including
// the samples just before and just after the requested range), computes each aggregate
// over a resampling interval. CProcessedDataProvider reads the samples and packs the
// results; the rules themselves are described in ProcessedDataProvider.h.
#pragma once
#include <cmath>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "base/HistorianInterfaces.h"

namespace corvane::historian {

// Bits of the status words the aggregates produce: the data-value info type with the
// origin of the value, and the partial flag of an interval shorter than the period.
enum : DWORD {
  kAggInfoDataValue = 0x00000400u,
  kAggOriginRaw = 0x0u,
  kAggOriginCalculated = 0x1u,
  kAggOriginInterpolated = 0x2u,
  kAggPartial = 0x4u,
  kAggUncertainDataSubNormal = 0x40A40000u,
};

// One raw sample reduced to what the aggregates need. Numbers keep their exact integer
// value where the type is an integer, so that MIN, MAX and LAST give it back unchanged.
struct AggSample {
  ULONGLONG time = 0;
  union {
    double real = 0;
    LONGLONG integer;
    ULONGLONG uinteger;
  };
  DWORD quality = 0;
  VARTYPE vt = VT_EMPTY;
  bool numeric = false;

  // Inline: aggregates read it several times for every sample.
  double Number() const {
    if (vt == VT_R8) return real;  // by far the most common type of a tag
    switch (vt) {
      case VT_I1: case VT_I2: case VT_I4: case VT_INT: case VT_I8: case VT_BOOL:
        return static_cast<double>(integer);
      case VT_UI1: case VT_UI2: case VT_UI4: case VT_UINT: case VT_UI8:
        return static_cast<double>(uinteger);
      default:
        return real;
    }
  }
};

// Converts a raw value; a value that is not a number (text, empty, arrays...) gives a
// sample with numeric == false. Doubles, which most tags hold, are converted inline.
AggSample ConvertToAggSample(const HistoryValue& value);
inline AggSample ToAggSample(const HistoryValue& value) {
  if (value.value.vt != VT_R8 || std::isnan(value.value.dblVal)) return ConvertToAggSample(value);
  AggSample s;
  s.time = FileTimeToU64(value.timestamp);
  s.real = value.value.dblVal;
  s.quality = value.quality;
  s.vt = VT_R8;
  s.numeric = true;
  return s;
}
// The sample's value as a VARIANT of its own type (numbers only; others give VT_EMPTY).
void AggSampleToVariant(const AggSample& sample, VARIANT* out);

struct AggregateSettings {
  bool treatUncertainAsGood = true;
  BYTE percentDataGood = 100;  // effective threshold, 1..100
  BYTE percentDataBad = 100;
  bool stepped = false;

  // Thresholds of 0 (not set) or above 100 become 100; a null request gives the defaults.
  static AggregateSettings FromRequest(const ProcessedReadRequest* request, bool stepped);
  // Top bits 00 are good, 01 uncertain (good on request), 10 and 11 bad. Inline: every
  // sample of a read is judged at least once.
  bool IsGood(DWORD quality) const {
    const DWORD severity = quality >> 30;
    return severity == 0 || (severity == 1 && treatUncertainAsGood);
  }
  // Severity of a result from the share of good input: good, bad or uncertain.
  DWORD ThresholdStatus(ULONGLONG good, ULONGLONG total) const;
};

// The intervals of a request: `count` intervals of `step` from `start`, the last one
// cut at `end`. E_INVALIDARG when end is before start, for a period that is not a
// number or rounds to less than 100 ns, and beyond kMaxIntervals.
struct IntervalPlan {
  ULONGLONG start = 0;
  ULONGLONG end = 0;
  ULONGLONG step = 0;
  size_t count = 0;

  static constexpr size_t kMaxIntervals = 1000000;
  static HRESULT Make(ULONGLONG start, ULONGLONG end, double periodMs, IntervalPlan* plan);
  ULONGLONG IntervalStart(size_t k) const { return start + step * k; }
  ULONGLONG IntervalEnd(size_t k) const;
  bool IsPartial(size_t k) const { return IntervalEnd(k) - IntervalStart(k) < step; }
  // Index of the interval holding time t (t in [start, end)).
  size_t IndexOf(ULONGLONG t) const { return static_cast<size_t>((t - start) / step); }
};

// Running MIN, MAX, AVG and COUNT over raw samples fed in time order: shared by the
// interval aggregates and the filtered tag statistics so both judge samples alike.
class CRawAccumulator {
 public:
  explicit CRawAccumulator(const AggregateSettings& settings) : settings_(settings) {}
  // Inline: called once for every sample of every interval.
  void Add(const AggSample& s) {
    ++total;
    if (!settings_.IsGood(s.quality)) return;
    ++good;
    if (!s.numeric) return;
    const double v = s.Number();
    if (usable == 0) {
      min = max = s;
      minValue = maxValue = firstValue = v;
    } else {
      if (v < minValue) {
        min = s;
        minValue = v;
      }
      if (v > maxValue) {
        max = s;
        maxValue = v;
      }
    }
    lastValue = v;
    ++usable;
    sum += v;
  }
  // Writes MIN, MAX, AVG, DELTA, RANGE or COUNT of what was added (E_INVALIDARG for
  // other ids). `ts` stamps everything but MIN and MAX; `extraBits` is ORed into every
  // status except BadNoData.
  HRESULT Result(AggregateId id, ULONGLONG ts, DWORD extraBits, HistoryValue* out) const;

  ULONGLONG total = 0;   // samples seen
  ULONGLONG good = 0;    // good samples of any type
  ULONGLONG usable = 0;  // good numeric samples
  double sum = 0;
  AggSample min, max;  // among usable samples; first extreme wins ties
  double minValue = 0, maxValue = 0, firstValue = 0, lastValue = 0;  // their numbers, and the ends'

 private:
  AggregateSettings settings_;
};

class CAggregatesCalculator {
 public:
  // A usable sample as the interpolated line sees it: its value is converted once here
  // rather than at every segment of every interval that touches it.
  struct LinePoint {
    ULONGLONG time;
    double value;
    size_t index;     // in the samples
    ULONGLONG until;  // time of the next sample of any kind: the end of what this one governs
  };
  // What a calculator allocates in proportion to its samples: the samples themselves
  // and what it derives from them. A reader may hand them from one calculator to the
  // next so that their memory is not given back and faulted in again at every read.
  struct Buffers {
    std::vector<AggSample> samples;
    std::vector<unsigned char> usable;  // per sample: good and numeric
    std::vector<LinePoint> line;        // the usable samples, in order
  };

  // `samples` must be ordered by time.
  CAggregatesCalculator(std::vector<AggSample> samples, const AggregateSettings& settings);
  // The same over buffers.samples; the other buffers' contents are replaced.
  CAggregatesCalculator(Buffers buffers, const AggregateSettings& settings);
  // Gives the buffers back; the calculator must not be used afterwards.
  Buffers TakeBuffers() { return Buffers{std::move(samples_), std::move(usable_), std::move(line_)}; }

  // Computes one aggregate over [ts, te) into *out (whose value is VT_EMPTY on entry).
  // `lastValue`, when not null, is the raw value of the interval's last sample, used by
  // LAST so that texts and exotic types come back as they were.
  HRESULT Compute(AggregateId id, ULONGLONG ts, ULONGLONG te, bool partial, const VARIANT* lastValue,
                  HistoryValue* out) const;

  const std::vector<AggSample>& Samples() const { return samples_; }

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // What the time-weighted aggregates of one interval share.
  struct Integral {
    double area = 0;            // under the line, in value x 100 ns
    ULONGLONG covered = 0;      // part of the interval that the line covers
    ULONGLONG usableTime = 0;   // part governed by a usable sample
  };

  bool Usable(size_t i) const { return usable_[i] != 0; }
  size_t FirstAtOrAfter(ULONGLONG t) const;
  size_t LastAtOrBefore(ULONGLONG t) const;  // kNone when none
  // Index in line_ of the last usable sample at or before t (kNone when none), and of
  // the first usable sample after a time before which none is.
  size_t LinePointAtOrBefore(ULONGLONG t) const;
  size_t LinePointBefore(ULONGLONG t) const;
  // The line's value at t from point q towards point q + 1.
  double LineValueAt(size_t q, ULONGLONG t) const {
    const LinePoint& a = line_[q];
    if (settings_.stepped || q + 1 >= line_.size()) return a.value;
    const LinePoint& b = line_[q + 1];
    if (b.time <= a.time) return a.value;
    // Integration asks mostly at the points themselves, where the quotient is exactly 0
    // or 1: no need to divide.
    const ULONGLONG offset = t - a.time, span = b.time - a.time;
    const double fraction = offset == 0      ? 0.0
                            : offset == span ? 1.0
                                             : static_cast<double>(offset) / static_cast<double>(span);
    return a.value + (b.value - a.value) * fraction;
  }
  // Time average, total and total average of one interval integrate it once: the
  // last interval's integral is kept, as callers compute all aggregates of an interval
  // before the next.
  const Integral& IntegralOf(ULONGLONG ts, ULONGLONG te) const;
  // The raw samples [a, b) of [ts, te), kept likewise for the aggregates of one interval.
  void Bounds(ULONGLONG ts, ULONGLONG te, size_t* a, size_t* b) const;
  // Calls f(sampleIndex or kNone, from, to) for each stretch of [ts, te) that one sample
  // (the last at or before it) governs.
  template <class F>
  void ForEachRegion(ULONGLONG ts, ULONGLONG te, F&& f) const;

  std::vector<AggSample> samples_;
  std::vector<unsigned char> usable_;  // per sample: good and numeric
  std::vector<LinePoint> line_;        // the usable samples, in order
  AggregateSettings settings_;

  mutable bool bounded_ = false;
  mutable ULONGLONG boundsFrom_ = 0, boundsTo_ = 0;
  mutable size_t boundsA_ = 0, boundsB_ = 0;
  mutable std::optional<CRawAccumulator> accumulated_;
  mutable ULONGLONG accumulatedFrom_ = 0, accumulatedTo_ = 0;
  mutable bool integrated_ = false;
  mutable ULONGLONG integratedFrom_ = 0, integratedTo_ = 0;
  mutable Integral integral_;
};

}  // namespace corvane::historian
