// A consumer that reads raw history through the provider's OLE DB interfaces only, as
// an application would: creation object over a historian host, IDBInitialize, session,
// command text, parameters through ICommandWithParameters and a parameter accessor,
// Execute, one row accessor (TAGNAME WSTR, TIMESTAMP DBTIMESTAMP, QUALITY UI4, VALUE as
// VARIANT, R8 or WSTR), GetNextRows in batches, GetData per row, ReleaseRows. Every
// benchmark of the fetch path goes through it, so that they all measure the same path.
#pragma once
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"

namespace corvane::e2e {

// The series every run reads: one VT_R8 tag, one sample per second from
// 2024-01-01 00:00:00 UTC, values and qualities that follow the sample's index.
inline constexpr ULONGLONG kFirstSample = 133485408000000000ull;
inline constexpr ULONGLONG kSampleStep = 10000000ull;
extern const OLECHAR kTagName[];
inline double SampleValue(size_t i) { return static_cast<double>(i % 1000) * 0.5; }
inline DWORD SampleQuality(size_t i) { return i % 97 ? 0xC0u : 0x40000000u; }

// A store holding `samples` samples of the series; null when it cannot be filled.
std::shared_ptr<historian::CHistorianStore> MakeSeriesStore(size_t samples);
// The reference historian over `store`, answering the processed-data interface too, so
// that no aggregates component has to be registered.
HRESULT CreateSeriesHost(std::shared_ptr<historian::CHistorianStore> store, IUnknown** host);

// The consumer's row buffer, values first and then lengths and statuses. VALUE lands in
// `value`, `real` or `text` depending on how it is bound (ValueAs).
struct alignas(8) ConsumerRow {
  static constexpr size_t kTagChars = 64;
  static constexpr size_t kTextChars = 64;
  OLECHAR tag[kTagChars];
  DBTIMESTAMP timestamp;
  ULONG quality;
  VARIANT value;
  double real;
  OLECHAR text[kTextChars];
  DBLENGTH lengths[4];
  DBSTATUS statuses[4];
};

// The type the consumer asks for VALUE in: VARIANT suits every table, R8 and WSTR are
// what RAWDATA_DOUBLE and RAWDATA_STRING expose.
enum class ValueAs { kVariant, kDouble, kText };

// The row accessor's bindings: TAGNAME, TIMESTAMP, QUALITY and VALUE as `value` says.
void RowBindings(ValueAs value, DBBINDING bindings[4]);

// The three values of RangeQuery's `?`: TAGNAME bound as WSTR, the start and end of the
// range as DBTIMESTAMP from FILETIME ticks in whole seconds. The dialect's time bounds
// take `<` as `<=`: a sample at `end` is read too.
struct RangeParameters {
  const OLECHAR* tag;
  ULONGLONG first;
  ULONGLONG end;
};

// "SELECT TAGNAME, TIMESTAMP, QUALITY, VALUE FROM <table> WHERE TAGNAME = ? AND
// TIMESTAMP >= ? AND TIMESTAMP < ?".
WString RangeQuery(const OLECHAR* table);

struct SelectOptions {
  const RangeParameters* parameters = nullptr;  // null: the text has no `?`
  ValueAs value = ValueAs::kVariant;
};

struct FetchStats {
  size_t rows = 0;
  size_t batches = 0;
  double secondsToFirstRows = 0;  // from Execute to the first GetNextRows that returned rows
  double secondsToFirstRow = 0;   // from Execute to the end of the first row's GetData
  double seconds = 0;             // from Execute to the end of the rowset, released
};

// What a consumer does with each batch of rows read by GetData (with the HRESULT of
// each GetData call in `results`); false stops the read.
using BatchHandler = std::function<bool(const ConsumerRow* rows, const HRESULT* results, size_t count)>;

// The consumer's loop over an open rowset: GetNextRows in batches of `batch` rows,
// GetData of each row through `accessor`, `onBatch`, VariantClear of VALUE, ReleaseRows.
// The provider's rowsets and the bare rowset of the floor are read by this one loop, in
// its own translation unit: both are measured through the same calls, made through the
// interface as an application makes them, never inlined into the loop. `start` is when
// the statement was executed; `afterFirstFetch` runs right after the first GetNextRows
// that returned rows.
HRESULT ReadRowset(IRowset* rowset, HACCESSOR accessor, DBROWCOUNT batch, std::chrono::steady_clock::time_point start,
                   FetchStats* out, const BatchHandler& onBatch, const std::function<void()>& afterFirstFetch);

class SelectConsumer {
 public:
  static constexpr DBROWCOUNT kBatch = 1000;

  SelectConsumer() = default;
  SelectConsumer(const SelectConsumer&) = delete;
  SelectConsumer& operator=(const SelectConsumer&) = delete;
  ~SelectConsumer() { Close(); }

  // Creates the provider over `host`, initialises it with catalog "Plant" and opens a
  // session. The data source holds its own references to the host.
  HRESULT Open(IUnknown* host);
  // Uninitialises and releases the data source: afterwards it holds no host reference.
  // Returns the data source's reference count after the consumer's last Release.
  ULONG Close();

  // The open session, for callers that make their own commands (not AddRef'ed).
  IDBCreateCommand* Session() const { return session_; }

  // Runs a statement whose rowset, if any, is not read (UPDATE QUERYSETTINGS ...).
  HRESULT Run(const OLECHAR* text);
  // Sets the user time range of the query settings to [first, last] (FILETIME ticks,
  // whole seconds) through an UPDATE of QUERYSETTINGS.
  HRESULT UseTimeRange(ULONGLONG first, ULONGLONG last);

  // Executes `text` and reads its rowset to the end. `afterFirstFetch` runs right after
  // the first GetNextRows that returned rows, before any GetData; `onBatch` sees each
  // batch of rows read by GetData (with the HRESULT of each GetData call in `results`)
  // and may stop the read by returning false. VALUE variants are cleared after it.
  HRESULT Select(const OLECHAR* text, FetchStats* stats, const BatchHandler& onBatch,
                 const std::function<void()>& afterFirstFetch = nullptr);
  // The same with parameters and another binding of VALUE.
  HRESULT Select(const OLECHAR* text, const SelectOptions& options, FetchStats* stats, const BatchHandler& onBatch,
                 const std::function<void()>& afterFirstFetch = nullptr);

 private:
  // Sets the text (and the parameters, if any) on a new command and executes it; `start`
  // receives the time Execute was called.
  HRESULT Execute(const OLECHAR* text, const RangeParameters* parameters, IRowset** rowset,
                  std::chrono::steady_clock::time_point* start = nullptr);

  IUnknown* dataSource_ = nullptr;
  IDBCreateCommand* session_ = nullptr;
};

}  // namespace corvane::e2e
