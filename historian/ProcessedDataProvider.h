// A processed (aggregate) history provider built on top of any raw history provider:
// it reads raw samples through IRawDataProvider and computes the aggregates per
// resampling interval, following the OPC UA aggregate definitions.
//
// Intervals. [start, end) is cut into intervals of the period from start on; the last
// one may be shorter and then carries the Partial bit (0x4). A period of 0 or less means
// one interval for the whole range; start == end gives zero intervals (every entry has
// count 0); end before start, a period that is not a number or rounds to less than
// 100 ns, or more than 1 000 000 intervals give E_INVALIDARG.
//
// Samples. A sample is good when its top two quality bits are 00, or 01 (uncertain) when
// the request's treatUncertainAsGood is non-zero; otherwise it counts as bad. A sample's
// value and quality hold from its time until the next sample, and the tag's last sample
// holds to the end of the range. Only numbers (all integer widths, floats, booleans as
// 0/1, currency, decimal, date) are values: texts and other types are samples without a
// usable value, so the numeric aggregates treat them like bad samples and give BadNoData
// for a text tag; COUNT, LAST, WORST_QUALITY and the duration/percent of good and bad
// data count them by their quality alone. NaN is not a usable value.
//
// Interpolation. Stepped or sloped per the tag's flag from BrowseTags; when the raw
// provider does not list the tag there, booleans and texts are stepped and numbers
// sloped. The interpolated line runs through usable (good numeric) samples only, so bad
// samples are bridged; before the first usable sample there is no line, after the last
// one its value holds. To find the line outside the range the provider looks at most
// 10 000 samples back from start and forward from end for a usable one.
//
// The aggregates (value type; timestamp is the interval start unless said otherwise):
//  MIN, MAX        extreme usable raw value, in the sample's own type; timestamp of the
//                  first sample holding it.
//  AVG             arithmetic mean of usable raw values (R8).
//  TIME_AVG        area under the line over the covered part of the interval divided by
//                  that part's length (R8).
//  TOTAL           that area in value x seconds (R8).
//  TOTAL_AVG       the area divided by the whole interval length: the part of the
//                  interval without a line counts as zero (R8).
//  INTERPOLATIVE   the line's value at the interval start (R8).
//  LAST            the last raw sample of the interval whatever its quality, unchanged,
//                  with its own timestamp and quality word as status.
//  DURATION_IN_STATE_0/1  milliseconds during which the good value was zero / non-zero,
//                  always stepped (R8).
//  NUMBER_OF_TRANSITIONS  changes between zero and non-zero among usable samples, the
//                  last usable sample before the interval giving the starting state (I4).
//  DELTA           last minus first usable raw value (R8); RANGE max minus min (R8).
//  COUNT           number of good raw samples of any type (I4).
//  DURATION_GOOD/BAD      milliseconds governed by good / not good samples; time before
//                  the tag's first sample counts as bad (R8).
//  PERCENT_GOOD/BAD       the same as a percentage of the interval length (R8); the two
//                  always add up to 100.
//  WORST_QUALITY   the worst quality word among the interval's raw samples (bad, then
//                  uncertain, then good; the first of equal severity), as a UI4 value
//                  and as the status itself.
//
// Status. An aggregate without its input gives BadNoData (0x809B0000) and VT_EMPTY: no
// raw sample in the interval for COUNT, LAST, WORST_QUALITY; no usable raw sample for
// MIN, MAX, AVG, DELTA, RANGE, NUMBER_OF_TRANSITIONS; no line in the interval for
// TIME_AVG, TOTAL, TOTAL_AVG, no line at the start for INTERPOLATIVE; no usable time for
// the two state durations; no sample before the interval's end for the four good/bad
// aggregates. Otherwise the severity comes from the share of good input: counted in
// samples for MIN, MAX, AVG, DELTA, RANGE, COUNT, NUMBER_OF_TRANSITIONS, in time for
// TIME_AVG, TOTAL, TOTAL_AVG and the state durations. Good when the good share reaches
// percentDataGood, else Bad (0x80000000) when the bad share reaches percentDataBad, else
// UncertainDataSubNormal (0x40A40000); a threshold of 0 (not set) or above 100 means
// 100. The value is still given with a Bad status. INTERPOLATIVE is Good, or
// UncertainDataSubNormal when non-usable samples were skipped or a sloped value had
// nothing after it. The four good/bad aggregates are always Good. LAST and
// WORST_QUALITY carry a raw quality word. The other status words have the data-value
// info type (0x400) with the origin Raw (MIN, MAX, an INTERPOLATIVE sample exactly at the
// start), Interpolated (INTERPOLATIVE) or Calculated (the rest), plus the Partial bit.
//
// Errors. Unknown aggregate id: HIST_E_AGGREGATE_NOT_AVAILABLE; unknown tag:
// HIST_E_TAG_NOT_FOUND (whatever the raw provider says); null arguments or zero
// aggregates: E_INVALIDARG; any other raw failure is returned as it came. Nothing is
// returned on failure, and every raw continuation point is released. The request's
// capability word is not used.
//
// Memory and threads. Each interval's samples are walked once for all the aggregates
// asked. Over a host that shows its columns (ISampleReader) a read computes in place,
// under the host's read lock, and holds no copy; otherwise it holds the samples of its
// range (24 bytes each) while it computes, and the procedures keep ranges short by
// asking for a bounded number of intervals at a time. The object keeps one paged read's
// buffer for the next (up to kSpareSamples samples), so that repeated reads do not fault
// their memory in afresh. Calls may come from any
// thread at once; the raw provider is called on the caller's thread and must be as
// thread-safe as its own contract says.
//
// Filtered tag statistics (slot 4). Tags are listed by the raw provider's BrowseTags with
// the first non-empty filter and kept when their name matches every non-empty filter
// (TagFilterMatches), in the raw provider's order. Per tag MIN, MAX, AVG, COUNT over
// [start, end] with both ends included (a reversed range is swapped), judged as the
// interval aggregates above; MIN and MAX carry the extreme's time, AVG and COUNT the
// range's start. The tags are read with the catalog "_default_catalog_" and schema
// "_default_schema_". A tag that vanished between listing and reading gets four BadNoData
// entries. The names are BSTRs in a CoTaskMemAlloc array and the samples one
// HistoryValueList, both allocated even when there are no names.
//
// Statistics continuation points are the provider's own: a pending one is an opaque
// token that only this object understands (it never hands out or takes a raw provider's
// point), and it keeps the tag list taken for the first page so that later pages neither
// repeat nor skip a tag. It is released when its last page is read or when a call with
// it fails (a failing raw read included: the call returns that failure). A caller that abandons
// one by handing it to the raw provider's ReleaseContinuationPoint gets a refusal from
// a raw provider that checks its points, and the token's memory is reclaimed when this
// object goes away; at most kMaxPendingStatistics tokens are kept, the oldest forgotten
// first. A token that is unknown here, or comes back with other filters or times, gives
// E_INVALIDARG.
#pragma once
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "historian/AggregatesCalculator.h"
#include "historian/SampleReader.h"
#include "platform/WideString.h"
#include "base/HistorianInterfaces.h"

namespace corvane::historian {

class CProcessedDataProvider final : public IProcessedDataProvider {
 public:
  static constexpr size_t kMaxPendingStatistics = 64;
  static constexpr ULONG kRawPageSize = 10000;
  static constexpr size_t kBoundSearchLimit = 10000;
  // Sample buffers up to this many samples (a week of one-second samples and more) are
  // kept for the next read rather than given back to the system: about 25 MB at most.
  // Buffers that size come straight from the system's page mapper and would be faulted
  // in afresh by every read, which made a week's statement ten times slower.
  static constexpr size_t kSpareSamples = size_t(1) << 20;

  // Holds a reference to `raw` for its whole life.
  static HRESULT Create(IRawDataProvider* raw, IProcessedDataProvider** processed);

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IProcessedDataProvider
  HRESULT STDMETHODCALLTYPE ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                          ULONG aggregateCount, const AggregateId* aggregates,
                                          ProcessedResult** results) override;
  HRESULT STDMETHODCALLTYPE GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                     FILETIME start, FILETIME end,
                                                     const ProcessedReadRequest* request, ULONG maxNames,
                                                     void** continuation, DWORD reserved, ULONG* nameCount,
                                                     BSTR** names, HistoryValueList** values) override;

 private:
  struct StatisticsCursor {
    WString filters[3];
    ULONGLONG low = 0;
    ULONGLONG high = 0;
    std::vector<WString> names;
    size_t next = 0;
  };

  explicit CProcessedDataProvider(IRawDataProvider* raw);
  ~CProcessedDataProvider();

  HRESULT ReadProcessedImpl(const TagIdent* tag, const ProcessedReadRequest* request, ULONG aggregateCount,
                            const AggregateId* aggregates, ProcessedResult** results);
  HRESULT StatisticsImpl(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3, FILETIME start, FILETIME end,
                         const ProcessedReadRequest* request, ULONG maxNames, void** continuation,
                         ULONG* nameCount, BSTR** names, HistoryValueList** values);
  HRESULT IsStepped(const TagIdent* tag, bool* stepped, bool* known);
  // Reads the plan's range with the samples that bound it, from the host's columns in
  // place when it shows them, else from pages, and hands a calculator over them to
  // computeAll(calculator, raw LAST value per interval or null).
  template <class F>
  HRESULT ReadAndCompute(const TagIdent* tag, const IntervalPlan& plan, bool known, AggregateSettings settings,
                         const AggregateId* aggregates, ULONG aggregateCount, F& computeAll);
  HRESULT ListTags(const WString (&filters)[3], std::vector<WString>* names);
  HRESULT TagStatistics(const WString& name, ULONGLONG low, ULONGLONG high, const ProcessedReadRequest* request,
                        HistoryValue* four);

  // The sample buffer of an earlier read when there is one, else an empty one; and back.
  std::unique_ptr<std::vector<AggSample>> TakeSpareSamples();
  void KeepSpareSamples(std::unique_ptr<std::vector<AggSample>> samples);

  std::unique_ptr<StatisticsCursor> TakeCursor(void* token);
  void* KeepCursor(std::unique_ptr<StatisticsCursor> cursor);

  std::atomic<ULONG> refs_{1};
  IRawDataProvider* raw_;
  // The host's allocation-free sample walk when it offers one (the reference historian
  // does); the range of a read then skips the paged value lists.
  ISampleReader* reader_ = nullptr;
  mutable std::mutex cursorLock_;
  std::unordered_map<void*, std::unique_ptr<StatisticsCursor>> cursors_;
  std::deque<void*> cursorOrder_;
  std::mutex spareLock_;
  std::unique_ptr<std::vector<AggSample>> spare_;
};

}  // namespace corvane::historian
