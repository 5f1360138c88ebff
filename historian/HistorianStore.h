// The reference historian's memory: tags and their samples ordered by time, shared by
// any number of readers and one writer at a time. Samples are kept in typed columns
// (20 bytes per numeric sample) so that ten million of them fit comfortably and a
// range is found by binary search.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/WideString.h"
#include "base/HistorianInterfaces.h"
#include "historian/SampleReader.h"

namespace corvane::historian {

struct TagDefinition {
  WString name;
  WString description;
  VARTYPE vartype = VT_R8;
  bool stepped = false;
  DWORD accessRights = kTagAccessRead | kTagAccessWrite;
};

// One sample as loaders hand it in; only the member that matches the tag's type is used
// (`number` for VT_R4/VT_R8, `integer` for the integer types and VT_BOOL, `text` for
// VT_BSTR).
struct SampleInput {
  ULONGLONG time = 0;
  DWORD quality = 0;
  double number = 0;
  int64_t integer = 0;
  WString text;
};

// Which samples a read returns.
enum class QualityClass {
  All,
  // Top two bits 00. Uncertain (01) is not good here: a plain read has no way to ask
  // for it, so only requests that carry a treat-uncertain-as-good flag may widen it.
  Good,
  // Everything that is not good (uncertain, bad and the reserved 11 pattern), so that
  // good and bad together are all samples.
  NotGood,
};

bool IsGoodQuality(DWORD quality);
bool IsSupportedVartype(VARTYPE vt);

// A paged read in progress. The pointer is the opaque continuation point handed out by
// the historian; the store keeps the set of live ones so that a stale or foreign pointer
// is refused instead of dereferenced.
struct ReadCursor {
  WString tagKey;          // upper-cased tag name
  ULONGLONG low = 0;       // inclusive range, low <= high
  ULONGLONG high = 0;
  bool newestFirst = false;
  QualityClass quality = QualityClass::All;
  bool resumed = false;    // false until the first page was returned
  ULONGLONG lastTime = 0;  // time of the last sample returned
};

class CHistorianStore {
 public:
  CHistorianStore();
  ~CHistorianStore();
  CHistorianStore(const CHistorianStore&) = delete;
  CHistorianStore& operator=(const CHistorianStore&) = delete;

  // E_INVALIDARG for an empty name or an unsupported type; 0x800700B7 when a tag of that
  // name (ignoring case) exists.
  HRESULT AddTag(const TagDefinition& tag);
  bool HasTag(WStringView name) const;
  size_t TagCount() const;
  size_t SampleCount() const;
  // Bytes held by the sample columns (capacity, not just size) and the tag table.
  size_t MemoryBytes() const;

  // Appends samples of one tag that lie after its newest one, in increasing time order;
  // E_INVALIDARG (nothing appended) when they are not. For bulk loading.
  HRESULT AppendSamples(WStringView name, const std::vector<SampleInput>& samples);
  // The same for large series without an input vector: fill(i, sample) describes sample
  // i of `count`. Samples filled before a failure are not kept.
  HRESULT AppendGenerated(WStringView name, size_t count,
                          const std::function<void(size_t, SampleInput&)>& fill);
  // The samples of one tag in the order a loader read them, already in the store's
  // form: `bits` for numeric and boolean tags (see ToBits), `texts` for VT_BSTR ones.
  struct Columns {
    WString name;
    std::vector<ULONGLONG> times;
    std::vector<DWORD> qualities;
    std::vector<uint64_t> bits;
    std::vector<WString> texts;
  };
  // Adds the columns of several tags in one step under one lock, creating the tags of
  // `newTags` first: every time must be free in its tag and unique within its columns,
  // else nothing is added, HIST_E_DATA_ALREADY_PRESENT is returned and (*taken)[i] is the
  // index of the first sample of columns[i] that repeats an earlier one or one of the
  // tag's (npos where none does). The columns are taken over, not copied, where they
  // can be: a new tag's columns in time order become its series as they are.
  HRESULT AddColumns(const std::vector<TagDefinition>& newTags, std::vector<Columns>& columns,
                     std::vector<size_t>* taken);
  // The stored form of a sample of a numeric or boolean tag of type `vt`.
  static uint64_t ToBits(VARTYPE vt, const SampleInput& in);
  void ReserveSamples(WStringView name, size_t count);

  HRESULT GetTag(WStringView name, TagDefinition* tag) const;
  // Tags matching both filters, in the order they were added.
  std::vector<TagDefinition> ListTags(LPCOLESTR nameFilter, LPCOLESTR descriptionFilter) const;
  HRESULT GetTimeBounds(WStringView name, ULONGLONG* first, ULONGLONG* last) const;

  // Reads one page of at most maxValues (0: no limit) samples matching `cursor`, after
  // the last one it returned. *values is always allocated on success (count may be 0);
  // *more tells whether matching samples remain after this page.
  HRESULT ReadPage(ReadCursor& cursor, ULONG maxValues, HistoryValueList** values, bool* more) const;
  // Shows the columns of [low, high] to `visit` under the read lock (so the visitor must
  // not call back into the store): the cheap way to scan a long range in the process.
  HRESULT VisitRange(WStringView name, ULONGLONG low, ULONGLONG high, ColumnVisitor visit, void* context) const;
  // The newest sample, or null (S_OK) when the tag has none.
  HRESULT ReadNewest(WStringView name, HistoryValue** value) const;

  HRESULT Insert(WStringView name, const HistoryValue& value);
  HRESULT Update(WStringView name, const HistoryValue& value);
  // Removes samples in [low, high]; S_FALSE when there were none.
  HRESULT Delete(WStringView name, ULONGLONG low, ULONGLONG high);

  // Continuation points: created, looked up (and taken out while a page is read) and
  // destroyed here, so that all objects on one store share them.
  ReadCursor* RegisterCursor(std::unique_ptr<ReadCursor> cursor);
  std::unique_ptr<ReadCursor> TakeCursor(void* handle);
  bool ReleaseCursor(void* handle);
  size_t OutstandingCursors() const;

 private:
  struct Series;
  Series* Find(WStringView name) const;
  static HRESULT ToStored(const Series& series, const VARIANT& in, uint64_t* bits, WString* text);
  static HRESULT MakeVariant(const Series& series, size_t index, VARIANT* out);
  void InsertAt(Series& series, size_t index, ULONGLONG time, DWORD quality, uint64_t bits, WString&& text);

  mutable std::shared_mutex lock_;
  std::vector<std::unique_ptr<Series>> series_;
  std::unordered_map<WString, Series*> byKey_;
  std::atomic<size_t> sampleCount_{0};

  mutable std::mutex cursorLock_;
  std::unordered_map<void*, std::unique_ptr<ReadCursor>> cursors_;
};

}  // namespace corvane::historian
