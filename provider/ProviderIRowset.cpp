#include "provider/ProviderIRowset.h"

#include "provider/ErrorReporting.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "provider/ErrorReporting.h"
#include "provider/Module.h"
#include "base/Trace.h"
#include "provider/store/DataConvert.h"

namespace {

// The rowset property set, spelled out so both targets use the same constant.
const GUID kRowsetPropertySet = {0xC8B522BE, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};

enum class Offer { No, ReadOnly, Writable };

struct RowsetProperty {
  DBPROPID id;
  VARTYPE vt;
  LONG commandValue;  // VT_BOOL: 0 false, else true
  Offer command;
  LONG tableValue;
  Offer table;
};

// What each kind of rowset offers. The table rowset advertises backward fetching and
// scrolling although GetNextRows refuses both; its consumers have always seen it so.
const RowsetProperty kRowsetProperties[] = {
    {DBPROP_IAccessor, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_IColumnsInfo, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_IConvertType, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_IRowset, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_IRowsetIdentity, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_IRowsetInfo, VT_BOOL, 1, Offer::ReadOnly, 1, Offer::ReadOnly},
    {DBPROP_CANHOLDROWS, VT_BOOL, 1, Offer::Writable, 1, Offer::Writable},
    {DBPROP_CANFETCHBACKWARDS, VT_BOOL, 0, Offer::ReadOnly, 1, Offer::Writable},
    {DBPROP_CANSCROLLBACKWARDS, VT_BOOL, 0, Offer::ReadOnly, 1, Offer::Writable},
    {DBPROP_BOOKMARKS, VT_BOOL, 0, Offer::ReadOnly, 0, Offer::No},
    {DBPROP_BOOKMARKSKIPPED, VT_BOOL, 0, Offer::ReadOnly, 0, Offer::No},
    {DBPROP_BOOKMARKTYPE, VT_I4, 0, Offer::ReadOnly, 0, Offer::No},
    {DBPROP_LITERALBOOKMARKS, VT_BOOL, 0, Offer::ReadOnly, 0, Offer::No},
    {DBPROP_ORDEREDBOOKMARKS, VT_BOOL, 0, Offer::ReadOnly, 0, Offer::No},
    {DBPROP_MAXOPENROWS, VT_I4, 0, Offer::No, 0, Offer::ReadOnly},
    {DBPROP_MAXROWS, VT_I4, 0, Offer::No, 0, Offer::Writable},
};

HRESULT Outcome(DBCOUNTITEM ok, DBCOUNTITEM failed) {
  if (failed == 0) return S_OK;
  return ok ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED;
}

class ScopedStopwatches {
 public:
  ScopedStopwatches(CStopwatch& in, CStopwatch& out) : in_(in), out_(out) {
    out_.Stop();
    in_.Start();
  }
  ~ScopedStopwatches() {
    in_.Stop();
    out_.Start();
  }

 private:
  CStopwatch& in_;
  CStopwatch& out_;
};

bool IsVariableLength(DBTYPE base) { return base == DBTYPE_STR || base == DBTYPE_WSTR || base == DBTYPE_BYTES; }

}  // namespace

// ---- Row handles

// Defined before their callers: each is a few instructions of every row's fetch, read
// and release, and worth inlining there.

static_assert(sizeof(HROW) == 8, "a handle holds a slot and its generation");

inline CRefCountedDataStoreRow* CProviderIRowset::RowHandleTable::Peek(HROW handle) const {
  const uint32_t slot1 = static_cast<uint32_t>(handle);
  if (slot1 == 0) return nullptr;
  uint64_t offset = slot1 - 1;
  const Slot* block = m_Blocks[offset < kFirstBlock ? 0 : BlockOf(slot1 - 1, &offset)].load(std::memory_order_acquire);
  if (!block) return nullptr;
  const Slot& slot = block[offset];
  if (slot.handle.load(std::memory_order_acquire) != handle) return nullptr;
  CRefCountedDataStoreRow* row = slot.row.load(std::memory_order_relaxed);
  // The handle again: unchanged means the row read is the one it held.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (slot.handle.load(std::memory_order_relaxed) != handle) return nullptr;
  return row;
}

inline CProviderIRowset::RowHandleTable::Slot* CProviderIRowset::RowHandleTable::Find(HROW handle) const {
  const uint32_t slot1 = static_cast<uint32_t>(handle);
  if (slot1 == 0 || slot1 > m_Used) return nullptr;
  Slot& slot = At(slot1 - 1);
  return slot.handle.load(std::memory_order_relaxed) == handle ? &slot : nullptr;
}

void CProviderIRowset::RowHandleTable::Reserve(size_t more) {
  constexpr uint64_t kMaxSlots = 0xFFFFFFFFull;  // the low half of a handle is slot + 1
  while (m_cFree + (m_Made - m_Used) < more) {
    uint64_t offset;
    const size_t k = BlockOf(m_Made, &offset);
    const uint64_t size = kFirstBlock << k;
    if (m_Made >= kMaxSlots) throw std::bad_alloc();
    // Both allocations first: a failure leaves the table as it was.
    auto free = std::make_unique<HROW[]>(static_cast<size_t>(std::min<uint64_t>(m_Made + size, kMaxSlots)));
    auto block = std::make_unique<Slot[]>(static_cast<size_t>(size));
    if (m_cFree) std::memcpy(free.get(), m_Free.get(), m_cFree * sizeof(HROW));
    m_Free = std::move(free);
    m_Owned[k] = std::move(block);
    m_Blocks[k].store(m_Owned[k].get(), std::memory_order_release);
    m_Made = std::min<uint64_t>(m_Made + size, kMaxSlots);
  }
}

inline HROW CProviderIRowset::RowHandleTable::Insert(CRefCountedDataStoreRow* row) {
  HROW handle;
  if (m_cFree) {
    handle = m_Free[--m_cFree];
  } else {
    handle = static_cast<HROW>(m_Used++) + 1;  // generation 0
  }
  Slot& slot = At(static_cast<uint32_t>(handle) - 1);
  // Erase cleared the handle; a reader that sees the new row must see that first.
  std::atomic_thread_fence(std::memory_order_release);
  slot.row.store(row, std::memory_order_relaxed);
  slot.refs = 1;
  slot.handle.store(handle, std::memory_order_release);
  return handle;
}

inline void CProviderIRowset::RowHandleTable::Erase(Slot* held) {
  const HROW handle = held->handle.load(std::memory_order_relaxed);
  held->handle.store(0, std::memory_order_relaxed);
  const uint32_t generation = static_cast<uint32_t>(handle >> 32) + 1;
  if (generation == 0) return;  // every handle of the slot was given: retired
  m_Free[m_cFree++] = (static_cast<HROW>(generation) << 32) | static_cast<uint32_t>(handle);  // within Reserve's room
}

using corvane::platform::CriticalSectionLock;

CProviderIRowset::CProviderIRowset(std::unique_ptr<CDataStore> store, RowsetKind kind, IUnknown* creator)
    : m_pStore(std::move(store)), m_Kind(kind), m_pCreator(creator) {
  if (m_pCreator) m_pCreator->AddRef();
  for (const RowsetProperty& p : kRowsetProperties) {
    const Offer offer = kind == RowsetKind::Command ? p.command : p.table;
    if (offer == Offer::No) continue;
    const LONG value = kind == RowsetKind::Command ? p.commandValue : p.tableValue;
    PropertyValue v{p.id, {}, offer == Offer::Writable};
    VariantInit(&v.value);
    V_VT(&v.value) = p.vt;
    if (p.vt == VT_BOOL) {
      V_BOOL(&v.value) = value ? VARIANT_TRUE : VARIANT_FALSE;
    } else {
      V_I4(&v.value) = value;
    }
    m_Properties.push_back(v);
  }
  corvane::module::Lock();
}

CProviderIRowset::~CProviderIRowset() {
  m_InTime.Stop();
  m_OutTime.Stop();
  const uint64_t inMs = m_InTime.TotalNanoseconds() / 1000000;
  const uint64_t outMs = m_OutTime.TotalNanoseconds() / 1000000;
  if (inMs != 0 || outMs != 0) {
    CVTRACE(TRACE_INFO, OLESTR("ProviderIRowset - elapsed time = %d ms (out time = %d ms)"), static_cast<int>(inMs),
            static_cast<int>(outMs));
  }
  // Rows before the store: they were laid out by its column description.
  m_Rows.ForEach([](RowHandleTable::Slot& held) { held.row.load(std::memory_order_relaxed)->Release(); });
  m_Accessors.clear();
  for (PropertyValue& p : m_Properties) VariantClear(&p.value);
  m_pStore.reset();
  if (m_pConvert) m_pConvert->Release();
  if (m_pCreator) m_pCreator->Release();
  corvane::module::Unlock();
}

HRESULT CProviderIRowset::Create(std::unique_ptr<CDataStore> store, RowsetKind kind, IUnknown* creator,
                                 REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  *ppv = nullptr;
  if (!store) return E_INVALIDARG;
  auto* rowset = new (std::nothrow) CProviderIRowset(std::move(store), kind, creator);
  if (!rowset) return E_OUTOFMEMORY;
  const HRESULT hr = rowset->QueryInterface(riid, ppv);
  rowset->Release();
  return hr;
}

// ---- IUnknown

HRESULT STDMETHODCALLTYPE CProviderIRowset::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IRowset)) {
    *ppv = static_cast<IRowset*>(this);
  } else if (IsEqualIID(riid, IID_IAccessor)) {
    *ppv = static_cast<IAccessor*>(this);
  } else if (IsEqualIID(riid, IID_IColumnsInfo)) {
    *ppv = static_cast<IColumnsInfo*>(this);
  } else if (IsEqualIID(riid, IID_IRowsetInfo)) {
    *ppv = static_cast<IRowsetInfo*>(this);
  } else if (IsEqualIID(riid, IID_IConvertType)) {
    *ppv = static_cast<IConvertType*>(this);
  } else if (IsEqualIID(riid, IID_IRowsetIdentity)) {
    *ppv = static_cast<IRowsetIdentity*>(this);
  } else if (IsEqualIID(riid, IID_ISupportErrorInfo)) {
    *ppv = static_cast<ISupportErrorInfo*>(this);
  } else {
    return QueryOtherInterface(riid, ppv);
  }
  AddRef();
  return S_OK;
}

HRESULT CProviderIRowset::QueryOtherInterface(REFIID, void**) { return E_NOINTERFACE; }

ULONG STDMETHODCALLTYPE CProviderIRowset::AddRef() { return ++m_cRef; }

ULONG STDMETHODCALLTYPE CProviderIRowset::Release() {
  const ULONG left = --m_cRef;
  if (left == 0) delete this;
  return left;
}

// ---- IRowset

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetNextRows(HCHAPTER /*hReserved*/, DBROWOFFSET lRowsOffset,
                                                        DBROWCOUNT cRows, DBCOUNTITEM* pcRowsObtained,
                                                        HROW** prghRows) {
  ScopedStopwatches watches(m_InTime, m_OutTime);
  CVTRACE(TRACE_DETAIL, OLESTR("IRowsetImpl::GetNextRows"));
  if (!pcRowsObtained || !prghRows) return E_INVALIDARG;
  *pcRowsObtained = 0;
  if (cRows == 0) return S_OK;
  corvane::ClearErrorRecords();
  CriticalSectionLock lock(m_Lock);
  const HRESULT hr = GetNextRowsLocked(lRowsOffset, cRows, pcRowsObtained, prghRows);
  // A historian failure in the middle of a read surfaces here, long after Execute
  // returned: the consumer needs the record to tell it from a bad argument.
  if (FAILED(hr)) {
    const OLECHAR* source =
        m_Kind == RowsetKind::Command ? OLESTR("CCommandProviderRowset class") : OLESTR("CTableProviderRowset class");
    // A function that failed on a row says why in its own words.
    const corvane::WString message = m_pStore->Producer() ? m_pStore->Producer()->FailureMessage() : corvane::WString();
    if (message.empty())
      corvane::PostFailure(IID_IRowset, hr, source);
    else
      corvane::PostErrorRecord(IID_IRowset, hr, source, corvane::DescribeFailure(IID_IRowset, message.c_str()).c_str());
  }
  return hr;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::InterfaceSupportsErrorInfo(REFIID riid) {
  return IsEqualIID(riid, IID_IRowset) ? S_OK : S_FALSE;
}

HRESULT CProviderIRowset::GetNextRowsLocked(DBROWOFFSET lRowsOffset, DBROWCOUNT cRows, DBCOUNTITEM* pcRowsObtained,
                                            HROW** prghRows) {
  if (lRowsOffset < 0) return DB_E_CANTSCROLLBACKWARDS;
  if (cRows < 0) return DB_E_CANTFETCHBACKWARDS;

  m_Batch.clear();
  const HRESULT hr = m_pStore->GetNextRows(static_cast<ULONGLONG>(lRowsOffset), static_cast<ULONGLONG>(cRows), m_Batch);
  m_bFetched = true;
  if (FAILED(hr) || m_Batch.empty()) {
    for (CRefCountedDataStoreRow* row : m_Batch) row->Release();
    m_Batch.clear();
    return hr;
  }

  const size_t n = m_Batch.size();
  bool allocated = false;
  if (!*prghRows) {
    const unsigned long long bytes = static_cast<unsigned long long>(n) * sizeof(HROW);
    HROW* array = bytes > 0x7FFFFFFFull ? nullptr : static_cast<HROW*>(CoTaskMemAlloc(static_cast<SIZE_T>(bytes)));
    if (!array) {
      for (CRefCountedDataStoreRow* row : m_Batch) row->Release();
      m_Batch.clear();
      return E_OUTOFMEMORY;
    }
    *prghRows = array;
    allocated = true;
  }
  try {
    m_Rows.Reserve(n);
  } catch (const std::bad_alloc&) {
    for (CRefCountedDataStoreRow* row : m_Batch) row->Release();
    m_Batch.clear();
    if (allocated) {
      CoTaskMemFree(*prghRows);
      *prghRows = nullptr;
    }
    return E_OUTOFMEMORY;
  }
  HROW* handles = *prghRows;
  for (size_t i = 0; i < n; ++i) {
    handles[i] = m_Rows.Insert(m_Batch[i]);
    CVTRACE(TRACE_DETAIL, OLESTR("CCommandIRowset::GetNextRows -> m_RowHandleGenerator = %d"),
            static_cast<int>(handles[i]));
  }
  m_Batch.clear();
  *pcRowsObtained = n;
  CVTRACE(TRACE_DETAIL, OLESTR("CCommandIRowset::GetNextRows -> pcRowsObtained = %d"), static_cast<int>(n));
  return hr;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::ReleaseRows(DBCOUNTITEM cRows, const HROW rghRows[],
                                                        DBROWOPTIONS /*rgRowOptions*/[], DBREFCOUNT rgRefCounts[],
                                                        DBROWSTATUS rgRowStatus[]) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::ReleaseRows"));
  if (cRows && !rghRows) return E_INVALIDARG;
  CriticalSectionLock lock(m_Lock);
  DBCOUNTITEM failed = 0;
  // The batch's rows go back to the store's pool a portion at a time.
  CRefCountedDataStoreRow::BatchRelease release;
  // False for a handle not held; *left: the references the row keeps.
  auto releaseOne = [&](HROW handle, DBREFCOUNT* left) {
    RowHandleTable::Slot* held = m_Rows.Find(handle);
    if (!held) {
      *left = 0;
      return false;
    }
    *left = --held->refs;
    if (*left == 0) {
      release.Add(held->row.load(std::memory_order_relaxed));
      m_Rows.Erase(held);
    }
    return true;
  };
  if (!rgRefCounts && !rgRowStatus) {
    // The usual call: a fetched batch let go, nothing asked back.
    for (DBCOUNTITEM i = 0; i < cRows; ++i) {
      DBREFCOUNT left;
      if (!releaseOne(rghRows[i], &left)) ++failed;
    }
  } else {
    for (DBCOUNTITEM i = 0; i < cRows; ++i) {
      DBREFCOUNT left;
      const bool held = releaseOne(rghRows[i], &left);
      if (!held) ++failed;
      if (rgRefCounts) rgRefCounts[i] = left;
      if (rgRowStatus) rgRowStatus[i] = held ? DBROWSTATUS_S_OK : DBROWSTATUS_E_INVALID;
    }
  }
  return Outcome(cRows - failed, failed);
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::AddRefRows(DBCOUNTITEM cRows, const HROW rghRows[],
                                                       DBREFCOUNT rgRefCounts[], DBROWSTATUS rgRowStatus[]) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::AddRefRows"));
  if (cRows && !rghRows) return E_INVALIDARG;
  CriticalSectionLock lock(m_Lock);
  DBCOUNTITEM ok = 0, failed = 0;
  for (DBCOUNTITEM i = 0; i < cRows; ++i) {
    RowHandleTable::Slot* held = m_Rows.Find(rghRows[i]);
    DBREFCOUNT count = 0;
    DBROWSTATUS status = DBROWSTATUS_S_OK;
    if (!held) {
      status = DBROWSTATUS_E_INVALID;
      ++failed;
    } else {
      count = ++held->refs;
      ++ok;
    }
    if (rgRefCounts) rgRefCounts[i] = count;
    if (rgRowStatus) rgRowStatus[i] = status;
  }
  return Outcome(ok, failed);
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::RestartPosition(HCHAPTER /*hReserved*/) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::RestartPosition"));
  CriticalSectionLock lock(m_Lock);
  return m_bFetched ? DB_E_CANNOTRESTART : S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetData(HROW hRow, HACCESSOR hAccessor, void* pData) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetData"));
  // The common call, the same accessor as the last one over a row in its slot, copies
  // without the lock: RowHandleTable says why the row is safe to read, and an accessor
  // object is never freed while the rowset lives, so the one read here is either this
  // handle's (its handle is set last) or found to be another's.
  const Accessor* accessor = m_pLastAccessor.load(std::memory_order_acquire);
  if (accessor && hAccessor != DB_NULL_HACCESSOR && accessor->handle.load(std::memory_order_acquire) == hAccessor &&
      pData && accessor->planGeneration == m_pStore->LayoutGeneration()) {
    if (const CRefCountedDataStoreRow* row = m_Rows.Peek(hRow)) {
      if (m_pStore->CopyPlanned(accessor->bindings.data(), accessor->bindings.size(), accessor->plan.data(), row,
                                static_cast<BYTE*>(pData)))
        return S_OK;
    }
  }
  return GetDataWithLock(hRow, hAccessor, pData);
}

HRESULT CProviderIRowset::GetDataWithLock(HROW hRow, HACCESSOR hAccessor, void* pData) {
  // Out of line, so that the common call above saves and restores no more than it uses.
  CriticalSectionLock lock(m_Lock);
  const RowHandleTable::Slot* row = m_Rows.Find(hRow);
  if (!row) return DB_E_BADROWHANDLE;
  auto found = m_Accessors.find(hAccessor);
  if (found == m_Accessors.end()) return DB_E_BADACCESSORHANDLE;
  Accessor& accessor = *found->second;
  if (!pData && !accessor.bindings.empty()) return E_INVALIDARG;
  if (accessor.planGeneration != m_pStore->LayoutGeneration()) PlanAccessor(accessor);
  m_pLastAccessor.store(&accessor, std::memory_order_release);
  return m_pStore->GetData(accessor.bindings.data(), accessor.bindings.size(),
                           row->row.load(std::memory_order_relaxed), static_cast<BYTE*>(pData),
                           accessor.plan.empty() ? nullptr : accessor.plan.data());
}

void CProviderIRowset::PlanAccessor(Accessor& accessor) {
  try {
    accessor.plan = m_pStore->PlanBindings(accessor.bindings.data(), accessor.bindings.size());
    accessor.planGeneration = m_pStore->LayoutGeneration();
  } catch (const std::bad_alloc&) {
    // The general path needs no plan; without one the lock-free path is never taken.
    accessor.plan.clear();
    accessor.planGeneration = ~0ull;
  }
}

// ---- IAccessor

DBBINDSTATUS CProviderIRowset::ValidateBinding(const DBBINDING& b) {
  constexpr DBPART kParts = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
  if (b.dwPart == 0 || (b.dwPart & ~kParts)) return DBBINDSTATUS_BADBINDINFO;
  if (b.iOrdinal == 0 || b.iOrdinal > m_pStore->ColumnCount()) return DBBINDSTATUS_BADORDINAL;
  const DBTYPE base = b.wType & ~(DBTYPE_BYREF | DBTYPE_ARRAY | DBTYPE_VECTOR);
  if (base == DBTYPE_EMPTY || base == DBTYPE_NULL || (b.wType & DBTYPE_RESERVED)) return DBBINDSTATUS_BADBINDINFO;
  const int modifiers = ((b.wType & DBTYPE_BYREF) ? 1 : 0) + ((b.wType & DBTYPE_ARRAY) ? 1 : 0) +
                        ((b.wType & DBTYPE_VECTOR) ? 1 : 0);
  if (modifiers > 1) return DBBINDSTATUS_BADBINDINFO;
  if (b.eParamIO != DBPARAMIO_NOTPARAM) return DBBINDSTATUS_BADBINDINFO;
  if (b.pBindExt) return DBBINDSTATUS_BADBINDINFO;
  if (b.dwFlags & ~static_cast<DWORD>(DBBINDFLAG_HTML)) return DBBINDSTATUS_BADBINDINFO;
  if ((b.dwFlags & DBBINDFLAG_HTML) && base != DBTYPE_STR && base != DBTYPE_WSTR && base != DBTYPE_BSTR)
    return DBBINDSTATUS_BADBINDINFO;
  const DataStoreColumnInfo& col = m_pStore->ColumnInfo()[b.iOrdinal - 1];
  if (b.dwMemOwner == DBMEMOWNER_PROVIDEROWNED) {
    // The consumer gets the stored value's own address: only for a reference to the
    // very type the cell holds.
    if (!(b.wType & DBTYPE_BYREF) || base != (col.wType & ~DBTYPE_BYREF)) return DBBINDSTATUS_BADBINDINFO;
    return DBBINDSTATUS_OK;
  }
  if (b.dwMemOwner != DBMEMOWNER_CLIENTOWNED) return DBBINDSTATUS_BADBINDINFO;
  IDataConvert* convert = nullptr;
  if (FAILED(ConversionService(&convert)) || convert->CanConvert(col.wType, b.wType) != S_OK)
    return DBBINDSTATUS_UNSUPPORTEDCONVERSION;
  return DBBINDSTATUS_OK;
}

HRESULT CProviderIRowset::ConversionService(IDataConvert** convert) {
  if (!m_pConvert) {
    const HRESULT hr = corvane::CreateDataConvert(&m_pConvert);
    if (FAILED(hr)) return hr;
  }
  *convert = m_pConvert;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::CreateAccessor(DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                                                           const DBBINDING rgBindings[], DBLENGTH /*cbRowSize*/,
                                                           HACCESSOR* phAccessor, DBBINDSTATUS rgStatus[]) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::CreateAccessor"));
  if (!phAccessor) return E_INVALIDARG;
  *phAccessor = DB_NULL_HACCESSOR;
  if (cBindings && !rgBindings) return E_INVALIDARG;
  constexpr DBACCESSORFLAGS kKnown =
      DBACCESSOR_PASSBYREF | DBACCESSOR_ROWDATA | DBACCESSOR_PARAMETERDATA | DBACCESSOR_OPTIMIZED;
  if ((dwAccessorFlags & ~kKnown) || !(dwAccessorFlags & DBACCESSOR_ROWDATA) ||
      (dwAccessorFlags & DBACCESSOR_PARAMETERDATA))
    return DB_E_BADACCESSORFLAGS;
  if (dwAccessorFlags & DBACCESSOR_PASSBYREF) return DB_E_BYREFACCESSORNOTSUPPORTED;
  if (cBindings == 0) return DB_E_NULLACCESSORNOTSUPPORTED;

  CriticalSectionLock lock(m_Lock);
  bool bad = false;
  for (DBCOUNTITEM i = 0; i < cBindings; ++i) {
    const DBBINDSTATUS status = ValidateBinding(rgBindings[i]);
    if (status != DBBINDSTATUS_OK) bad = true;
    if (rgStatus) rgStatus[i] = status;
  }
  if (bad) return DB_E_BADBINDINFO;

  std::unique_ptr<Accessor> accessor;
  bool reused = false;
  try {
    if (!m_FreeAccessors.empty()) {
      accessor = std::move(m_FreeAccessors.back());
      m_FreeAccessors.pop_back();
      reused = true;
    } else {
      accessor = std::make_unique<Accessor>();
    }
    accessor->flags = dwAccessorFlags;
    accessor->refs = 1;
    accessor->objects.clear();
    accessor->bindings.assign(rgBindings, rgBindings + cBindings);
    for (DBBINDING& b : accessor->bindings) {
      if (b.pObject) {
        accessor->objects.push_back(std::make_unique<DBOBJECT>(*b.pObject));
        b.pObject = accessor->objects.back().get();
      }
    }
    PlanAccessor(*accessor);
    // Every accessor has room among the free ones: ReleaseAccessor cannot fail.
    m_FreeAccessors.reserve(m_Accessors.size() + m_FreeAccessors.size() + 1);
    const HACCESSOR handle = m_AccessorGenerator + 1;
    Accessor* made = accessor.get();
    m_Accessors.emplace(handle, std::move(accessor));
    m_AccessorGenerator = handle;
    // Last, so that a GetData that finds this handle finds the bindings and plan too.
    made->handle.store(handle, std::memory_order_release);
    *phAccessor = handle;
  } catch (const std::bad_alloc&) {
    // A reused accessor goes back where it came from (its place is still there): GetData
    // may still hold it as the last one used.
    if (accessor && reused) m_FreeAccessors.push_back(std::move(accessor));
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

HRESULT CProviderIRowset::InheritAccessor(HACCESSOR hAccessor, DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                                          const DBBINDING rgBindings[]) {
  if (hAccessor == DB_NULL_HACCESSOR) return DB_E_BADACCESSORHANDLE;
  HACCESSOR made = DB_NULL_HACCESSOR;
  const HRESULT hr = CreateAccessor(dwAccessorFlags, cBindings, rgBindings, 0, &made, nullptr);
  if (FAILED(hr)) return hr;
  CriticalSectionLock lock(m_Lock);
  if (made != hAccessor) {
    if (m_Accessors.count(hAccessor)) {
      // Kept like a released accessor: it may be a reused object GetData still knows.
      auto it = m_Accessors.find(made);
      it->second->handle.store(DB_NULL_HACCESSOR, std::memory_order_release);
      m_FreeAccessors.push_back(std::move(it->second));
      m_Accessors.erase(it);
      return DB_E_BADACCESSORHANDLE;
    }
    // Rehomed under the command's handle; the node, and so the accessor, stays put.
    auto node = m_Accessors.extract(made);
    node.key() = hAccessor;
    node.mapped()->handle.store(hAccessor, std::memory_order_release);
    m_Accessors.insert(std::move(node));
  }
  if (hAccessor > m_AccessorGenerator) m_AccessorGenerator = hAccessor;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::AddRefAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::AddRefAccessor"));
  CriticalSectionLock lock(m_Lock);
  auto it = m_Accessors.find(hAccessor);
  if (it == m_Accessors.end()) return DB_E_BADACCESSORHANDLE;
  const DBREFCOUNT refs = ++it->second->refs;
  if (pcRefCount) *pcRefCount = refs;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::ReleaseAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::ReleaseAccessor"));
  CriticalSectionLock lock(m_Lock);
  auto it = m_Accessors.find(hAccessor);
  if (it == m_Accessors.end()) return DB_E_BADACCESSORHANDLE;
  const DBREFCOUNT refs = --it->second->refs;
  if (refs == 0) {
    it->second->handle.store(DB_NULL_HACCESSOR, std::memory_order_release);
    m_FreeAccessors.push_back(std::move(it->second));  // room was reserved when it was made
    m_Accessors.erase(it);
  }
  if (pcRefCount) *pcRefCount = refs;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetBindings(HACCESSOR hAccessor, DBACCESSORFLAGS* pdwAccessorFlags,
                                                        DBCOUNTITEM* pcBindings, DBBINDING** prgBindings) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetBindings"));
  if (!pdwAccessorFlags || !pcBindings || !prgBindings) return E_INVALIDARG;
  *pdwAccessorFlags = DBACCESSOR_INVALID;
  *pcBindings = 0;
  *prgBindings = nullptr;
  CriticalSectionLock lock(m_Lock);
  auto it = m_Accessors.find(hAccessor);
  if (it == m_Accessors.end()) return DB_E_BADACCESSORHANDLE;
  const std::vector<DBBINDING>& bindings = it->second->bindings;
  auto* out = static_cast<DBBINDING*>(CoTaskMemAlloc(bindings.size() * sizeof(DBBINDING)));
  if (!out) return E_OUTOFMEMORY;
  for (size_t i = 0; i < bindings.size(); ++i) {
    out[i] = bindings[i];
    if (bindings[i].pObject) {
      // The consumer frees each binding's object with the task allocator.
      out[i].pObject = static_cast<DBOBJECT*>(CoTaskMemAlloc(sizeof(DBOBJECT)));
      if (!out[i].pObject) {
        for (size_t k = 0; k < i; ++k) CoTaskMemFree(out[k].pObject);
        CoTaskMemFree(out);
        return E_OUTOFMEMORY;
      }
      *out[i].pObject = *bindings[i].pObject;
    }
  }
  *pdwAccessorFlags = it->second->flags;
  *pcBindings = bindings.size();
  *prgBindings = out;
  return S_OK;
}

// ---- IColumnsInfo

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetColumnInfo(DBORDINAL* pcColumns, DBCOLUMNINFO** prgInfo,
                                                          OLECHAR** ppStringsBuffer) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetColumnInfo"));
  if (pcColumns) *pcColumns = 0;
  if (prgInfo) *prgInfo = nullptr;
  if (ppStringsBuffer) *ppStringsBuffer = nullptr;
  if (!pcColumns || !prgInfo || !ppStringsBuffer) return E_INVALIDARG;
  CriticalSectionLock lock(m_Lock);
  const DBORDINAL n = m_pStore->ColumnCount();
  if (n == 0) return S_OK;
  const DataStoreColumnInfo* columns = m_pStore->ColumnInfo();
  size_t chars = 0;
  for (DBORDINAL i = 0; i < n; ++i) chars += corvane::WLen(columns[i].pwszName) + 1;
  auto* info = static_cast<DBCOLUMNINFO*>(CoTaskMemAlloc(n * sizeof(DBCOLUMNINFO)));
  auto* strings = static_cast<OLECHAR*>(CoTaskMemAlloc(chars * sizeof(OLECHAR)));
  if (!info || !strings) {
    CoTaskMemFree(info);
    CoTaskMemFree(strings);
    return E_OUTOFMEMORY;
  }
  OLECHAR* next = strings;
  for (DBORDINAL i = 0; i < n; ++i) {
    info[i] = static_cast<const DBCOLUMNINFO&>(columns[i]);
    const size_t len = corvane::WLen(columns[i].pwszName);
    if (len) std::memcpy(next, columns[i].pwszName, len * sizeof(OLECHAR));
    next[len] = 0;
    info[i].pwszName = next;
    info[i].columnid.uName.pwszName = next;
    next += len + 1;
  }
  *pcColumns = n;
  *prgInfo = info;
  *ppStringsBuffer = strings;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::MapColumnIDs(DBORDINAL cColumnIDs, const DBID rgColumnIDs[],
                                                         DBORDINAL rgColumns[]) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::MapColumnIDs"));
  if (cColumnIDs && (!rgColumnIDs || !rgColumns)) return E_INVALIDARG;
  CriticalSectionLock lock(m_Lock);
  const DBORDINAL n = m_pStore->ColumnCount();
  const DataStoreColumnInfo* columns = m_pStore->ColumnInfo();
  DBCOUNTITEM ok = 0, failed = 0;
  for (DBORDINAL i = 0; i < cColumnIDs; ++i) {
    rgColumns[i] = DB_INVALIDCOLUMN;
    const DBID& id = rgColumnIDs[i];
    if (id.eKind == DBKIND_NAME && id.uName.pwszName) {
      for (DBORDINAL c = 0; c < n; ++c) {
        if (corvane::WICmp(id.uName.pwszName, columns[c].pwszName) == 0) {
          rgColumns[i] = columns[c].iOrdinal;
          break;
        }
      }
    }
    if (rgColumns[i] == DB_INVALIDCOLUMN) {
      ++failed;
    } else {
      ++ok;
    }
  }
  return Outcome(ok, failed);
}

// ---- IRowsetInfo

HRESULT CProviderIRowset::FillPropertySet(const DBPROPIDSET* request, DBPROPSET* out, ULONG* okCount,
                                          ULONG* errorCount) {
  out->guidPropertySet = request ? request->guidPropertySet : kRowsetPropertySet;
  out->cProperties = 0;
  out->rgProperties = nullptr;
  const bool rowsetSet = IsEqualGUID(out->guidPropertySet, kRowsetPropertySet);
  const ULONG wanted = (request && request->cPropertyIDs) ? request->cPropertyIDs
                                                           : (rowsetSet ? static_cast<ULONG>(m_Properties.size()) : 0);
  if (wanted == 0) {
    if (!rowsetSet) ++*errorCount;  // a set this rowset does not have
    return S_OK;
  }
  auto* props = static_cast<DBPROP*>(CoTaskMemAlloc(wanted * sizeof(DBPROP)));
  if (!props) return E_OUTOFMEMORY;
  for (ULONG i = 0; i < wanted; ++i) {
    DBPROP& p = props[i];
    std::memset(static_cast<void*>(&p), 0, sizeof p);
    p.dwOptions = DBPROPOPTIONS_REQUIRED;
    VariantInit(&p.vValue);
    const PropertyValue* found = nullptr;
    if (request && request->cPropertyIDs) {
      p.dwPropertyID = request->rgPropertyIDs[i];
      if (rowsetSet) {
        for (const PropertyValue& v : m_Properties) {
          if (v.id == p.dwPropertyID) found = &v;
        }
      }
    } else {
      found = &m_Properties[i];
      p.dwPropertyID = found->id;
    }
    if (found) {
      p.dwStatus = DBPROPSTATUS_OK;
      VariantCopy(&p.vValue, const_cast<VARIANT*>(&found->value));
      ++*okCount;
    } else {
      p.dwStatus = DBPROPSTATUS_NOTSUPPORTED;
      ++*errorCount;
    }
  }
  out->rgProperties = props;
  out->cProperties = wanted;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetProperties(const ULONG cPropertyIDSets,
                                                          const DBPROPIDSET rgPropertyIDSets[], ULONG* pcPropertySets,
                                                          DBPROPSET** prgPropertySets) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetProperties"));
  if (pcPropertySets) *pcPropertySets = 0;
  if (prgPropertySets) *prgPropertySets = nullptr;
  if (!pcPropertySets || !prgPropertySets) return E_INVALIDARG;
  if (cPropertyIDSets && !rgPropertyIDSets) return E_INVALIDARG;
  for (ULONG i = 0; i < cPropertyIDSets; ++i) {
    if (rgPropertyIDSets[i].cPropertyIDs && !rgPropertyIDSets[i].rgPropertyIDs) return E_INVALIDARG;
  }
  CriticalSectionLock lock(m_Lock);
  const ULONG sets = cPropertyIDSets ? cPropertyIDSets : 1;
  auto* out = static_cast<DBPROPSET*>(CoTaskMemAlloc(sets * sizeof(DBPROPSET)));
  if (!out) return E_OUTOFMEMORY;
  ULONG ok = 0, errors = 0;
  for (ULONG i = 0; i < sets; ++i) {
    const HRESULT hr = FillPropertySet(cPropertyIDSets ? &rgPropertyIDSets[i] : nullptr, &out[i], &ok, &errors);
    if (FAILED(hr)) {
      for (ULONG k = 0; k < i; ++k) {
        for (ULONG p = 0; p < out[k].cProperties; ++p) VariantClear(&out[k].rgProperties[p].vValue);
        CoTaskMemFree(out[k].rgProperties);
      }
      CoTaskMemFree(out);
      return hr;
    }
  }
  *pcPropertySets = sets;
  *prgPropertySets = out;
  if (errors == 0) return S_OK;
  return ok ? DB_S_ERRORSOCCURRED : DB_E_ERRORSOCCURRED;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetReferencedRowset(DBORDINAL iOrdinal, REFIID /*riid*/,
                                                                IUnknown** ppReferencedRowset) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetReferencedRowset"));
  if (!ppReferencedRowset) return E_INVALIDARG;
  *ppReferencedRowset = nullptr;
  // No bookmark column, so ordinal 0 does not exist either.
  if (iOrdinal == 0 || iOrdinal > m_pStore->ColumnCount()) return DB_E_BADORDINAL;
  return DB_E_NOTAREFERENCECOLUMN;
}

HRESULT STDMETHODCALLTYPE CProviderIRowset::GetSpecification(REFIID riid, IUnknown** ppSpecification) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::GetSpecification"));
  if (!ppSpecification) return E_INVALIDARG;
  *ppSpecification = nullptr;
  if (!m_pCreator) return S_FALSE;
  return m_pCreator->QueryInterface(riid, reinterpret_cast<void**>(ppSpecification));
}

HRESULT CProviderIRowset::SetRowsetProperty(DBPROPID id, const VARIANT& value) {
  CriticalSectionLock lock(m_Lock);
  for (PropertyValue& p : m_Properties) {
    if (p.id != id) continue;
    if (!p.writable) return DB_E_READONLY;
    if (V_VT(&value) != V_VT(&p.value)) return DB_E_BADTYPE;
    return VariantCopy(&p.value, const_cast<VARIANT*>(&value));
  }
  return DB_E_NOTSUPPORTED;
}

// ---- IConvertType

HRESULT STDMETHODCALLTYPE CProviderIRowset::CanConvert(DBTYPE wFromType, DBTYPE wToType,
                                                       DBCONVERTFLAGS dwConvertFlags) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::CanConvert"));
  constexpr DBCONVERTFLAGS kKnown = DBCONVERTFLAGS_PARAMETER | DBCONVERTFLAGS_ISLONG | DBCONVERTFLAGS_ISFIXEDLENGTH |
                                    DBCONVERTFLAGS_FROMVARIANT;
  if (dwConvertFlags & ~kKnown) return DB_E_BADCONVERTFLAG;
  // A rowset converts columns, never parameters.
  if (dwConvertFlags & DBCONVERTFLAGS_PARAMETER) return DB_E_BADCONVERTFLAG;
  const DBTYPE fromBase = wFromType & ~(DBTYPE_BYREF | DBTYPE_ARRAY | DBTYPE_VECTOR);
  if ((dwConvertFlags & DBCONVERTFLAGS_ISLONG) && !IsVariableLength(fromBase)) return DB_E_BADCONVERTFLAG;
  if (dwConvertFlags & DBCONVERTFLAGS_FROMVARIANT) {
    const bool variantType = fromBase <= DBTYPE_DECIMAL || (fromBase >= DBTYPE_I1 && fromBase <= DBTYPE_UI8);
    if (!variantType || (wFromType & DBTYPE_VECTOR)) return DB_E_BADTYPE;
  }
  IDataConvert* convert = nullptr;
  CriticalSectionLock lock(m_Lock);
  const HRESULT hr = ConversionService(&convert);
  if (FAILED(hr)) return hr;
  return convert->CanConvert(wFromType, wToType) == S_OK ? S_OK : S_FALSE;
}

// ---- IRowsetIdentity

HRESULT STDMETHODCALLTYPE CProviderIRowset::IsSameRow(HROW hThisRow, HROW hThatRow) {
  CVTRACE(TRACE_DETAIL, OLESTR("Called CProviderIRowset::IsSameRow"));
  CriticalSectionLock lock(m_Lock);
  const RowHandleTable::Slot* a = m_Rows.Find(hThisRow);
  const RowHandleTable::Slot* b = m_Rows.Find(hThatRow);
  if (!a || !b) return DB_E_BADROWHANDLE;
  return a->row.load(std::memory_order_relaxed) == b->row.load(std::memory_order_relaxed) ? S_OK : S_FALSE;
}
