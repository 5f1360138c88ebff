// The arithmetic of the aggregates: given one tag's raw samples in memory (including
// the samples just before and just after the requested range), computes each aggregate
// over a resampling interval. CProcessedDataProvider reads the samples and packs the
// results; the rules themselves are described in ProcessedDataProvider.h.
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

// The store's 64-bit form of a number or boolean (SampleReader.h) as the aggregates take
// it: the same sample as ToAggSample makes of the VARIANT a page would carry. False for
// other types.
bool FromStoredBits(VARTYPE vt, uint64_t bits, AggSample* s);

// Where a calculator reads its samples, ordered by time. Samples converted one by one,
// as pages bring them:
struct AggSampleRun {
  const AggSample* samples;
  size_t count;

  size_t Size() const { return count; }
  ULONGLONG Time(size_t i) const { return samples[i].time; }
  DWORD Quality(size_t i) const { return samples[i].quality; }
  bool Numeric(size_t i) const { return samples[i].numeric; }
  double Number(size_t i) const { return samples[i].Number(); }
  double Real(size_t i) const { return samples[i].real; }  // when AllReal()
  AggSample Sample(size_t i) const { return samples[i]; }
  bool AllReal() const;
};

// A host's own columns of one numeric or boolean tag (ISampleReader), read in place.
struct StoredColumns {
  const ULONGLONG* times;
  const DWORD* qualities;
  const uint64_t* bits;
  VARTYPE vt;
  size_t count;

  size_t Size() const { return count; }
  ULONGLONG Time(size_t i) const { return times[i]; }
  DWORD Quality(size_t i) const { return qualities[i]; }
  bool Numeric(size_t i) const { return !AllReal() || !std::isnan(Real(i)); }
  double Number(size_t i) const { return AllReal() ? Real(i) : Sample(i).Number(); }
  double Real(size_t i) const {
    double d;
    std::memcpy(&d, &bits[i], sizeof d);
    return d;
  }
  AggSample Sample(size_t i) const {
    AggSample s;
    s.time = times[i];
    s.quality = qualities[i];
    FromStoredBits(vt, bits[i], &s);
    return s;
  }
  bool AllReal() const { return vt == VT_R8 || vt == VT_R4; }  // both held as doubles
};

template <class Source>
class CAggregatesCalculator {
 public:
  // `samples` must outlive the calculator. `rawLast`: every sample is of a numeric type
  // and carries its raw value (a NaN included), so LAST may be made from it when no raw
  // value is handed to Compute. `planned`: the aggregates that will be asked for, so that
  // one walk of an interval gathers what all need.
  CAggregatesCalculator(const Source& samples, const AggregateSettings& settings, bool rawLast,
                        const AggregateId* planned = nullptr, ULONG plannedCount = 0);

  // Computes one aggregate over [ts, te) into *out (whose value is VT_EMPTY on entry).
  // `lastValue`, when not null, is the raw value of the interval's last sample, used by
  // LAST so that texts and exotic types come back as they were. Callers ask for every
  // aggregate of an interval before the next interval, in time order: an interval's
  // samples are walked once for all of them, and what one interval leaves (the last
  // usable sample before the next) starts the next.
  HRESULT Compute(AggregateId id, ULONGLONG ts, ULONGLONG te, bool partial, const VARIANT* lastValue,
                  HistoryValue* out) const;

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // What the aggregates of one interval [ts, te) share, from one walk over its samples.
  struct Walk {
    ULONGLONG ts = 0, te = 0;
    bool valid = false;
    size_t a = 0, b = 0;        // the interval's samples [a, b)
    unsigned groups = 0;        // what was gathered (kWalk... bits)
    std::optional<CRawAccumulator> raw;  // MIN, MAX, AVG, DELTA, RANGE, COUNT
    DWORD worst = 0;            // WORST_QUALITY, when a < b
    LONG transitions = 0;       // NUMBER_OF_TRANSITIONS
    // TIME_AVG, TOTAL, TOTAL_AVG: the area under the line in value x 100 ns, the part of
    // the interval the line covers, and the part governed by a usable sample.
    double area = 0;
    ULONGLONG covered = 0, usableTime = 0;
    // INTERPOLATIVE: the last sample at or before ts, the last usable one, and the
    // first usable one after that (kNone when none).
    size_t at = kNone, point = kNone, afterPoint = kNone;
    // The four good/bad aggregates and the state durations, from the stretches that
    // each sample governs: time of good samples, of usable ones, of usable non-zero ones.
    ULONGLONG goodTime = 0, usableRegions = 0, nonZeroRegions = 0;
  };
  // The groups of a walk; the first three share the walk over the samples.
  enum : unsigned { kWalkRaw = 1, kWalkLine = 2, kWalkState = 4, kWalkRegions = 8 };
  static unsigned GroupsOf(AggregateId id);

  bool Usable(size_t i) const { return src_.Numeric(i) && settings_.IsGood(src_.Quality(i)); }
  size_t FirstAtOrAfter(ULONGLONG t) const;
  size_t LastAtOrBefore(ULONGLONG t) const;  // kNone when none
  // The last usable sample before index i, and the first at or after it (kNone when
  // none): remembered, so that intervals taken in order find them at once.
  size_t LastUsableBefore(size_t i) const;
  size_t FirstUsableFrom(size_t i) const;
  // The line's value at t, from usable sample j towards usable sample k (kNone: none).
  double LineValueAt(size_t j, size_t k, ULONGLONG t) const {
    const double av = src_.Number(j);
    if (settings_.stepped || k == kNone) return av;
    const ULONGLONG at = src_.Time(j), bt = src_.Time(k);
    if (bt <= at) return av;
    // Integration asks mostly at the points themselves, where the quotient is exactly 0
    // or 1: no need to divide.
    const ULONGLONG offset = t - at, span = bt - at;
    const double fraction = offset == 0      ? 0.0
                            : offset == span ? 1.0
                                             : static_cast<double>(offset) / static_cast<double>(span);
    return av + (src_.Number(k) - av) * fraction;
  }
  // The walk of [ts, te) holding at least `groups`.
  const Walk& WalkOf(ULONGLONG ts, ULONGLONG te, unsigned groups) const;
  // Real: every sample's number is its double, with no conversion.
  template <unsigned Groups, bool Real>
  void WalkSamples(Walk& w) const;
  // Calls f(sampleIndex or kNone, from, to) for each stretch of [ts, te) that one sample
  // (the last at or before it) governs.
  template <class F>
  void ForEachRegion(ULONGLONG ts, ULONGLONG te, F&& f) const;

  const Source src_;
  AggregateSettings settings_;
  bool rawLast_;
  unsigned planned_ = 0;
  bool real_ = false;

  mutable Walk walk_;
  mutable size_t usableBeforeAt_ = kNone, usableBefore_ = kNone;
  mutable size_t usableScanFrom_ = kNone, usableFound_ = kNone;
};

extern template class CAggregatesCalculator<AggSampleRun>;
extern template class CAggregatesCalculator<StoredColumns>;

}  // namespace corvane::historian
