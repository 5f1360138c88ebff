// The four families of aggregate procedures (analog, reduced analog, boolean, quality):
// the aggregates each requests, which one stamps the row, and the per-tag columns of
// the one-tag and five-tag forms. The catalog names its columns from these lists and
// the procedures fill their rows from the same lists, so the two cannot drift apart.
#pragma once
#include <vector>

#include "platform/Platform.h"
#include "base/HistorianInterfaces.h"

enum class HdaKind { Analog, ReducedAnalog, Bool, Quality };

enum class HdaField { Value, Status, StatusStr, Timestamp, ValueStr };

struct HdaColumn {
  size_t aggregate;  // index into HdaFamily::aggregates
  HdaField field;
};

struct HdaFamily {
  const OLECHAR* name;  // the one-tag procedure's name, e.g. "HDA_ANALOG"
  std::vector<AggregateId> aggregates;
  size_t timestampAggregate;      // index of the aggregate whose timestamp stamps the row
  std::vector<HdaColumn> columns;   // one-tag form, after Timestamp
  std::vector<HdaColumn> columns5;  // each tag of the five-tag form, after Timestamp
};

const HdaFamily& GetHdaFamily(HdaKind kind);
