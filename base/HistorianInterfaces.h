// The contract between the provider and the host historian: the records that cross
// it, the four COM-style interfaces in slot order, and helpers that free each record
// exactly as the receiver must. The provider stores no history; every value it returns
// or writes passes through these interfaces.
//
// Memory: everything the historian returns is allocated with CoTaskMemAlloc (BSTR
// values inside VARIANTs with SysAllocString) and freed by the caller with the
// Free* helpers below. Strings handed to the historian belong to the caller.
//
// Settled here where the provider's own description leaves it to the two sides:
//  - IRawDataProvider slot 3 (GetTagInfo) and slot 4 (GetTimeBounds) are tag look-ups
//    the stored procedures do not call; slot 5 (BrowseTags) lists tags for the TAGS
//    table. Filters use `*` (any run) and `?` (one character), ignore case, and an
//    empty or null filter matches everything.
//  - The flag of slot 7 is kRawReadIncludeBounds (1): samples at the start and at the
//    end of the range are both included. A start later than the end reads newest
//    first. A continuation point is opaque, valid until released through slot 8 or
//    until the read that returned it is exhausted (then null is returned).
//  - Slot 10 deletes every sample of one tag in [start, end], both ends included.
//  - The catalog and schema parts of a TagIdent must be non-empty; the reference
//    historian has one namespace and matches the tag name alone (ignoring case).
//  - IProcessedDataProvider slot 4: the three filters are wildcard patterns on the tag
//    name; a tag matches when it matches every non-empty filter. maxNames 0 means no
//    limit. The reserved argument must be 0.
#pragma once
#include "platform/Platform.h"

// ---- Records -----------------------------------------------------------------------

// Identity of one tag: catalog part, schema part, tag name; each a zero-terminated
// wide string (a BSTR or a CoTaskMemAlloc block, depending on the caller).
struct TagIdent {
  LPOLESTR catalog;
  LPOLESTR schema;
  LPOLESTR tagName;
};

// One historical sample.
struct HistoryValue {
  VARIANT value;
  FILETIME timestamp;  // UTC, 100 ns since 1601-01-01
  DWORD quality;       // OPC-style quality or status word
};

// Several samples: header and array are separate CoTaskMemAlloc blocks.
struct HistoryValueList {
  ULONG count;
  HistoryValue* values;
};

typedef DWORD AggregateId;
enum : AggregateId {
  AGG_MIN = 0,
  AGG_MAX = 1,
  AGG_AVG = 2,
  AGG_TIME_AVG = 3,
  AGG_TOTAL_AVG = 4,
  AGG_INTERPOLATIVE = 5,
  AGG_LAST = 6,
  AGG_DURATION_IN_STATE_0 = 7,
  AGG_DURATION_IN_STATE_1 = 8,
  AGG_NUMBER_OF_TRANSITIONS = 9,
  AGG_DELTA = 10,
  AGG_RANGE = 11,
  AGG_TOTAL = 12,
  AGG_COUNT = 13,
  AGG_DURATION_GOOD = 14,
  AGG_DURATION_BAD = 15,
  AGG_PERCENT_GOOD = 16,
  AGG_PERCENT_BAD = 17,
  AGG_WORST_QUALITY = 18,
  AGG_COUNT_OF_AGGREGATES = 19
};
// The column-name prefix of each aggregate ("MIN", "TIME_AVG", ...); null when unknown.
const OLECHAR* AggregateName(AggregateId id);

struct ProcessedReadRequest {
  FILETIME start;
  FILETIME end;
  double periodMs;  // 0 or less: one interval for the whole range
  DWORD treatUncertainAsGood;
  BYTE percentDataGood;
  BYTE percentDataBad;
  DWORD rawCapabilities;  // IRawDataProvider slot 6 for an empty TagIdent, or 0
};

// One entry per requested aggregate, in request order; all entries describe the same
// intervals. The answer is one CoTaskMemAlloc block of `aggregateCount` entries.
struct ProcessedResult {
  ULONG count;
  HistoryValue* values;
};

// Tag record of the tag browse (IRawDataProvider slot 5). Strings are CoTaskMemAlloc
// blocks; the array is one CoTaskMemAlloc block.
struct TagRecord {
  LPOLESTR name;
  LPOLESTR description;
  VARTYPE vartype;
  BOOL stepped;         // stepped (TRUE) or sloped (FALSE) interpolation
  DWORD accessRights;   // kTagAccess* bits
};
enum : DWORD { kTagAccessRead = 1, kTagAccessWrite = 2 };

enum : DWORD { kRawReadIncludeBounds = 1 };

// Historian result codes the provider tells apart.
#define HIST_E_TAG_NOT_FOUND ((HRESULT)0xC0040011L)
#define HIST_E_AGGREGATE_NOT_AVAILABLE ((HRESULT)0xC0041009L)
#define HIST_E_DATA_ALREADY_PRESENT ((HRESULT)0xC004100BL)
#define HIST_E_DATA_NOT_FOUND ((HRESULT)0xC004100DL)

// OPC UA status codes used for results of the historian and the aggregates.
#define OPCUA_GOOD ((DWORD)0x00000000u)
#define OPCUA_UNCERTAIN ((DWORD)0x40000000u)
#define OPCUA_BAD ((DWORD)0x80000000u)
#define OPCUA_BAD_NO_DATA ((DWORD)0x809B0000u)

// ---- Interfaces ---------------------------------------------------------------------


// Interface identifiers, the same constants on both targets.
#define CORVANE_HIST_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  inline constexpr GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
CORVANE_HIST_GUID(IID_IRawDataProvider, 0x1D33414D, 0x2DFA, 0x42D9, 0x89, 0x77, 0x71, 0x82, 0x6A, 0x14, 0x5C, 0x74);
CORVANE_HIST_GUID(IID_IProcessedDataProvider, 0x163E6203, 0x914B, 0x4369, 0xAB, 0x7B, 0x1C, 0x05, 0xEE, 0x1F, 0xBB, 0x68);
CORVANE_HIST_GUID(IID_IValuesProvider, 0xA6CB6155, 0x9663, 0x4CAF, 0x94, 0xE0, 0xC2, 0x32, 0x64, 0x58, 0x1B, 0xD6);
CORVANE_HIST_GUID(IID_IAggregates, 0x3A2F1507, 0xA649, 0x4A1B, 0x91, 0x84, 0x90, 0x9F, 0xF1, 0x82, 0x92, 0xDD);

#define CORVANE_AGGREGATES_PROGID OLESTR("Quellix.HistoryAggregates_VLD64")

struct IRawDataProvider : public IUnknown {
  // slot 3: S_OK and the tag's value type when it exists, else HIST_E_TAG_NOT_FOUND.
  virtual HRESULT STDMETHODCALLTYPE GetTagInfo(const TagIdent* tag, VARTYPE* vartype) = 0;
  // slot 4: oldest and newest sample time; S_FALSE (times zero) when the tag has none.
  virtual HRESULT STDMETHODCALLTYPE GetTimeBounds(const TagIdent* tag, FILETIME* first, FILETIME* last) = 0;
  // slot 5: tags whose name matches nameFilter and whose description matches
  // descriptionFilter, in the historian's order. `truncated` is TRUE when the list was
  // cut short by the historian.
  virtual HRESULT STDMETHODCALLTYPE BrowseTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter, ULONG* count,
                                               TagRecord** tags, BOOL* truncated) = 0;
  // slot 6: capability word; the provider only copies it into processed requests.
  virtual HRESULT STDMETHODCALLTYPE GetCapabilities(const TagIdent* tag, DWORD* capabilities) = 0;
  // slot 7: one page of at most maxValues samples (0: no limit). *continuation is null
  // for the first page; on return it is non-null while more samples remain.
  virtual HRESULT STDMETHODCALLTYPE ReadRaw(const TagIdent* tag, FILETIME start, FILETIME end, ULONG maxValues,
                                            DWORD flags, void** continuation, HistoryValueList** values) = 0;
  // slot 8: abandons a paged read; sets *continuation to null.
  virtual HRESULT STDMETHODCALLTYPE ReleaseContinuationPoint(void** continuation) = 0;
  // slot 9: HIST_E_DATA_ALREADY_PRESENT when a sample exists at that time.
  virtual HRESULT STDMETHODCALLTYPE InsertValue(const TagIdent* tag, const HistoryValue* value) = 0;
  // slot 10: removes every sample in [start, end]; S_FALSE when there was none.
  virtual HRESULT STDMETHODCALLTYPE DeleteValues(const TagIdent* tag, FILETIME start, FILETIME end) = 0;
  // slot 11: HIST_E_DATA_NOT_FOUND when no sample exists at that time.
  virtual HRESULT STDMETHODCALLTYPE UpdateValue(const TagIdent* tag, const HistoryValue* value) = 0;
};

struct IProcessedDataProvider : public IUnknown {
  // slot 3: *results is an array of aggregateCount entries.
  virtual HRESULT STDMETHODCALLTYPE ReadProcessed(const TagIdent* tag, const ProcessedReadRequest* request,
                                                  ULONG aggregateCount, const AggregateId* aggregates,
                                                  ProcessedResult** results) = 0;
  // slot 4: MIN, MAX, AVG, COUNT of every tag matching the filters, paged by maxNames.
  // *names is a CoTaskMemAlloc array of *nameCount BSTRs; *values holds 4 samples per
  // name. A pending continuation point is released through IRawDataProvider slot 8.
  virtual HRESULT STDMETHODCALLTYPE GetFilteredTagStatistics(LPCOLESTR filter1, LPCOLESTR filter2,
                                                             LPCOLESTR filter3, FILETIME start, FILETIME end,
                                                             const ProcessedReadRequest* request, ULONG maxNames,
                                                             void** continuation, DWORD reserved, ULONG* nameCount,
                                                             BSTR** names, HistoryValueList** values) = 0;
};

struct IValuesProvider : public IUnknown {
  // slot 3: *value is null (and S_OK) when the tag has no data.
  virtual HRESULT STDMETHODCALLTYPE GetMostRecentValue(const TagIdent* tag, HistoryValue** value) = 0;
  // slots 4-6: samples in [start, end], at most `count` when count > 0.
  virtual HRESULT STDMETHODCALLTYPE GetGoodValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                                  HistoryValueList** values) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBadValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                                 HistoryValueList** values) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAllValues(const TagIdent* tag, FILETIME start, FILETIME end, ULONG count,
                                                 HistoryValueList** values) = 0;
};

struct IAggregates : public IUnknown {
  // slot 3
  virtual HRESULT STDMETHODCALLTYPE CreateProcessedDataProvider(IRawDataProvider* raw,
                                                            IProcessedDataProvider** processed) = 0;
};

// ---- Helpers --------------------------------------------------------------------------

inline ULONGLONG FileTimeToU64(const FILETIME& ft) {
  return (static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
inline FILETIME U64ToFileTime(ULONGLONG t) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(t);
  ft.dwHighDateTime = static_cast<DWORD>(t >> 32);
  return ft;
}

// Free helpers: each accepts null and frees exactly what the receiver owns.
void FreeHistoryValueList(HistoryValueList* list);             // VariantClear each, array, header
void FreeHistoryValue(HistoryValue* value);                    // one CoTaskMemAlloc'd sample
void FreeProcessedResult(ProcessedResult* result, ULONG entries);  // each entry's values, then the block
void FreeTagRecords(TagRecord* tags, ULONG count);
// Frees the three parts and the block of a TagIdent built with CoTaskMemAlloc strings
// (FreeTagIdentBstr for one built with BSTRs).
void FreeTagIdent(TagIdent* tag);
void FreeTagIdentBstr(TagIdent* tag);
// Allocates a zero-filled TagIdent block with CoTaskMemAlloc copies of the three parts;
// E_INVALIDARG when any part is empty, E_OUTOFMEMORY with nothing left allocated.
HRESULT MakeTaskTagIdent(LPCOLESTR catalog, LPCOLESTR schema, LPCOLESTR tagName, TagIdent** tag);

// The wildcard filter of the tag browse and of the filtered statistics: `*` matches any
// run (also empty), `?` exactly one character, letters compare ignoring case; a null or
// empty pattern matches everything.
bool TagFilterMatches(LPCOLESTR pattern, LPCOLESTR text);
