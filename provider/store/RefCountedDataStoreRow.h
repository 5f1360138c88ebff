// One row of a data store: the status bytes and cells laid out by the store's column
// description, and the text of its text cells. Counted, so that a row handed to the
// consumer outlives its place in the store's queue for as long as the rowset holds a
// handle to it. Rows are made only by their store's pool.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"

// A rowset column as the store describes it: the OLE DB column information followed
// by where the column's value and status byte are in the row buffer.
struct DataStoreColumnInfo : DBCOLUMNINFO {
  DBBYTEOFFSET cbOffset;  // the value, aligned for its type
  DBBYTEOFFSET cbStatus;  // the status byte; every status byte comes before the values
};

// The cell of a DBTYPE_WSTR or DBTYPE_STR column: its text (characters or bytes) with a
// terminator after `length` of them. A column's size bounds the length, not the row:
// the text lives in the row's own text buffer, or, for text the producer lends and
// repeats (a tag's name, a status text), once in the store's shared texts.
struct StoredText {
  const void* text;
  size_t length;
};

class CRefCountedDataStoreRow {
 public:
  class Pool;

  CRefCountedDataStoreRow(const CRefCountedDataStoreRow&) = delete;
  CRefCountedDataStoreRow& operator=(const CRefCountedDataStoreRow&) = delete;

  // A new row is created with one reference, held by whoever created it.
  ULONG AddRef() { return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1; }
  // Frees the contents and gives the row back to its pool on the last release.
  ULONG Release();
  class BatchRelease;
  // Release of each of `rows`, with the rows whose last reference went given back to
  // their pool in one step.
  static void ReleaseMany(CRefCountedDataStoreRow* const* rows, size_t count);

  // The cells follow the row in the same block: found without a load, so that a read of
  // a cell does not first wait for the row's line.
  BYTE* Buffer() const { return reinterpret_cast<BYTE*>(const_cast<CRefCountedDataStoreRow*>(this) + 1); }
  // The layout is the pool's, the same for all its rows.
  inline DBLENGTH Size() const;
  inline const DataStoreColumnInfo* Columns() const;
  inline DBORDINAL ColumnCount() const;
  // Bytes the row takes with its text, for memory accounting.
  size_t Footprint() const { return sizeof(*this) + static_cast<size_t>(Size()) + m_cbTextCapacity; }

  // Copies `bytes` and `terminator` zero bytes into the row's text buffer and returns
  // the copy, 2-byte aligned; null when memory runs out. Text cells already written
  // keep pointing at their text when the buffer has to grow.
  const void* StoreText(const void* bytes, size_t n, size_t terminator);

  // EMPTY..DATE, ERROR, BOOL and I1..UINT: the types whose VARIANT is its bytes, one bit
  // a type. The row's cells and every fetch ask this, so it is a bit test, not a call.
  static constexpr uint32_t kPlainTypes = 0x00FF0CFFu;
  static bool OwnsNothing(VARTYPE vt) { return vt < 32 && ((kPlainTypes >> vt) & 1u) != 0; }

 private:
  friend class CDataStore;

  explicit CRefCountedDataStoreRow(Pool* pool);
  ~CRefCountedDataStoreRow();
  // The caller's reference is the only one: no other holder is left to add or drop one,
  // so the count needs no atomic change (an uncontended one still costs a full barrier
  // per row). The load acquires what earlier holders wrote before their release.
  bool LastReference() const { return m_cRef.load(std::memory_order_acquire) == 1; }
  // Clears owning VARIANT cells, frees by-reference strings and forgets the text.
  void ReleaseContents(const std::vector<DBORDINAL>& owning);
  // Called by the writers that leave memory in the row for its release to free.
  void MarkOwning() { m_bOwns = true; }

  std::atomic<ULONG> m_cRef{1};
  // Set by a cell that owns memory (a VARIANT that is not its bytes, a by-reference
  // string) or a text buffer too large to keep: most rows hold neither, and giving them
  // back then only forgets their text instead of looking at every owning column. Beside
  // the count, in what was padding: the row stays the size it was.
  bool m_bOwns = false;
  // How far the row lies past the start of its block: rows start on a cache line.
  uint8_t m_Shift = 0;
  // The row is read and written on every fetch, so it holds only what differs from row
  // to row (the layout is the pool's): with the cells after it, a history row takes two
  // cache lines rather than three or four.
  Pool* m_pPool;
  // The text of text cells that is not shared: one buffer, kept for the next row.
  BYTE* m_pText = nullptr;
  uint32_t m_cbTextUsed = 0;
  uint32_t m_cbTextCapacity = 0;
};

// Every row of a store has the store's layout, so a released row serves the next row as
// it is: only its status bytes and the cells that own memory need to be made empty
// again. The pool keeps at most a fixed number of bytes of free rows, holds the texts
// the store shares between rows, and outlives its store for as long as rows made from
// it are still held.
class CRefCountedDataStoreRow::Pool {
 public:
  Pool(const DataStoreColumnInfo* columns, DBORDINAL count, DBLENGTH rowSize);
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Up to `count` rows with one reference and every cell null into `rows`, the free ones
  // under one lock: the number made, fewer than `count` only when memory runs out.
  size_t TakeMany(CRefCountedDataStoreRow** rows, size_t count);
  // The last reference went: the row's contents are freed and the row kept or freed.
  void GiveBack(CRefCountedDataStoreRow* row) { GiveBackMany(&row, 1); }
  void GiveBackMany(CRefCountedDataStoreRow* const* rows, size_t count);
  // Frees the free rows and stops keeping any (no more rows will be taken).
  void Trim();
  // The store goes: frees the free rows; the pool deletes itself now or with the last
  // row still held.
  void Detach();

  // The shared copy of `text` (with a terminator), made on first use; null when the
  // shared texts are full, and the caller then stores the text in the row. Only the
  // store's filling thread calls this; rows read the copies until the pool goes.
  const OLECHAR* ShareText(const OLECHAR* text, size_t length);

  DBLENGTH RowSize() const { return m_cbRowSize; }
  const DataStoreColumnInfo* Columns() const { return m_pColumns; }
  DBORDINAL ColumnCount() const { return m_cColumns; }

  // Free rows kept at most, whatever the row size.
  static constexpr size_t kMaxFreeBytes = 32u << 20;
  static constexpr size_t kMaxFreeRows = 4096;
  // A row's text buffer larger than this is not kept for the next row.
  static constexpr size_t kMaxKeptText = 4096;
  // Shared texts: at most this many characters in all, in blocks of kSharedBlock.
  static constexpr size_t kMaxSharedChars = 1u << 20;
  static constexpr size_t kSharedBlock = 16384;

 private:
  ~Pool();
  void Lock() {
    while (m_Lock.exchange(true, std::memory_order_acquire)) {
    }
  }
  void Unlock() { m_Lock.store(false, std::memory_order_release); }
  static void Destroy(CRefCountedDataStoreRow* row);

  std::atomic<bool> m_Lock{false};
  const DataStoreColumnInfo* m_pColumns;
  DBORDINAL m_cColumns;
  DBLENGTH m_cbRowSize;
  DBLENGTH m_cbStatus;              // the status bytes at the start of every row
  bool m_bStatusWord = false;       // they and the padding after them fit in 8 bytes
  std::vector<DBORDINAL> m_Owning;  // VARIANT and by-reference columns
  size_t m_MaxFree;
  // The free rows, newest last, in an array rather than linked through the rows: taking
  // a portion reads no row, where a list would wait for each row's line in turn.
  std::unique_ptr<CRefCountedDataStoreRow*[]> m_pFreeRows;
  size_t m_cFree = 0;
  size_t m_cOut = 0;  // rows taken and not yet given back
  bool m_bDetached = false;

  std::vector<OLECHAR*> m_SharedBlocks;
  size_t m_SharedUsed = 0;   // characters used in the last block
  size_t m_SharedTotal = 0;  // characters in all blocks
  std::unordered_map<corvane::WStringView, const OLECHAR*> m_Shared;
};

// Releases rows one by one and gives those whose last reference went back to their pool
// a portion at a time, under one lock per portion: a rowset releasing a batch hands each
// row over as it finds it, with nothing to collect first.
class CRefCountedDataStoreRow::BatchRelease {
 public:
  BatchRelease() = default;
  BatchRelease(const BatchRelease&) = delete;
  BatchRelease& operator=(const BatchRelease&) = delete;
  ~BatchRelease() { Flush(); }

  void Add(CRefCountedDataStoreRow* row) {
    if (!row->LastReference() && row->m_cRef.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (m_Count == kPortion || row->m_pPool != m_pPool) {
      Flush();
      m_pPool = row->m_pPool;
    }
    m_Rows[m_Count++] = row;
  }
  void Flush() {
    if (m_Count) m_pPool->GiveBackMany(m_Rows, m_Count);
    m_Count = 0;
  }

 private:
  static constexpr size_t kPortion = 256;
  CRefCountedDataStoreRow* m_Rows[kPortion];
  size_t m_Count = 0;
  Pool* m_pPool = nullptr;  // the pool of the rows held
};

// The cells right after the row keep the alignment of every cell type (VARIANT's 8).
static_assert(sizeof(CRefCountedDataStoreRow) % 8 == 0, "cells follow the row aligned");

inline DBLENGTH CRefCountedDataStoreRow::Size() const { return m_pPool->RowSize(); }
inline const DataStoreColumnInfo* CRefCountedDataStoreRow::Columns() const { return m_pPool->Columns(); }
inline DBORDINAL CRefCountedDataStoreRow::ColumnCount() const { return m_pPool->ColumnCount(); }
