// The per-connection query settings of a data source: the user time range, the raw
// read page size and the aggregate thresholds, and the computed "last 72 hours" range
// that queries use unless UseUserTimeRange is exactly 1.
#pragma once
#include "platform/Platform.h"

namespace corvane {

// 72 hours in FILETIME units (100 ns).
inline constexpr ULONGLONG kDefaultQueryWindow = 2592000000000ull;

struct QuerySettings {
  FILETIME StartTime;
  FILETIME EndTime;
  LONG MaxRowsToReturn = 2000;
  LONG TreatUncertainAsGood = 1;
  BYTE PercentDataBad = 0;
  BYTE PercentDataGood = 0;
  LONG AllowEmptyTag = 1;
  LONG UseUserTimeRange = 0;
  FILETIME QueryStart;
  FILETIME QueryEnd;

  // Defaults, both time pairs "now minus 72 hours to now" read from the system clock
  // (one reading per pair).
  static QuerySettings Defaults();
  // Sets the computed range to the 72 hours before `nowUtc`.
  void SetQueryRangeEndingAt(FILETIME nowUtc);
  // The range a query uses: the user one only when UseUserTimeRange == 1.
  FILETIME StartForQuery() const { return UseUserTimeRange == 1 ? StartTime : QueryStart; }
  FILETIME EndForQuery() const { return UseUserTimeRange == 1 ? EndTime : QueryEnd; }
};

// Reads a time written as text, in UTC: an optional fraction of a second after the
// first '.' (up to 7 digits), the rest through the OLE Automation date parser of the
// system default locale. False when the text is not a date.
bool TextToFileTime(const OLECHAR* text, FILETIME* out);

}  // namespace corvane
