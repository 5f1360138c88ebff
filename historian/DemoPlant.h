// A small, made-up process plant for the reference historian: reactors, pumps, a tank,
// a boiler, a conveyor and a packing line, recorded over the last days up to a given
// "now". The same options always give the same tags and the same samples.
#pragma once
#include <cstdint>
#include <vector>

#include "historian/HistorianStore.h"

namespace corvane::historian {

struct DemoPlantOptions {
  ULONGLONG now = 0;       // FILETIME (UTC) of the newest possible sample
  uint64_t seed = 1;       // noise and event placement
  unsigned days = 7;       // how far back the history goes
};

class CDemoPlant {
 public:
  // The demo tags with their sample period in seconds (10, 30 or 60).
  struct DemoTag {
    TagDefinition definition;
    unsigned periodSeconds;
  };
  static const std::vector<DemoTag>& Tags();

  // Adds the demo tags to `store` and records their history. Fails (0x800700B7, nothing
  // added) when any demo tag exists already; E_INVALIDARG for a zero `now` or `days`.
  static HRESULT Populate(CHistorianStore& store, const DemoPlantOptions& options);
};

}  // namespace corvane::historian
