#include "historian/AggregatesCalculator.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace corvane::historian {

namespace {

constexpr double kTicksPerMs = 10000.0;
constexpr double kTicksPerSecond = 10000000.0;
constexpr ULONGLONG kForever = ~0ull;

enum class Severity { Good, Uncertain, Bad };

Severity SeverityOf(DWORD quality) {
  switch (quality >> 30) {
    case 0:
      return Severity::Good;
    case 1:
      return Severity::Uncertain;
    default:
      return Severity::Bad;  // 10 bad, 11 reserved: neither can be trusted
  }
}

BYTE EffectiveThreshold(BYTE percent) { return (percent == 0 || percent > 100) ? BYTE(100) : percent; }

void SetDouble(VARIANT* v, double d) {
  v->vt = VT_R8;
  v->dblVal = d;
}

void SetInt(VARIANT* v, LONG n) {
  v->vt = VT_I4;
  v->lVal = n;
}

}  // namespace

// A read holds every sample of its range in this form.
static_assert(sizeof(AggSample) == 24, "keep the in-memory sample compact");

// ---- Samples -------------------------------------------------------------------------

AggSample ConvertToAggSample(const HistoryValue& in) {
  AggSample s;
  s.time = FileTimeToU64(in.timestamp);
  s.quality = in.quality;
  s.vt = in.value.vt;
  s.numeric = true;
  const VARIANT& v = in.value;
  switch (v.vt) {
    case VT_I1: s.integer = v.cVal; break;
    case VT_I2: s.integer = v.iVal; break;
    case VT_I4: s.integer = v.lVal; break;
    case VT_INT: s.integer = v.intVal; break;
    case VT_I8: s.integer = v.llVal; break;
    case VT_BOOL: s.integer = v.boolVal != VARIANT_FALSE ? 1 : 0; break;
    case VT_UI1: s.uinteger = v.bVal; break;
    case VT_UI2: s.uinteger = v.uiVal; break;
    case VT_UI4: s.uinteger = v.ulVal; break;
    case VT_UINT: s.uinteger = v.uintVal; break;
    case VT_UI8: s.uinteger = v.ullVal; break;
    case VT_R4: s.real = v.fltVal; break;
    case VT_R8: s.real = v.dblVal; break;
    case VT_DATE: s.real = v.date; break;
    case VT_CY: s.real = static_cast<double>(v.cyVal.int64) / 10000.0; break;
    case VT_DECIMAL: {
      // 96-bit magnitude scaled by a power of ten; a double is all the aggregates need.
      const DECIMAL& d = v.decVal;
      double magnitude = static_cast<double>(d.Hi32) * 18446744073709551616.0 + static_cast<double>(d.Lo64);
      s.real = (d.sign & DECIMAL_NEG ? -magnitude : magnitude) / std::pow(10.0, d.scale);
      break;
    }
    default:
      s.numeric = false;
      break;
  }
  // NaN has no order and would poison every sum: such a sample is not a usable number.
  if (s.numeric && std::isnan(s.Number())) s.numeric = false;
  return s;
}

void AggSampleToVariant(const AggSample& s, VARIANT* out) {
  VariantInit(out);
  if (!s.numeric) return;
  switch (s.vt) {
    case VT_I1: out->vt = VT_I1; out->cVal = static_cast<CHAR>(s.integer); break;
    case VT_I2: out->vt = VT_I2; out->iVal = static_cast<SHORT>(s.integer); break;
    case VT_I4: out->vt = VT_I4; out->lVal = static_cast<LONG>(s.integer); break;
    case VT_INT: out->vt = VT_INT; out->intVal = static_cast<INT>(s.integer); break;
    case VT_I8: out->vt = VT_I8; out->llVal = s.integer; break;
    case VT_BOOL: out->vt = VT_BOOL; out->boolVal = s.integer ? VARIANT_TRUE : VARIANT_FALSE; break;
    case VT_UI1: out->vt = VT_UI1; out->bVal = static_cast<BYTE>(s.uinteger); break;
    case VT_UI2: out->vt = VT_UI2; out->uiVal = static_cast<USHORT>(s.uinteger); break;
    case VT_UI4: out->vt = VT_UI4; out->ulVal = static_cast<ULONG>(s.uinteger); break;
    case VT_UINT: out->vt = VT_UINT; out->uintVal = static_cast<UINT>(s.uinteger); break;
    case VT_UI8: out->vt = VT_UI8; out->ullVal = s.uinteger; break;
    case VT_R4: out->vt = VT_R4; out->fltVal = static_cast<FLOAT>(s.real); break;
    case VT_DATE: out->vt = VT_DATE; out->date = s.real; break;
    default: SetDouble(out, s.real); break;  // R8, and currency/decimal as their double
  }
}

// ---- Settings and status ----------------------------------------------------------------

AggregateSettings AggregateSettings::FromRequest(const ProcessedReadRequest* request, bool stepped) {
  AggregateSettings s;
  s.stepped = stepped;
  if (request) {
    s.treatUncertainAsGood = request->treatUncertainAsGood != 0;
    s.percentDataGood = EffectiveThreshold(request->percentDataGood);
    s.percentDataBad = EffectiveThreshold(request->percentDataBad);
  }
  return s;
}

DWORD AggregateSettings::ThresholdStatus(ULONGLONG good, ULONGLONG total) const {
  if (total == 0) return OPCUA_BAD_NO_DATA;
  // Exact integer comparison: durations in 100 ns times 100 overflow 64 bits.
  using U128 = unsigned __int128;
  const U128 t = total;
  if (U128(good) * 100 >= U128(percentDataGood) * t) return OPCUA_GOOD;
  if (U128(total - good) * 100 >= U128(percentDataBad) * t) return OPCUA_BAD;
  return kAggUncertainDataSubNormal;
}

// ---- Intervals -------------------------------------------------------------------------

HRESULT IntervalPlan::Make(ULONGLONG start, ULONGLONG end, double periodMs, IntervalPlan* plan) {
  if (!plan || end < start || std::isnan(periodMs)) return E_INVALIDARG;
  *plan = IntervalPlan();
  plan->start = start;
  plan->end = end;
  const ULONGLONG range = end - start;
  if (periodMs <= 0) {
    plan->step = range ? range : 1;
    plan->count = range ? 1 : 0;
    return S_OK;
  }
  const double ticks = std::floor(periodMs * kTicksPerMs + 0.5);
  if (ticks < 1) return E_INVALIDARG;
  // Anything longer than the range is one (partial) interval; cap before converting so a
  // huge period cannot overflow.
  plan->step = ticks >= 9.0e18 ? ULONGLONG(9000000000000000000ull) : static_cast<ULONGLONG>(ticks);
  const ULONGLONG count = range / plan->step + (range % plan->step ? 1 : 0);
  if (count > kMaxIntervals) return E_INVALIDARG;
  plan->count = static_cast<size_t>(count);
  return S_OK;
}

ULONGLONG IntervalPlan::IntervalEnd(size_t k) const {
  const ULONGLONG ts = IntervalStart(k);
  return end - ts > step ? ts + step : end;
}

// ---- Accumulator -----------------------------------------------------------------------

HRESULT CRawAccumulator::Result(AggregateId id, ULONGLONG ts, DWORD extraBits, HistoryValue* out) const {
  out->timestamp = U64ToFileTime(ts);
  out->quality = OPCUA_BAD_NO_DATA;
  const DWORD calculated = kAggInfoDataValue | kAggOriginCalculated | extraBits;
  if (id == AGG_COUNT) {
    if (total == 0) return S_OK;
    SetInt(&out->value, static_cast<LONG>(std::min<ULONGLONG>(good, 0x7FFFFFFF)));
    out->quality = settings_.ThresholdStatus(good, total) | calculated;
    return S_OK;
  }
  if (id != AGG_MIN && id != AGG_MAX && id != AGG_AVG && id != AGG_DELTA && id != AGG_RANGE) return E_INVALIDARG;
  if (usable == 0) return S_OK;
  const DWORD severity = settings_.ThresholdStatus(usable, total);
  if (id == AGG_MIN || id == AGG_MAX) {
    const AggSample& extreme = id == AGG_MIN ? min : max;
    AggSampleToVariant(extreme, &out->value);
    out->timestamp = U64ToFileTime(extreme.time);
    out->quality = severity | kAggInfoDataValue | kAggOriginRaw | extraBits;
    return S_OK;
  }
  double v = 0;
  if (id == AGG_AVG) v = sum / static_cast<double>(usable);
  if (id == AGG_DELTA) v = lastValue - firstValue;
  if (id == AGG_RANGE) v = maxValue - minValue;
  SetDouble(&out->value, v);
  out->quality = severity | calculated;
  return S_OK;
}

// ---- Sources ---------------------------------------------------------------------------

bool FromStoredBits(VARTYPE vt, uint64_t bits, AggSample* s) {
  s->vt = vt;
  s->numeric = true;
  switch (vt) {
    case VT_R8:
    case VT_R4:  // held as the double of the float
      std::memcpy(&s->real, &bits, sizeof(double));
      s->numeric = !std::isnan(s->real);
      return true;
    case VT_BOOL: s->integer = bits != 0 ? 1 : 0; return true;
    case VT_I1: s->integer = static_cast<int8_t>(bits); return true;
    case VT_I2: s->integer = static_cast<int16_t>(bits); return true;
    case VT_I4: s->integer = static_cast<int32_t>(bits); return true;
    case VT_I8: s->integer = static_cast<int64_t>(bits); return true;
    case VT_UI1: s->uinteger = static_cast<uint8_t>(bits); return true;
    case VT_UI2: s->uinteger = static_cast<uint16_t>(bits); return true;
    case VT_UI4: s->uinteger = static_cast<uint32_t>(bits); return true;
    case VT_UI8: s->uinteger = bits; return true;
    default: return false;
  }
}

bool AggSampleRun::AllReal() const {
  return std::all_of(samples, samples + count, [](const AggSample& s) { return s.vt == VT_R8; });
}

// ---- Calculator ------------------------------------------------------------------------

template <class Source>
CAggregatesCalculator<Source>::CAggregatesCalculator(const Source& samples, const AggregateSettings& settings,
                                                     bool rawLast, const AggregateId* planned, ULONG plannedCount)
    : src_(samples), settings_(settings), rawLast_(rawLast) {
  for (ULONG i = 0; planned && i < plannedCount; ++i) planned_ |= GroupsOf(planned[i]);
  real_ = src_.AllReal();
}

template <class Source>
unsigned CAggregatesCalculator<Source>::GroupsOf(AggregateId id) {
  switch (id) {
    case AGG_MIN: case AGG_MAX: case AGG_AVG: case AGG_DELTA: case AGG_RANGE: case AGG_COUNT:
      return kWalkRaw;
    case AGG_TIME_AVG: case AGG_TOTAL: case AGG_TOTAL_AVG: case AGG_INTERPOLATIVE:
      return kWalkLine;
    case AGG_NUMBER_OF_TRANSITIONS:
      return kWalkState | kWalkRaw;  // its status counts the usable samples
    case AGG_WORST_QUALITY:
      return kWalkState;
    case AGG_DURATION_IN_STATE_0: case AGG_DURATION_IN_STATE_1: case AGG_DURATION_GOOD: case AGG_DURATION_BAD:
    case AGG_PERCENT_GOOD: case AGG_PERCENT_BAD:
      return kWalkRegions;
    default:
      return 0;  // LAST needs the interval's bounds only
  }
}

template <class Source>
size_t CAggregatesCalculator<Source>::FirstAtOrAfter(ULONGLONG t) const {
  size_t lo = 0, hi = src_.Size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (src_.Time(mid) < t)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

template <class Source>
size_t CAggregatesCalculator<Source>::LastAtOrBefore(ULONGLONG t) const {
  const size_t after = t == ~0ull ? src_.Size() : FirstAtOrAfter(t + 1);
  return after == 0 ? kNone : after - 1;
}

template <class Source>
size_t CAggregatesCalculator<Source>::LastUsableBefore(size_t i) const {
  if (usableBeforeAt_ == i) return usableBefore_;
  size_t j = i;
  while (j > 0 && !Usable(j - 1)) --j;
  usableBeforeAt_ = i;
  usableBefore_ = j == 0 ? kNone : j - 1;
  return usableBefore_;
}

template <class Source>
size_t CAggregatesCalculator<Source>::FirstUsableFrom(size_t i) const {
  // Nothing usable lies between where the last search started and what it found.
  if (usableScanFrom_ != kNone && usableScanFrom_ <= i && (usableFound_ == kNone || i <= usableFound_))
    return usableFound_;
  size_t j = i;
  const size_t n = src_.Size();
  while (j < n && !Usable(j)) ++j;
  usableScanFrom_ = i;
  usableFound_ = j < n ? j : kNone;
  return usableFound_;
}

template <class Source>
template <unsigned Groups, bool Real>
void CAggregatesCalculator<Source>::WalkSamples(Walk& w) const {
  constexpr bool raw = (Groups & kWalkRaw) != 0, line = (Groups & kWalkLine) != 0,
                 state = (Groups & kWalkState) != 0;
  const Source& src = src_;
  const size_t a = w.a, b = w.b;
  const ULONGLONG x = w.ts, y = w.te;
  const AggregateSettings settings = settings_;
  auto number = [&src](size_t i) { return Real ? src.Real(i) : src.Number(i); };
  // CRawAccumulator's sums, with the extremes kept by index rather than copied at every
  // new one.
  ULONGLONG good = 0, usable = 0;
  double sum = 0, minValue = 0, maxValue = 0, firstValue = 0, lastValue = 0;
  size_t minAt = kNone, maxAt = kNone;
  // The last usable sample so far (the line's point, the state before the interval),
  // with its time and value at hand.
  size_t j = line || state ? LastUsableBefore(a) : kNone;
  ULONGLONG jt = j != kNone ? src.Time(j) : 0;
  double jv = j != kNone ? number(j) : 0;
  int st = j != kNone ? jv != 0 : -1;
  LONG transitions = 0;
  DWORD worst = a < b ? src.Quality(a) : 0;
  double area = 0;
  ULONGLONG usableTime = 0, cur = x, lineFrom = 0;
  // Takes sample i into every sum; true when it is usable, with its number in *v.
  auto take = [&](size_t i, double* v) {
    const DWORD quality = src.Quality(i);
    if (state && SeverityOf(quality) > SeverityOf(worst)) worst = quality;
    if (!settings.IsGood(quality)) return false;
    ++good;
    if (Real) {
      *v = src.Real(i);
      if (std::isnan(*v)) return false;
    } else {
      if (!src.Numeric(i)) return false;
      *v = src.Number(i);
    }
    if (raw) {
      if (usable == 0) {
        minAt = maxAt = i;
        minValue = maxValue = firstValue = *v;
      } else {
        if (*v < minValue) minAt = i, minValue = *v;
        if (*v > maxValue) maxAt = i, maxValue = *v;
      }
      lastValue = *v;
      sum += *v;
    }
    ++usable;
    if (state) {
      if (st >= 0 && (*v != 0) != st) ++transitions;
      st = *v != 0;
    }
    return true;
  };
  size_t i = a;
  if (line) {
    // Samples at the start itself: the line's point there is the last usable one.
    for (double v = 0; i < b && src.Time(i) <= x; ++i) {
      if (!take(i, &v)) continue;
      j = i, jt = x, jv = v;
    }
    w.at = i == 0 ? kNone : i - 1;
    w.point = j;
    if (j != kNone) {
      lineFrom = x;
      // A point before the interval governs up to the next sample, which may lie inside.
      const ULONGLONG to = std::min(y, j + 1 < src.Size() ? src.Time(j + 1) : kForever);
      if (to > x) usableTime += to - x;
    }
  }
  // Each sample after the start governs up to the next sample of any kind, so together
  // they govern [their first time, y): usable samples govern that less what the others
  // govern, which is all a walk of good samples needs to add.
  const size_t firstAfterStart = i;
  ULONGLONG notUsableTime = 0;
  auto notUsable = [&](size_t i) {
    if (line) notUsableTime += (i + 1 < b ? src.Time(i + 1) : y) - src.Time(i);
  };
  size_t firstInside = kNone;
  // Up to the first usable sample inside: the line may start there, or its first
  // segment start between two points.
  for (double v = 0; i < b && (!line || firstInside == kNone); ++i) {
    if (!take(i, &v)) {
      notUsable(i);
      continue;
    }
    const ULONGLONG t = src.Time(i);
    if (line) {
      firstInside = i;
      if (j == kNone) {
        cur = lineFrom = t;  // the line starts at its first usable sample
      } else if (t > cur) {
        const double v0 = LineValueAt(j, i, cur), v1 = LineValueAt(j, i, t);
        area += (v0 + v1) / 2.0 * static_cast<double>(t - cur);
        cur = t;
      }
    }
    j = i, jt = t, jv = v;
  }
  if (line) {
    // From point to point: the line sits at its last point (cur == jt), and
    // LineValueAt's quotients are exactly 0 and 1.
    const bool stepped = settings.stepped;
    for (double v = 0; i < b; ++i) {
      if (!take(i, &v)) {
        notUsable(i);
        continue;
      }
      const ULONGLONG t = src.Time(i);
      if (t > jt) {
        double v0 = jv, v1 = jv;
        if (!stepped) {
          const double d = v - jv;
          v0 = jv + d * 0.0;
          v1 = jv + d * 1.0;
        }
        area += (v0 + v1) / 2.0 * static_cast<double>(t - jt);
      }
      j = i, jt = t, jv = v;
    }
    if (j != kNone) {
      if (jt > cur) cur = jt;
      // The last point's segment to the end, sloped towards the first usable sample
      // after the interval; the last usable value holds when there is none.
      const size_t k = stepped ? kNone : FirstUsableFrom(b);
      const double v0 = LineValueAt(j, k, cur), v1 = LineValueAt(j, k, y);
      area += (v0 + v1) / 2.0 * static_cast<double>(y - cur);
      w.covered = y - lineFrom;  // the segments are contiguous from where the line starts
    }
    if (w.point != kNone) w.afterPoint = firstInside != kNone ? firstInside : FirstUsableFrom(b);
    if (firstAfterStart < b) usableTime += y - src.Time(firstAfterStart) - notUsableTime;
    w.area = area;
    w.usableTime = usableTime;
  }
  if (raw) {
    CRawAccumulator& acc = w.raw.emplace(settings_);
    acc.total = b - a;
    acc.good = good;
    acc.usable = usable;
    acc.sum = sum;
    if (usable) {
      acc.min = src.Sample(minAt);
      acc.max = src.Sample(maxAt);
      acc.minValue = minValue, acc.maxValue = maxValue;
      acc.firstValue = firstValue, acc.lastValue = lastValue;
    }
  }
  if (state) {
    w.worst = worst;
    w.transitions = transitions;
  }
  if (line || state) {
    usableBeforeAt_ = b;
    usableBefore_ = j;
  }
}

template <class Source>
const typename CAggregatesCalculator<Source>::Walk& CAggregatesCalculator<Source>::WalkOf(ULONGLONG ts, ULONGLONG te,
                                                                                          unsigned groups) const {
  if (!walk_.valid || walk_.ts != ts || walk_.te != te) {
    walk_ = Walk();
    walk_.valid = true;
    walk_.ts = ts;
    walk_.te = te;
    walk_.a = FirstAtOrAfter(ts);
    walk_.b = FirstAtOrAfter(te);
  }
  const unsigned missing = (groups | planned_) & ~walk_.groups;
  switch ((missing & (kWalkRaw | kWalkLine | kWalkState)) | (real_ ? 8u : 0u)) {
#define CORVANE_WALK(G)                             \
  case G: WalkSamples<G, false>(walk_); break;      \
  case G | 8u: WalkSamples<G, true>(walk_); break;
    CORVANE_WALK(1) CORVANE_WALK(2) CORVANE_WALK(3) CORVANE_WALK(4) CORVANE_WALK(5) CORVANE_WALK(6) CORVANE_WALK(7)
#undef CORVANE_WALK
    default: break;
  }
  if (missing & kWalkRegions) {
    ForEachRegion(ts, te, [this](size_t i, ULONGLONG from, ULONGLONG to) {
      if (i == kNone) return;
      if (settings_.IsGood(src_.Quality(i))) walk_.goodTime += to - from;
      if (!Usable(i)) return;
      walk_.usableRegions += to - from;
      if (src_.Number(i) != 0) walk_.nonZeroRegions += to - from;
    });
  }
  walk_.groups |= missing;
  return walk_;
}

template <class Source>
template <class F>
void CAggregatesCalculator<Source>::ForEachRegion(ULONGLONG ts, ULONGLONG te, F&& f) const {
  const size_t n = src_.Size();
  ULONGLONG cur = ts;
  size_t i = LastAtOrBefore(ts);
  if (i == kNone) {
    i = FirstAtOrAfter(ts);
    const ULONGLONG firstTime = i < n ? std::min(te, src_.Time(i)) : te;
    if (firstTime > cur) f(kNone, cur, firstTime);
    cur = firstTime;
  }
  for (; cur < te && i < n; ++i) {
    const ULONGLONG next = i + 1 < n ? std::min(te, std::max(cur, src_.Time(i + 1))) : te;
    if (next > cur) f(i, cur, next);
    cur = next;
  }
}

template <class Source>
HRESULT CAggregatesCalculator<Source>::Compute(AggregateId id, ULONGLONG ts, ULONGLONG te, bool partial,
                                               const VARIANT* lastValue, HistoryValue* out) const {
  if (!out || te <= ts) return E_INVALIDARG;
  out->timestamp = U64ToFileTime(ts);
  out->quality = OPCUA_BAD_NO_DATA;
  const DWORD part = partial ? DWORD(kAggPartial) : 0u;
  const DWORD calculated = kAggInfoDataValue | kAggOriginCalculated | part;
  const ULONGLONG length = te - ts;
  if (id >= AGG_COUNT_OF_AGGREGATES) return HIST_E_AGGREGATE_NOT_AVAILABLE;
  const Walk& w = WalkOf(ts, te, GroupsOf(id));

  switch (id) {
    case AGG_MIN:
    case AGG_MAX:
    case AGG_AVG:
    case AGG_DELTA:
    case AGG_RANGE:
    case AGG_COUNT:
      return w.raw->Result(id, ts, part, out);

    case AGG_NUMBER_OF_TRANSITIONS:
      if (w.raw->usable == 0) return S_OK;
      SetInt(&out->value, w.transitions);
      out->quality = settings_.ThresholdStatus(w.raw->usable, w.b - w.a) | calculated;
      return S_OK;

    case AGG_LAST: {
      if (w.a == w.b) return S_OK;
      AggSample s = src_.Sample(w.b - 1);
      HRESULT hr = S_OK;
      if (lastValue) {
        hr = VariantCopy(&out->value, const_cast<VARIANT*>(lastValue));
      } else {
        s.numeric = s.numeric || rawLast_;  // a NaN is still the raw value
        AggSampleToVariant(s, &out->value);
      }
      if (FAILED(hr)) return hr;
      out->timestamp = U64ToFileTime(s.time);
      out->quality = s.quality;
      return S_OK;
    }

    case AGG_WORST_QUALITY:
      if (w.a == w.b) return S_OK;
      out->value.vt = VT_UI4;
      out->value.ulVal = w.worst;
      out->quality = w.worst;
      return S_OK;

    case AGG_TIME_AVG:
    case AGG_TOTAL:
    case AGG_TOTAL_AVG: {
      if (w.covered == 0) return S_OK;
      double v = 0;
      if (id == AGG_TIME_AVG) v = w.area / static_cast<double>(w.covered);
      if (id == AGG_TOTAL) v = w.area / kTicksPerSecond;
      if (id == AGG_TOTAL_AVG) v = w.area / static_cast<double>(length);
      SetDouble(&out->value, v);
      out->quality = settings_.ThresholdStatus(w.usableTime, length) | calculated;
      return S_OK;
    }

    case AGG_INTERPOLATIVE: {
      if (w.at == kNone || w.point == kNone) return S_OK;
      if (src_.Time(w.point) == ts) {
        SetDouble(&out->value, src_.Number(w.point));
        out->quality = OPCUA_GOOD | kAggInfoDataValue | kAggOriginRaw | part;
        return S_OK;
      }
      // Non-usable samples skipped between the bounds make the value uncertain, and so
      // does a sloped value with nothing after it to slope towards.
      const bool uncertain = settings_.stepped ? w.at != w.point : w.afterPoint != w.point + 1;
      SetDouble(&out->value, LineValueAt(w.point, w.afterPoint, ts));
      out->quality = (uncertain ? kAggUncertainDataSubNormal : OPCUA_GOOD) | kAggInfoDataValue |
                     kAggOriginInterpolated | part;
      return S_OK;
    }

    case AGG_DURATION_IN_STATE_0:
    case AGG_DURATION_IN_STATE_1: {
      if (w.usableRegions == 0) return S_OK;
      const ULONGLONG inState =
          id == AGG_DURATION_IN_STATE_1 ? w.nonZeroRegions : w.usableRegions - w.nonZeroRegions;
      SetDouble(&out->value, static_cast<double>(inState) / kTicksPerMs);
      out->quality = settings_.ThresholdStatus(w.usableRegions, length) | calculated;
      return S_OK;
    }

    case AGG_DURATION_GOOD:
    case AGG_DURATION_BAD:
    case AGG_PERCENT_GOOD:
    case AGG_PERCENT_BAD: {
      if (w.b == 0) return S_OK;  // no sample before the interval's end
      const ULONGLONG badTime = length - w.goodTime;
      double v = 0;
      if (id == AGG_DURATION_GOOD) v = static_cast<double>(w.goodTime) / kTicksPerMs;
      if (id == AGG_DURATION_BAD) v = static_cast<double>(badTime) / kTicksPerMs;
      if (id == AGG_PERCENT_GOOD) v = static_cast<double>(w.goodTime) * 100.0 / static_cast<double>(length);
      if (id == AGG_PERCENT_BAD) v = static_cast<double>(badTime) * 100.0 / static_cast<double>(length);
      SetDouble(&out->value, v);
      out->quality = OPCUA_GOOD | calculated;
      return S_OK;
    }

    default:
      return HIST_E_AGGREGATE_NOT_AVAILABLE;
  }
}

template class CAggregatesCalculator<AggSampleRun>;
template class CAggregatesCalculator<StoredColumns>;

}  // namespace corvane::historian
