#include "historian/DemoPlant.h"

#include <cmath>

namespace corvane::historian {

namespace {

constexpr ULONGLONG kTicksPerSecond = 10000000ull;
constexpr double kPi = 3.14159265358979323846;

// Status words the plant reports besides good.
constexpr DWORD kUncertainSensorNotAccurate = 0x40930000u;
constexpr DWORD kUncertainEngineeringUnitsExceeded = 0x40940000u;
constexpr DWORD kUncertainInitialValue = 0x40920000u;
constexpr DWORD kBadSensorFailure = 0x808C0000u;
constexpr DWORD kBadCommunicationError = 0x80050000u;

// SplitMix64: small, fast and the same on every compiler, unlike the distributions of
// <random>, whose output the standard leaves to each library.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double Uniform() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }  // [0, 1)
  bool Chance(double p) { return Uniform() < p; }
  int Below(int n) { return static_cast<int>(Next() % static_cast<uint64_t>(n)); }
  double Gauss(double sigma) {
    double u1 = Uniform(), u2 = Uniform();
    if (u1 < 1e-300) u1 = 1e-300;
    return sigma * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
  }

 private:
  uint64_t state_;
};

enum class Signal {
  Sine,        // base + amplitude * sin(2 pi t / cycle) + noise
  Sawtooth,    // fills over `cycle`, drains quickly
  Steps,       // holds a level for a random while, then jumps to another
  OnOff,       // boolean with random dwell times around `cycle`
  Counter,     // increases by a random amount each sample
  States,      // one of a few integer states
  TextStates,  // one of a few words
  Shift,       // operator of the 8-hour shift
  Batch,       // batch label that changes every `cycle`
};

// What happens to a tag once in its history, besides its signal.
enum class Event {
  None,
  Outage,         // the compressor is off for two hours: no samples, then an uncertain one
  SensorFailure,  // half an hour of bad samples
  AtLimit,        // twenty minutes of the sensor at its limit: uncertain
  CommErrors,     // now and then a sample with a communication error
};

struct TagRecipe {
  const char16_t* name;
  const char16_t* description;
  VARTYPE vt;
  bool stepped;
  unsigned period;  // seconds between samples
  Signal signal;
  double base, amplitude, cycleHours, noise;
  DWORD access;
  Event event;
};

constexpr DWORD kRW = kTagAccessRead | kTagAccessWrite;

const TagRecipe kRecipes[] = {
    {u"Reactor1.Temperature", u"Reactor 1 core temperature (degC)", VT_R8, false, 10, Signal::Sine, 180, 6, 6, 0.3, kRW, Event::None},
    {u"Reactor1.Pressure", u"Reactor 1 pressure (bar)", VT_R8, false, 10, Signal::Sine, 12, 0.8, 1.5, 0.05, kRW, Event::AtLimit},
    {u"Reactor1.Level", u"Reactor 1 fill level (%)", VT_R4, false, 30, Signal::Sine, 65, 20, 11, 0.5, kRW, Event::None},
    {u"Reactor1.AgitatorOn", u"Reactor 1 agitator running", VT_BOOL, true, 60, Signal::OnOff, 0, 0, 3, 0, kRW, Event::None},
    {u"Reactor1.Batch", u"Reactor 1 batch label", VT_BSTR, true, 60, Signal::Batch, 0, 0, 8, 0, kRW, Event::None},
    {u"Pump1.Flow", u"Pump 1 flow (m3/h)", VT_R8, false, 10, Signal::Steps, 42, 12, 2, 0.4, kRW, Event::CommErrors},
    {u"Pump1.Running", u"Pump 1 running", VT_BOOL, true, 60, Signal::OnOff, 0, 0, 5, 0, kRW, Event::None},
    {u"Pump1.Starts", u"Pump 1 start counter", VT_UI4, true, 60, Signal::Counter, 1200, 0.03, 0, 0, kRW, Event::None},
    {u"Pump1.Speed", u"Pump 1 speed (rpm)", VT_UI2, true, 30, Signal::Steps, 1450, 600, 1, 0, kRW, Event::None},
    {u"Valve1.Position", u"Valve 1 opening (%)", VT_UI1, true, 30, Signal::Steps, 50, 50, 0.4, 0, kRW, Event::None},
    {u"Valve1.Mode", u"Valve 1 mode (-1 fault, 0 manual, 1 auto)", VT_I1, true, 60, Signal::States, -1, 3, 6, 0, kRW, Event::None},
    {u"Tank1.Level", u"Tank 1 level (%)", VT_R4, false, 30, Signal::Sawtooth, 10, 88, 4, 0.3, kRW, Event::None},
    {u"Tank1.HighAlarm", u"Tank 1 high level alarm", VT_BOOL, true, 60, Signal::OnOff, 0, 0, 12, 0, kRW, Event::None},
    {u"Boiler.SteamFlow", u"Boiler steam flow (t/h)", VT_R8, false, 10, Signal::Sine, 25, 4, 24, 0.6, kRW, Event::None},
    {u"Boiler.Stage", u"Boiler firing stage (0-4)", VT_I2, true, 60, Signal::States, 0, 5, 2, 0, kRW, Event::None},
    {u"Conveyor.ItemCount", u"Items carried by the conveyor", VT_UI8, true, 10, Signal::Counter, 5000000000.0, 6, 0, 0, kRW, Event::None},
    {u"Conveyor.Speed", u"Conveyor speed (mm/s)", VT_UI2, true, 30, Signal::Steps, 400, 150, 3, 0, kRW, Event::None},
    {u"Line1.EnergyWh", u"Line 1 energy meter (Wh)", VT_I8, true, 60, Signal::Counter, 81234567, 2400, 0, 0, kRW, Event::None},
    {u"Line1.State", u"Line 1 state", VT_BSTR, true, 60, Signal::TextStates, 0, 0, 3, 0, kRW, Event::None},
    {u"Line1.Operator", u"Line 1 operator on shift", VT_BSTR, true, 60, Signal::Shift, 0, 0, 8, 0, kRW, Event::None},
    {u"Compressor.Vibration", u"Compressor vibration (mm/s)", VT_R4, false, 10, Signal::Sine, 2.2, 0.4, 0.5, 0.25, kRW, Event::Outage},
    {u"Compressor.Rpm", u"Compressor speed (rpm)", VT_I4, true, 30, Signal::Steps, 2950, 80, 1.5, 0, kRW, Event::Outage},
    {u"Ambient.Temperature", u"Outdoor temperature (degC)", VT_R8, false, 60, Signal::Sine, 14, 7, 24, 0.2, kRW, Event::SensorFailure},
    {u"Lab.Density", u"Lab density of product (kg/m3), read only", VT_R8, false, 60, Signal::Steps, 1012, 6, 4, 0.05,
     kTagAccessRead, Event::None},
};

WString Text(const char16_t* s) {
  WString out;
  for (; *s; ++s) out.push_back(static_cast<OLECHAR>(*s));
  return out;
}

WString Ascii(const char* s) {
  WString out;
  for (; *s; ++s) out.push_back(static_cast<OLECHAR>(*s));
  return out;
}

// A stretch of time [from, to) in which an event holds.
struct Window {
  ULONGLONG from = 0, to = 0;
  bool Contains(ULONGLONG t) const { return t >= from && t < to; }
};

// Places a window of `seconds` somewhere in the middle 80 % of [oldest, newest].
Window PlaceWindow(Rng& rng, ULONGLONG oldest, ULONGLONG newest, unsigned seconds) {
  Window w;
  const double at = 0.1 + 0.8 * rng.Uniform();
  w.from = oldest + static_cast<ULONGLONG>(at * static_cast<double>(newest - oldest));
  w.to = w.from + seconds * kTicksPerSecond;
  return w;
}

// Generates the series of one tag into `out`.
void Generate(const TagRecipe& recipe, size_t tagIndex, const DemoPlantOptions& options, std::vector<SampleInput>& out) {
  Rng rng(options.seed * 0x100000001B3ull + tagIndex * 0x9E3779B97F4A7C15ull + 1);
  const ULONGLONG period = recipe.period * kTicksPerSecond;
  // Samples fall on multiples of the period within [now - days, now].
  const ULONGLONG newest = options.now - options.now % period;
  const ULONGLONG earliest = options.now - static_cast<ULONGLONG>(options.days) * 86400 * kTicksPerSecond;
  const size_t count = static_cast<size_t>((newest - earliest) / period) + 1;
  const ULONGLONG oldest = newest - (count - 1) * period;
  const double cycleSamples = recipe.cycleHours * 3600.0 / recipe.period;

  // The outage is placed by the seed alone, so that every tag of the compressor shares it.
  Rng plantEvents(options.seed ^ 0xC0FFEEull);
  const ULONGLONG plantOldest = options.now - static_cast<ULONGLONG>(options.days) * 86400 * kTicksPerSecond;
  Window window;
  switch (recipe.event) {
    case Event::Outage: window = PlaceWindow(plantEvents, plantOldest, options.now, 2 * 3600); break;
    case Event::SensorFailure: window = PlaceWindow(rng, oldest, newest, 1800); break;
    case Event::AtLimit: window = PlaceWindow(rng, oldest, newest, 1200); break;
    default: break;
  }

  out.clear();
  out.reserve(count);
  double level = recipe.base;      // Steps
  double counter = recipe.base;    // Counter
  int state = 0;                 // OnOff, States, TextStates
  size_t nextChange = 0;
  unsigned batch = 1000 + static_cast<unsigned>(rng.Below(9000));
  const double phase = rng.Uniform() * 2 * kPi;
  bool afterGap = false;

  for (size_t k = 0; k < count; ++k) {
    SampleInput s;
    s.time = oldest + k * period;
    if (recipe.event == Event::Outage && window.Contains(s.time)) {
      afterGap = true;
      continue;
    }
    const double hours = static_cast<double>(s.time / kTicksPerSecond % (86400ull * 365)) / 3600.0;
    switch (recipe.signal) {
      case Signal::Sine:
        s.number = recipe.base + recipe.amplitude * std::sin(2 * kPi * hours / recipe.cycleHours + phase) + rng.Gauss(recipe.noise);
        break;
      case Signal::Sawtooth: {
        double x = std::fmod(static_cast<double>(k) / cycleSamples + phase, 1.0);
        double shape = x < 0.85 ? x / 0.85 : (1.0 - x) / 0.15;
        s.number = recipe.base + recipe.amplitude * shape + rng.Gauss(recipe.noise);
        if (s.number > 95) s.quality = kUncertainEngineeringUnitsExceeded;
        break;
      }
      case Signal::Steps:
        if (k >= nextChange) {
          level = recipe.base + recipe.amplitude * (2 * rng.Uniform() - 1);
          nextChange = k + 1 + static_cast<size_t>(rng.Uniform() * 2 * cycleSamples);
        }
        s.number = level + rng.Gauss(recipe.noise);
        s.integer = static_cast<int64_t>(std::llround(level));
        break;
      case Signal::OnOff:
        if (k >= nextChange) {
          state = k == 0 ? rng.Below(2) : 1 - state;
          nextChange = k + 1 + static_cast<size_t>(rng.Uniform() * 2 * cycleSamples);
        }
        s.integer = state;
        break;
      case Signal::Counter:
        // amplitude: mean increase per sample; below 1 it is a probability of +1.
        if (k > 0) counter += recipe.amplitude < 1 ? (rng.Chance(recipe.amplitude) ? 1 : 0) : rng.Below(static_cast<int>(2 * recipe.amplitude) + 1);
        s.integer = static_cast<int64_t>(counter);
        break;
      case Signal::States:
        if (k >= nextChange) {
          state = static_cast<int>(recipe.base) + rng.Below(static_cast<int>(recipe.amplitude));
          nextChange = k + 1 + static_cast<size_t>(rng.Uniform() * 2 * cycleSamples);
        }
        s.integer = state;
        break;
      case Signal::TextStates: {
        static const char* const kStates[] = {"Running", "Idle", "Cleaning", "Stopped"};
        if (k >= nextChange) {
          state = rng.Chance(0.6) ? 0 : 1 + rng.Below(3);
          nextChange = k + 1 + static_cast<size_t>(rng.Uniform() * 2 * cycleSamples);
        }
        s.text = Ascii(kStates[state]);
        break;
      }
      case Signal::Shift: {
        static const char* const kOperators[] = {"A. Moreau", "B. Okafor", "C. Lindqvist", "D. Tanaka"};
        const ULONGLONG shift = s.time / (8 * 3600 * kTicksPerSecond);
        s.text = Ascii(kOperators[shift % 4]);
        break;
      }
      case Signal::Batch: {
        if (k > 0 && k % static_cast<size_t>(cycleSamples) == 0) ++batch;
        WString label = Ascii("B-");
        for (int d = 1000; d; d /= 10) label.push_back(static_cast<OLECHAR>('0' + batch / d % 10));
        s.text = label;
        break;
      }
    }
    if (recipe.vt == VT_UI1) s.integer = s.integer < 0 ? 0 : (s.integer > 100 ? 100 : s.integer);
    if (recipe.event == Event::SensorFailure && window.Contains(s.time)) {
      s.quality = kBadSensorFailure;
      s.number = -273.15;  // what the transmitter sends when its element is open
    }
    if (recipe.event == Event::AtLimit && window.Contains(s.time)) {
      s.quality = kUncertainSensorNotAccurate;
      s.number = recipe.base + recipe.amplitude * 1.5;
    }
    if (recipe.event == Event::CommErrors && rng.Chance(0.002)) s.quality = kBadCommunicationError;
    if (afterGap) {
      s.quality = kUncertainInitialValue;
      afterGap = false;
    }
    out.push_back(std::move(s));
  }
}

}  // namespace

const std::vector<CDemoPlant::DemoTag>& CDemoPlant::Tags() {
  static const std::vector<DemoTag> tags = [] {
    std::vector<DemoTag> list;
    for (const TagRecipe& recipe : kRecipes) {
      DemoTag tag;
      tag.definition.name = Text(recipe.name);
      tag.definition.description = Text(recipe.description);
      tag.definition.vartype = recipe.vt;
      tag.definition.stepped = recipe.stepped;
      tag.definition.accessRights = recipe.access;
      tag.periodSeconds = recipe.period;
      list.push_back(std::move(tag));
    }
    return list;
  }();
  return tags;
}

HRESULT CDemoPlant::Populate(CHistorianStore& store, const DemoPlantOptions& options) {
  if (!options.now || !options.days) return E_INVALIDARG;
  const auto& tags = Tags();
  const ULONGLONG span = static_cast<ULONGLONG>(options.days) * 86400 * kTicksPerSecond;
  if (options.now <= span) return E_INVALIDARG;
  for (const auto& tag : tags)
    if (store.HasTag(tag.definition.name)) return static_cast<HRESULT>(0x800700B7L);
  std::vector<SampleInput> samples;
  for (size_t i = 0; i < tags.size(); ++i) {
    HRESULT hr = store.AddTag(tags[i].definition);
    if (FAILED(hr)) return hr;
    Generate(kRecipes[i], i, options, samples);
    hr = store.AppendSamples(tags[i].definition.name, samples);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

}  // namespace corvane::historian
