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

// ---- Calculator ------------------------------------------------------------------------

CAggregatesCalculator::CAggregatesCalculator(std::vector<AggSample> samples, const AggregateSettings& settings)
    : CAggregatesCalculator(Buffers{std::move(samples), {}, {}}, settings) {}

CAggregatesCalculator::CAggregatesCalculator(Buffers buffers, const AggregateSettings& settings)
    : samples_(std::move(buffers.samples)),
      usable_(std::move(buffers.usable)),
      line_(std::move(buffers.line)),
      settings_(settings) {
  const size_t n = samples_.size();
  usable_.resize(n);
  line_.resize(n);  // at most; every sample is written, only usable ones are kept
  size_t count = 0;
  for (size_t i = 0; i < n; ++i) {
    const AggSample& s = samples_[i];
    const bool usable = s.numeric && settings_.IsGood(s.quality);
    usable_[i] = usable;
    line_[count] = {s.time, s.Number(), i, i + 1 < n ? samples_[i + 1].time : kForever};
    count += usable;
  }
  line_.resize(count);
}

size_t CAggregatesCalculator::FirstAtOrAfter(ULONGLONG t) const {
  return static_cast<size_t>(
      std::lower_bound(samples_.begin(), samples_.end(), t,
                       [](const AggSample& s, ULONGLONG value) { return s.time < value; }) -
      samples_.begin());
}

size_t CAggregatesCalculator::LastAtOrBefore(ULONGLONG t) const {
  const size_t after = static_cast<size_t>(
      std::upper_bound(samples_.begin(), samples_.end(), t,
                       [](ULONGLONG value, const AggSample& s) { return value < s.time; }) -
      samples_.begin());
  return after == 0 ? kNone : after - 1;
}

size_t CAggregatesCalculator::LinePointAtOrBefore(ULONGLONG t) const {
  const size_t after = static_cast<size_t>(
      std::upper_bound(line_.begin(), line_.end(), t,
                       [](ULONGLONG value, const LinePoint& p) { return value < p.time; }) -
      line_.begin());
  return after == 0 ? kNone : after - 1;
}

size_t CAggregatesCalculator::LinePointBefore(ULONGLONG t) const {
  const size_t at = static_cast<size_t>(
      std::lower_bound(line_.begin(), line_.end(), t,
                       [](const LinePoint& p, ULONGLONG value) { return p.time < value; }) -
      line_.begin());
  return at == 0 ? kNone : at - 1;
}

void CAggregatesCalculator::Bounds(ULONGLONG ts, ULONGLONG te, size_t* a, size_t* b) const {
  if (!bounded_ || boundsFrom_ != ts || boundsTo_ != te) {
    boundsA_ = FirstAtOrAfter(ts);
    boundsB_ = FirstAtOrAfter(te);
    boundsFrom_ = ts;
    boundsTo_ = te;
    bounded_ = true;
  }
  *a = boundsA_;
  *b = boundsB_;
}

const CAggregatesCalculator::Integral& CAggregatesCalculator::IntegralOf(ULONGLONG x, ULONGLONG y) const {
  if (integrated_ && integratedFrom_ == x && integratedTo_ == y) return integral_;
  Integral r;
  const size_t m = line_.size();
  // The time that usable samples govern, from the line alone: each point governs up to
  // the next sample of any kind, and a point before x governs nothing after x unless it
  // is the last sample there.
  size_t first = LinePointAtOrBefore(x);
  for (size_t q = first == kNone ? 0 : first; q < m && line_[q].time < y; ++q) {
    const ULONGLONG from = std::max(x, line_[q].time), to = std::min(y, line_[q].until);
    if (to > from) r.usableTime += to - from;
  }
  if (x < y && m > 0) {
    size_t j = LinePointAtOrBefore(x);
    ULONGLONG cur = x;
    bool any = true;
    if (j == kNone) {
      // The line starts at the first usable sample; what lies before it has no value.
      j = 0;
      cur = line_[0].time;
      any = cur < y;
    }
    while (any && cur < y) {
      const size_t k = j + 1;
      if (k < m && line_[k].time < y && cur == line_[j].time) {
        // The line is at a point: whole segments from point to point follow up to the
        // last point before y, the bulk of an interval. The line's values at their ends
        // are LineValueAt's with a quotient of exactly 0 and 1.
        const bool stepped = settings_.stepped;
        double area = r.area;
        ULONGLONG covered = r.covered;
        double pv = line_[j].value;
        size_t q = k;
        for (; q < m && line_[q].time < y; ++q) {
          const ULONGLONG qt = line_[q].time;
          const double qv = line_[q].value;
          if (qt > cur) {
            double v0 = pv, v1 = pv;
            if (!stepped) {
              const double d = qv - pv;
              v0 = pv + d * 0.0;
              v1 = pv + d * 1.0;
            }
            area += (v0 + v1) / 2.0 * static_cast<double>(qt - cur);
            covered += qt - cur;
            cur = qt;
          }
          pv = qv;
        }
        r.area = area;
        r.covered = covered;
        j = q - 1;
        continue;
      }
      const ULONGLONG segEnd = k < m ? std::min(y, line_[k].time) : y;
      if (segEnd > cur) {
        const double v0 = LineValueAt(j, cur);
        const double v1 = LineValueAt(j, segEnd);
        r.area += (v0 + v1) / 2.0 * static_cast<double>(segEnd - cur);
        r.covered += segEnd - cur;
        cur = segEnd;
      }
      if (k >= m) break;  // the last usable value holds to the end
      j = k;
    }
  }
  integral_ = r;
  integrated_ = true;
  integratedFrom_ = x;
  integratedTo_ = y;
  return integral_;
}

template <class F>
void CAggregatesCalculator::ForEachRegion(ULONGLONG ts, ULONGLONG te, F&& f) const {
  const size_t n = samples_.size();
  ULONGLONG cur = ts;
  size_t i = LastAtOrBefore(ts);
  if (i == kNone) {
    i = FirstAtOrAfter(ts);
    const ULONGLONG firstTime = i < n ? std::min(te, samples_[i].time) : te;
    if (firstTime > cur) f(kNone, cur, firstTime);
    cur = firstTime;
  }
  for (; cur < te && i < n; ++i) {
    const ULONGLONG next = i + 1 < n ? std::min(te, std::max(cur, samples_[i + 1].time)) : te;
    if (next > cur) f(i, cur, next);
    cur = next;
  }
}

HRESULT CAggregatesCalculator::Compute(AggregateId id, ULONGLONG ts, ULONGLONG te, bool partial,
                                       const VARIANT* lastValue, HistoryValue* out) const {
  if (!out || te <= ts) return E_INVALIDARG;
  out->timestamp = U64ToFileTime(ts);
  out->quality = OPCUA_BAD_NO_DATA;
  const DWORD part = partial ? DWORD(kAggPartial) : 0u;
  const DWORD calculated = kAggInfoDataValue | kAggOriginCalculated | part;
  const ULONGLONG length = te - ts;
  size_t a = 0, b = 0;
  Bounds(ts, te, &a, &b);

  switch (id) {
    case AGG_MIN:
    case AGG_MAX:
    case AGG_AVG:
    case AGG_DELTA:
    case AGG_RANGE:
    case AGG_COUNT: {
      // The six share one pass: a read asks for several of them over the same interval.
      if (!accumulated_ || accumulatedFrom_ != ts || accumulatedTo_ != te) {
        accumulated_.emplace(settings_);
        for (size_t i = a; i < b; ++i) accumulated_->Add(samples_[i]);
        accumulatedFrom_ = ts;
        accumulatedTo_ = te;
      }
      return accumulated_->Result(id, ts, part, out);
    }

    case AGG_NUMBER_OF_TRANSITIONS: {
      ULONGLONG usable = 0;
      LONG transitions = 0;
      int state = -1;
      // Samples before a are exactly those before ts.
      size_t q = LinePointBefore(ts);
      if (q != kNone) state = line_[q].value != 0;
      for (q = q == kNone ? 0 : q + 1; q < line_.size() && line_[q].index < b; ++q) {
        ++usable;
        const int s = line_[q].value != 0;
        if (state >= 0 && s != state) ++transitions;
        state = s;
      }
      if (usable == 0) return S_OK;
      SetInt(&out->value, transitions);
      out->quality = settings_.ThresholdStatus(usable, b - a) | calculated;
      return S_OK;
    }

    case AGG_LAST: {
      if (a == b) return S_OK;
      const AggSample& s = samples_[b - 1];
      HRESULT hr = S_OK;
      if (lastValue) {
        hr = VariantCopy(&out->value, const_cast<VARIANT*>(lastValue));
      } else {
        AggSampleToVariant(s, &out->value);
      }
      if (FAILED(hr)) return hr;
      out->timestamp = U64ToFileTime(s.time);
      out->quality = s.quality;
      return S_OK;
    }

    case AGG_WORST_QUALITY: {
      if (a == b) return S_OK;
      DWORD worst = samples_[a].quality;
      for (size_t i = a + 1; i < b; ++i) {
        if (SeverityOf(samples_[i].quality) > SeverityOf(worst)) worst = samples_[i].quality;
      }
      out->value.vt = VT_UI4;
      out->value.ulVal = worst;
      out->quality = worst;
      return S_OK;
    }

    case AGG_TIME_AVG:
    case AGG_TOTAL:
    case AGG_TOTAL_AVG: {
      const Integral& integral = IntegralOf(ts, te);
      if (integral.covered == 0) return S_OK;
      double v = 0;
      if (id == AGG_TIME_AVG) v = integral.area / static_cast<double>(integral.covered);
      if (id == AGG_TOTAL) v = integral.area / kTicksPerSecond;
      if (id == AGG_TOTAL_AVG) v = integral.area / static_cast<double>(length);
      SetDouble(&out->value, v);
      out->quality = settings_.ThresholdStatus(integral.usableTime, length) | calculated;
      return S_OK;
    }

    case AGG_INTERPOLATIVE: {
      const size_t at = LastAtOrBefore(ts);
      const size_t q = LinePointAtOrBefore(ts);
      if (at == kNone || q == kNone) return S_OK;
      const size_t p = line_[q].index;
      if (line_[q].time == ts) {
        SetDouble(&out->value, line_[q].value);
        out->quality = OPCUA_GOOD | kAggInfoDataValue | kAggOriginRaw | part;
        return S_OK;
      }
      const bool haveNext = q + 1 < line_.size();
      const size_t n = haveNext ? line_[q + 1].index : samples_.size();
      // Non-usable samples skipped between the bounds make the value uncertain, and so
      // does a sloped value with nothing after it to slope towards.
      bool uncertain;
      if (settings_.stepped) {
        uncertain = at != p;
      } else {
        uncertain = !haveNext || n != p + 1;
      }
      SetDouble(&out->value, LineValueAt(q, ts));
      out->quality = (uncertain ? kAggUncertainDataSubNormal : OPCUA_GOOD) | kAggInfoDataValue |
                     kAggOriginInterpolated | part;
      return S_OK;
    }

    case AGG_DURATION_IN_STATE_0:
    case AGG_DURATION_IN_STATE_1: {
      ULONGLONG usableTime = 0;
      ULONGLONG inState = 0;
      const bool wantNonZero = id == AGG_DURATION_IN_STATE_1;
      ForEachRegion(ts, te, [&](size_t i, ULONGLONG from, ULONGLONG to) {
        if (i == kNone || !Usable(i)) return;
        usableTime += to - from;
        if ((samples_[i].Number() != 0) == wantNonZero) inState += to - from;
      });
      if (usableTime == 0) return S_OK;
      SetDouble(&out->value, static_cast<double>(inState) / kTicksPerMs);
      out->quality = settings_.ThresholdStatus(usableTime, length) | calculated;
      return S_OK;
    }

    case AGG_DURATION_GOOD:
    case AGG_DURATION_BAD:
    case AGG_PERCENT_GOOD:
    case AGG_PERCENT_BAD: {
      if (LastAtOrBefore(te - 1) == kNone) return S_OK;
      ULONGLONG goodTime = 0;
      ForEachRegion(ts, te, [&](size_t i, ULONGLONG from, ULONGLONG to) {
        if (i != kNone && settings_.IsGood(samples_[i].quality)) goodTime += to - from;
      });
      const ULONGLONG badTime = length - goodTime;
      double v = 0;
      if (id == AGG_DURATION_GOOD) v = static_cast<double>(goodTime) / kTicksPerMs;
      if (id == AGG_DURATION_BAD) v = static_cast<double>(badTime) / kTicksPerMs;
      if (id == AGG_PERCENT_GOOD) v = static_cast<double>(goodTime) * 100.0 / static_cast<double>(length);
      if (id == AGG_PERCENT_BAD) v = static_cast<double>(badTime) * 100.0 / static_cast<double>(length);
      SetDouble(&out->value, v);
      out->quality = OPCUA_GOOD | calculated;
      return S_OK;
    }

    default:
      return HIST_E_AGGREGATE_NOT_AVAILABLE;
  }
}

}  // namespace corvane::historian
