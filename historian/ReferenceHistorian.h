// The reference historian host: a COM object over a CHistorianStore that serves raw
// history (paged reads, writes, tag browse) and stored values. It deliberately has no
// processed-history interface of its own, so a provider built on it obtains one from
// the aggregates component; for tests it can be given one.
//
// Behaviour that callers can rely on:
//  - Every TagIdent must have non-empty catalog, schema and tag name (E_INVALIDARG);
//    only the tag name is looked up, ignoring case. The capability query also accepts
//    a TagIdent of three empty strings and then answers for the historian as a whole.
//  - Raw reads: [start, end] with kRawReadIncludeBounds, (start, end) without it; a start
//    later than the end reads newest first. A successful read always returns a list
//    (count 0 and a null array when nothing matched). A continuation point is returned
//    only while samples remain; it resumes after the time of the last sample returned,
//    so writes between pages never repeat or skip a sample. A read that fails on a
//    continued point leaves that point valid: release it through slot 8.
//  - Values: good means the top two quality bits are 00; bad values are all others
//    (uncertain included, since this interface cannot ask to treat them as good), so
//    good and bad together are all values. A count of 0 means no limit; a start later
//    than the end returns newest first. Most recent is the newest sample of any quality.
//  - Writes convert the value to the tag's type (texts with the invariant locale) and
//    return the conversion's code when that fails; E_ACCESSDENIED on a read-only tag.
#pragma once
#include <atomic>
#include <memory>

#include "base/ComPtr.h"
#include "historian/HistorianStore.h"

namespace corvane::historian {

// Bits of the capability word (IRawDataProvider slot 6).
enum : DWORD {
  kCapabilityRawRead = 0x01,
  kCapabilityReverseRead = 0x02,
  kCapabilityInsert = 0x04,
  kCapabilityUpdate = 0x08,
  kCapabilityDelete = 0x10,
  kCapabilityValues = 0x20,
};

class CReferenceHistorian final : public IRawDataProvider,
                                  public IValuesProvider,
                                  public IProcessedDataProvider,
                                  public ISampleReader {
 public:
  // Creates the object and returns interface `riid` of it. With `processedFactory` the
  // object also answers IProcessedDataProvider with the provider that the factory builds
  // on a second raw object over the same store (so the two never hold each other).
  static HRESULT Create(std::shared_ptr<CHistorianStore> store, REFIID riid, void** object,
                        IAggregates* processedFactory = nullptr);

  CHistorianStore& Store() { return *store_; }
  size_t OutstandingContinuationPoints() const { return store_->OutstandingCursors(); }
  // Objects of this class alive in the process (for leak checks in tests).
  static long LiveObjects();

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IRawDataProvider
  HRESULT STDMETHODCALLTYPE GetTagInfo(const TagIdent* tag, VARTYPE* vartype) override;
  HRESULT STDMETHODCALLTYPE GetTimeBounds(const TagIdent* tag, FILETIME* first, FILETIME* last) override;
  HRESULT STDMETHODCALLTYPE BrowseTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter, ULONG* count,
                                       TagRecord** tags, BOOL* truncated) override;
  HRESULT STDMETHODCALLTYPE GetCapabilities(const TagIdent* tag, DWORD* capabilities) override;
  HRESULT STDMETHODCALLTYPE ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                    DWORD flags, void** continuation, HistoryValueList** values) override;
  HRESULT STDMETHODCALLTYPE ReleaseContinuationPoint(void** continuation) override;
  HRESULT STDMETHODCALLTYPE InsertValue(const TagIdent* tag, const HistoryValue* value) override;
  HRESULT STDMETHODCALLTYPE DeleteValues(const TagIdent* tag, FILETIME start, FILETIME end) override;
  HRESULT STDMETHODCALLTYPE UpdateValue(const TagIdent* tag, const HistoryValue* value) override;

  // IValuesProvider
  HRESULT STDMETHODCALLTYPE GetMostRecentValue(const TagIdent* tag, HistoryValue** value) override;
  HRESULT STDMETHODCALLTYPE GetGoodValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                          HistoryValueList** values) override;
  HRESULT STDMETHODCALLTYPE GetBadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                         HistoryValueList** values) override;
  HRESULT STDMETHODCALLTYPE GetAllValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                         HistoryValueList** values) override;

  // ISampleReader
  HRESULT STDMETHODCALLTYPE VisitColumns(const TagIdent* tag, ULONGLONG low, ULONGLONG high, ColumnVisitor visit,
                                         void* context) override;

  // IProcessedDataProvider: forwarded to the provider built at creation, if any.
  HRESULT STDMETHODCALLTYPE ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                          ULONG aggregateCount, const AggregateId* aggregates,
                                          ProcessedResult** results) override;
  HRESULT STDMETHODCALLTYPE GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2, LPCOLESTR filter3,
                                                     FILETIME start, FILETIME end,
                                                     const ProcessedReadRequest* request, ULONG maxNames,
                                                     void** continuation, DWORD reserved, ULONG* nameCount,
                                                     BSTR** names, HistoryValueList** values) override;

 private:
  explicit CReferenceHistorian(std::shared_ptr<CHistorianStore> store);
  ~CReferenceHistorian();
  HRESULT ReadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count, QualityClass quality,
                     HistoryValueList** values);

  std::atomic<ULONG> refs_{1};
  std::shared_ptr<CHistorianStore> store_;
  ComPtr<IProcessedDataProvider> processed_;
};

}  // namespace corvane::historian
