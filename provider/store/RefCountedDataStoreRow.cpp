#include "provider/store/RefCountedDataStoreRow.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;

bool IsTextCell(DBTYPE type) { return type == DBTYPE_WSTR || type == DBTYPE_STR; }

}  // namespace

CRefCountedDataStoreRow::CRefCountedDataStoreRow(Pool* pool) : m_pPool(pool) {}

CRefCountedDataStoreRow::~CRefCountedDataStoreRow() { CoTaskMemFree(m_pText); }

ULONG CRefCountedDataStoreRow::Release() {
  if (LastReference()) {
    m_pPool->GiveBack(this);
    return 0;
  }
  const ULONG left = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) m_pPool->GiveBack(this);
  return left;
}

void CRefCountedDataStoreRow::ReleaseMany(CRefCountedDataStoreRow* const* rows, size_t count) {
  BatchRelease release;
  for (size_t i = 0; i < count; ++i) release.Add(rows[i]);
}

const void* CRefCountedDataStoreRow::StoreText(const void* bytes, size_t n, size_t terminator) {
  const size_t start = (size_t{m_cbTextUsed} + 1) & ~size_t{1};
  const size_t end = start + n + terminator;
  if (end < start || end > UINT32_MAX) return nullptr;
  if (end > m_cbTextCapacity) {
    size_t capacity = std::max<size_t>(64, m_cbTextCapacity);
    while (capacity < end) capacity *= 2;
    capacity = std::min<size_t>(capacity, UINT32_MAX);
    auto* grown = static_cast<BYTE*>(CoTaskMemAlloc(capacity));
    if (!grown) return nullptr;
    if (m_cbTextUsed) std::memcpy(grown, m_pText, m_cbTextUsed);
    // The cells written so far point into the old buffer.
    const DataStoreColumnInfo* columns = Columns();
    for (DBORDINAL i = 0, count = ColumnCount(); i < count; ++i) {
      const DataStoreColumnInfo& col = columns[i];
      if (!IsTextCell(col.wType) || Buffer()[col.cbStatus] == 0) continue;
      StoredText cell;
      std::memcpy(&cell, Buffer() + col.cbOffset, sizeof cell);
      const BYTE* at = static_cast<const BYTE*>(cell.text);
      if (m_pText && at >= m_pText && at < m_pText + m_cbTextUsed) {
        cell.text = grown + (at - m_pText);
        std::memcpy(Buffer() + col.cbOffset, &cell, sizeof cell);
      }
    }
    CoTaskMemFree(m_pText);
    m_pText = grown;
    m_cbTextCapacity = static_cast<uint32_t>(capacity);
    if (capacity > Pool::kMaxKeptText) m_bOwns = true;
  }
  BYTE* copy = m_pText + start;
  if (n) std::memcpy(copy, bytes, n);
  // A wide character's terminator is two stores, not a call: this runs for each text cell.
  if (terminator == 2) {
    copy[n] = 0;
    copy[n + 1] = 0;
  } else if (terminator) {
    std::memset(copy + n, 0, terminator);
  }
  m_cbTextUsed = static_cast<uint32_t>(end);
  return copy;
}

void CRefCountedDataStoreRow::ReleaseContents(const std::vector<DBORDINAL>& owning) {
  const DataStoreColumnInfo* columns = Columns();
  for (DBORDINAL i : owning) {
    const DataStoreColumnInfo& col = columns[i];
    BYTE* value = Buffer() + col.cbOffset;
    if (col.wType == DBTYPE_VARIANT) {
      VARTYPE vt;
      std::memcpy(&vt, value, sizeof vt);
      // A plain value is simply overwritten by the next row.
      if (OwnsNothing(vt)) continue;
      VariantClear(reinterpret_cast<VARIANT*>(value));
    } else {
      void* text = nullptr;
      std::memcpy(&text, value, sizeof text);
      if (!text) continue;
      CoTaskMemFree(text);
      text = nullptr;
      std::memcpy(value, &text, sizeof text);
    }
  }
  m_cbTextUsed = 0;
  m_bOwns = false;
  if (m_cbTextCapacity > Pool::kMaxKeptText) {
    CoTaskMemFree(m_pText);
    m_pText = nullptr;
    m_cbTextCapacity = 0;
  }
}

// ---- Pool

CRefCountedDataStoreRow::Pool::Pool(const DataStoreColumnInfo* columns, DBORDINAL count, DBLENGTH rowSize)
    : m_pColumns(columns), m_cColumns(count), m_cbRowSize(rowSize), m_cbStatus(0) {
  for (DBORDINAL i = 0; i < count; ++i) {
    m_cbStatus = std::max<DBLENGTH>(m_cbStatus, columns[i].cbStatus + 1);
    if (columns[i].wType == DBTYPE_VARIANT || columns[i].wType == kStrRef || columns[i].wType == kWStrRef)
      m_Owning.push_back(i);
  }
  DBBYTEOFFSET firstValue = rowSize;
  for (DBORDINAL i = 0; i < count; ++i) firstValue = std::min(firstValue, columns[i].cbOffset);
  m_bStatusWord = firstValue >= sizeof(uint64_t);
  const size_t perRow = sizeof(CRefCountedDataStoreRow) + static_cast<size_t>(rowSize);
  m_MaxFree = std::min<size_t>(kMaxFreeRows, kMaxFreeBytes / perRow);
  m_pFreeRows.reset(new (std::nothrow) CRefCountedDataStoreRow*[m_MaxFree]);
  if (!m_pFreeRows) m_MaxFree = 0;  // rows are then freed when given back
}

CRefCountedDataStoreRow::Pool::~Pool() {
  for (OLECHAR* block : m_SharedBlocks) delete[] block;
}

namespace {
constexpr size_t kLine = 64;
}  // namespace

size_t CRefCountedDataStoreRow::Pool::TakeMany(CRefCountedDataStoreRow** rows, size_t count) {
  size_t reused = 0;
  Lock();
  // Newest first: the rows given back last are the likeliest still in the cache.
  for (; reused < count && reused < m_cFree; ++reused) rows[reused] = m_pFreeRows[m_cFree - 1 - reused];
  m_cFree -= reused;
  m_cOut += count;
  Unlock();

  for (size_t i = 0; i < reused; ++i) {
    CRefCountedDataStoreRow* row = rows[i];
    row->m_cRef.store(1, std::memory_order_relaxed);
    // Its text is forgotten here, where the row's line is written anyway, and not when it
    // is given back.
    row->m_cbTextUsed = 0;
    // Released contents are already empty cells; only the status bytes still say
    // what the previous row held.
    if (m_bStatusWord) {
      // Most rows have few columns: one store, over the padding before the first value.
      const uint64_t none = 0;
      std::memcpy(row->Buffer(), &none, sizeof none);
    } else {
      std::memset(row->Buffer(), 0, static_cast<size_t>(m_cbStatus));
    }
  }

  size_t made = reused;
  for (; made < count; ++made) {
    // The row and its buffer in one block: a row's cells start in its own cache lines.
    void* raw = CoTaskMemAlloc(kLine + sizeof(CRefCountedDataStoreRow) + static_cast<size_t>(m_cbRowSize));
    if (!raw) break;
    const size_t shift = (kLine - reinterpret_cast<uintptr_t>(raw) % kLine) % kLine;
    BYTE* block = static_cast<BYTE*>(raw) + shift;
    BYTE* buffer = block + sizeof(CRefCountedDataStoreRow);
    std::memset(buffer, 0, static_cast<size_t>(m_cbRowSize));
    for (DBORDINAL i : m_Owning) {
      if (m_pColumns[i].wType == DBTYPE_VARIANT) VariantInit(reinterpret_cast<VARIANT*>(buffer + m_pColumns[i].cbOffset));
    }
    rows[made] = new (block) CRefCountedDataStoreRow(this);
    rows[made]->m_Shift = static_cast<uint8_t>(shift);
  }
  if (made == count) return made;
  Lock();
  m_cOut -= count - made;
  const bool last = m_bDetached && m_cOut == 0;
  Unlock();
  if (last) delete this;
  return made;
}

void CRefCountedDataStoreRow::Pool::Destroy(CRefCountedDataStoreRow* row) {
  const size_t shift = row->m_Shift;
  row->~CRefCountedDataStoreRow();
  CoTaskMemFree(reinterpret_cast<BYTE*>(row) - shift);
}

void CRefCountedDataStoreRow::Pool::GiveBackMany(CRefCountedDataStoreRow* const* rows, size_t count) {
  // Rows that own nothing keep their cells and text as they are: TakeMany makes them empty.
  for (size_t i = 0; i < count; ++i) {
    if (rows[i]->m_bOwns) rows[i]->ReleaseContents(m_Owning);
  }
  Lock();
  m_cOut -= count;
  // The free array keeps what it has room for; the rest are freed outside the lock.
  const size_t kept = m_bDetached ? 0 : std::min(count, m_MaxFree - m_cFree);
  if (kept) std::memcpy(m_pFreeRows.get() + m_cFree, rows, kept * sizeof *rows);
  m_cFree += kept;
  const bool last = m_bDetached && m_cOut == 0;
  Unlock();
  for (size_t i = kept; i < count; ++i) Destroy(rows[i]);
  if (last) delete this;
}

void CRefCountedDataStoreRow::Pool::Trim() {
  Lock();
  std::unique_ptr<CRefCountedDataStoreRow*[]> free = std::move(m_pFreeRows);
  const size_t count = m_cFree;
  m_cFree = 0;
  m_MaxFree = 0;
  Unlock();
  for (size_t i = 0; i < count; ++i) Destroy(free[i]);
}

void CRefCountedDataStoreRow::Pool::Detach() {
  Trim();
  Lock();
  m_bDetached = true;
  const bool last = m_cOut == 0;
  Unlock();
  if (last) delete this;
}

const OLECHAR* CRefCountedDataStoreRow::Pool::ShareText(const OLECHAR* text, size_t length) {
  const corvane::WStringView key(text, length);
  auto found = m_Shared.find(key);
  if (found != m_Shared.end()) return found->second;
  if (length >= kSharedBlock || m_SharedTotal + length + 1 > kMaxSharedChars) return nullptr;
  if (m_SharedBlocks.empty() || m_SharedUsed + length + 1 > kSharedBlock) {
    auto* block = new (std::nothrow) OLECHAR[kSharedBlock];
    if (!block) return nullptr;
    try {
      m_SharedBlocks.push_back(block);
    } catch (const std::bad_alloc&) {
      delete[] block;
      return nullptr;
    }
    m_SharedUsed = 0;
  }
  OLECHAR* copy = m_SharedBlocks.back() + m_SharedUsed;
  if (length) std::memcpy(copy, text, length * sizeof(OLECHAR));
  copy[length] = 0;
  try {
    m_Shared.emplace(corvane::WStringView(copy, length), copy);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  m_SharedUsed += length + 1;
  m_SharedTotal += length + 1;
  return copy;
}
