#include "bench/BareRowset.h"

#include <chrono>
#include <cstring>
#include <vector>

#include "provider/store/RefCountedDataStoreRow.h"
#include "bench/SelectConsumer.h"

namespace corvane::bench {

namespace {

// It reads one historian page per GetNextRows on the consumer's thread and answers
// GetData from that page for exactly the four bindings the consumer makes (given up
// front, so there is no accessor); handles are indexes into the page.
class CBareRowset final : public IRowset {
 public:
  CBareRowset(IRawDataProvider* raw, ULONGLONG first, ULONGLONG last, const DBBINDING* bindings, size_t count)
      : m_pRaw(raw), m_First(first), m_Last(last), m_Bindings(bindings, bindings + count) {
    m_Tag = {m_Catalog, m_Schema, m_Name};
    std::memcpy(m_Name, corvane::e2e::kTagName, sizeof m_Name);
  }
  ~CBareRowset() {
    FreeHistoryValueList(m_pPage);
    if (m_pContinuation) m_pRaw->ReleaseContinuationPoint(&m_pContinuation);
  }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (!out) return E_POINTER;
    *out = (riid == IID_IUnknown || riid == IID_IRowset) ? static_cast<IRowset*>(this) : nullptr;
    if (!*out) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --m_cRef;
    if (!n) delete this;
    return n;
  }
  HRESULT STDMETHODCALLTYPE AddRefRows(DBCOUNTITEM, const HROW*, DBREFCOUNT*, DBROWSTATUS*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE RestartPosition(HCHAPTER) override { return E_NOTIMPL; }

  HRESULT STDMETHODCALLTYPE GetNextRows(HCHAPTER, DBROWOFFSET offset, DBROWCOUNT count, DBCOUNTITEM* obtained,
                                        HROW** rows) override {
    if (!obtained || !rows || !*rows || offset || count <= 0) return E_INVALIDARG;
    *obtained = 0;
    FreeHistoryValueList(m_pPage);
    m_pPage = nullptr;
    if (m_bDone) return DB_S_ENDOFROWSET;
    const HRESULT hr = m_pRaw->ReadRaw(&m_Tag, U64ToFileTime(m_First), U64ToFileTime(m_Last),
                                       static_cast<ULONG>(count), kRawReadIncludeBounds, &m_pContinuation, &m_pPage);
    if (FAILED(hr)) return hr;
    m_bDone = !m_pContinuation;
    for (ULONG i = 0; i < m_pPage->count; ++i) (*rows)[i] = i + 1;
    *obtained = m_pPage->count;
    return m_bDone && *obtained < static_cast<DBCOUNTITEM>(count) ? DB_S_ENDOFROWSET : S_OK;
  }

  HRESULT STDMETHODCALLTYPE GetData(HROW row, HACCESSOR, void* data) override {
    if (!m_pPage || row == 0 || row > m_pPage->count) return DB_E_BADROWHANDLE;
    const HistoryValue& v = m_pPage->values[row - 1];
    BYTE* out = static_cast<BYTE*>(data);
    for (const DBBINDING& b : m_Bindings) {
      BYTE* value = out + b.obValue;
      DBLENGTH length = 0;
      switch (b.iOrdinal) {
        case 1: {  // TAGNAME as WSTR
          const size_t room = b.cbMaxLen / sizeof(OLECHAR);
          size_t n = 0;
          while (m_Name[n] && n + 1 < room) ++n;
          std::memcpy(value, m_Name, n * sizeof(OLECHAR));
          reinterpret_cast<OLECHAR*>(value)[n] = 0;
          length = n * sizeof(OLECHAR);
          break;
        }
        case 2:  // TIMESTAMP as DBTIMESTAMP
          Timestamp(v.timestamp, reinterpret_cast<DBTIMESTAMP*>(value));
          length = sizeof(DBTIMESTAMP);
          break;
        case 3:  // QUALITY as UI4
          std::memcpy(value, &v.quality, sizeof(ULONG));
          length = sizeof(ULONG);
          break;
        default: {  // VALUE as VARIANT
          VARIANT* target = reinterpret_cast<VARIANT*>(value);
          if (CRefCountedDataStoreRow::OwnsNothing(V_VT(&v.value))) {
            std::memcpy(static_cast<void*>(target), &v.value, sizeof(VARIANT));
          } else {
            VariantInit(target);
            if (FAILED(VariantCopy(target, const_cast<VARIANT*>(&v.value)))) return DB_E_ERRORSOCCURRED;
          }
          length = sizeof(VARIANT);
        }
      }
      if (b.dwPart & DBPART_LENGTH) std::memcpy(out + b.obLength, &length, sizeof length);
      if (b.dwPart & DBPART_STATUS) {
        const DBSTATUS ok = DBSTATUS_S_OK;
        std::memcpy(out + b.obStatus, &ok, sizeof ok);
      }
    }
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE ReleaseRows(DBCOUNTITEM, const HROW*, DBROWOPTIONS*, DBREFCOUNT*,
                                        DBROWSTATUS*) override {
    return S_OK;
  }

 private:
  // The calendar date is worked out once per day, the time of day by division.
  void Timestamp(const FILETIME& time, DBTIMESTAMP* ts) {
    constexpr ULONGLONG kTicksPerDay = 864000000000ull;
    const ULONGLONG ticks = FileTimeToU64(time);
    const ULONGLONG day = ticks / kTicksPerDay, inDay = ticks % kTicksPerDay;
    if (day != m_Day) {
      SYSTEMTIME st{};
      const FILETIME midnight = U64ToFileTime(day * kTicksPerDay);
      FileTimeToSystemTime(&midnight, &st);
      m_Date = DBTIMESTAMP{static_cast<SHORT>(st.wYear), st.wMonth, st.wDay, 0, 0, 0, 0};
      m_Day = day;
    }
    *ts = m_Date;
    const ULONGLONG seconds = inDay / 10000000ull;
    ts->hour = static_cast<USHORT>(seconds / 3600);
    ts->minute = static_cast<USHORT>(seconds / 60 % 60);
    ts->second = static_cast<USHORT>(seconds % 60);
    ts->fraction = static_cast<ULONG>(inDay % 10000000ull * 100);
  }

  ULONG m_cRef = 1;
  IRawDataProvider* m_pRaw;
  ULONGLONG m_First, m_Last;
  std::vector<DBBINDING> m_Bindings;
  OLECHAR m_Catalog[6] = {'P', 'l', 'a', 'n', 't', 0};
  OLECHAR m_Schema[2] = {'s', 0};
  OLECHAR m_Name[sizeof("Plant.Flow")] = {};
  TagIdent m_Tag{};
  void* m_pContinuation = nullptr;
  HistoryValueList* m_pPage = nullptr;
  bool m_bDone = false;
  ULONGLONG m_Day = ~0ull;
  DBTIMESTAMP m_Date{};
};

}  // namespace

size_t ReadBareRowset(IRawDataProvider* raw, ULONGLONG first, ULONGLONG last, double* checksum) {
  using corvane::e2e::ConsumerRow;
  DBBINDING bindings[4];
  corvane::e2e::RowBindings(corvane::e2e::ValueAs::kVariant, bindings);
  IRowset* rowset = new CBareRowset(raw, first, last, bindings, 4);
  corvane::e2e::FetchStats stats;
  bool ok = true;
  // The accessor handle is not looked at: the bindings were given to the rowset.
  const HRESULT hr = corvane::e2e::ReadRowset(
      rowset, DB_NULL_HACCESSOR, corvane::e2e::SelectConsumer::kBatch, std::chrono::steady_clock::now(), &stats,
      [&](const ConsumerRow* rows, const HRESULT* results, size_t count) {
        for (size_t i = 0; i < count; ++i) {
          if (results[i] != S_OK) return ok = false;
          const ConsumerRow& r = rows[i];
          *checksum += V_R8(&r.value) + r.quality + r.timestamp.second + r.tag[0];
        }
        return true;
      },
      nullptr);
  rowset->Release();
  return FAILED(hr) || !ok ? 0 : stats.rows;
}

}  // namespace corvane::bench
