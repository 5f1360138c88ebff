// One row of a data store: a task-allocated byte buffer laid out by the store's column
// description. Counted, so that a row handed to the consumer outlives its place in the
// store's queue for as long as the rowset holds a handle to it.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/Platform.h"

// A rowset column as the store describes it: the OLE DB column information followed
// by the offset of the column's cell in the row buffer.
struct DataStoreColumnInfo : DBCOLUMNINFO {
  DBBYTEOFFSET cbOffset;
};

class CRefCountedDataStoreRow {
 public:
  // Takes ownership of `buffer` (CoTaskMemAlloc). The column description must outlive
  // the row; the store's owner keeps it until every row is released.
  CRefCountedDataStoreRow(BYTE* buffer, const DataStoreColumnInfo* columns, DBORDINAL columnCount,
                          DBLENGTH size);
  CRefCountedDataStoreRow(const CRefCountedDataStoreRow&) = delete;
  CRefCountedDataStoreRow& operator=(const CRefCountedDataStoreRow&) = delete;

  // A new row is created with one reference, held by whoever created it.
  ULONG AddRef() { return ++m_cRef; }
  // Frees the contents and the row on the last release.
  ULONG Release();

  BYTE* Buffer() const { return m_pBuffer; }
  DBLENGTH Size() const { return m_cbSize; }
  const DataStoreColumnInfo* Columns() const { return m_pColumns; }
  DBORDINAL ColumnCount() const { return m_cColumns; }

  // Prepares a fresh buffer: every status byte 0, VARIANT cells empty, by-reference
  // pointers null, so that releasing a partly filled row is always safe.
  static void InitializeBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns,
                               DBORDINAL count);
  // Clears VARIANT cells, frees by-reference strings, then frees the buffer itself.
  static void ReleaseBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns, DBORDINAL count);

  // A VARIANT type whose value holds no resource: copying and clearing it only move bytes.
  static bool OwnsNothing(VARTYPE vt) {
    // EMPTY..DATE, ERROR, BOOL and I1..UINT: the types whose VARIANT is its bytes. The
    // row's cells and every fetch ask this, so it is a bit test rather than a call.
    constexpr uint32_t kPlain = 0x00FF0CFFu;
    return vt < 32 && ((kPlain >> vt) & 1u) != 0;
  }

 private:
  friend class CDataStore;
  class Pool;


  ~CRefCountedDataStoreRow();

  std::atomic<ULONG> m_cRef{1};
  BYTE* m_pBuffer;
  const DataStoreColumnInfo* m_pColumns;
  DBORDINAL m_cColumns;
  DBLENGTH m_cbSize;
  // The store's pool the row goes back to on its last release; null for a row made by
  // the public constructor, which is deleted instead.
  Pool* m_pPool = nullptr;
  // Links in the store's queue of rows not yet handed out, or in the pool's free list.
  CRefCountedDataStoreRow* m_pPrev = nullptr;
  CRefCountedDataStoreRow* m_pNext = nullptr;
};

// Every row of a store has the store's layout, so a released row's buffer serves the
// next row as it is: only its status bytes and the cells that own memory need to be
// made empty again. The pool keeps at most a fixed number of bytes of free rows, and
// it outlives its store for as long as rows made from it are still held.
class CRefCountedDataStoreRow::Pool {
 public:
  Pool(const DataStoreColumnInfo* columns, DBORDINAL count, DBLENGTH rowSize);
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // A row with one reference and every cell null; null when memory runs out.
  CRefCountedDataStoreRow* Take();
  // The last reference went: the row's contents are freed and the row kept or freed.
  void GiveBack(CRefCountedDataStoreRow* row);
  // Frees the free rows and stops keeping any (no more rows will be taken).
  void Trim();
  // The store goes: frees the free rows; the pool deletes itself now or with the last
  // row still held.
  void Detach();

  // Free rows kept at most, whatever the row size.
  static constexpr size_t kMaxFreeBytes = 32u << 20;
  static constexpr size_t kMaxFreeRows = 4096;

 private:
  ~Pool() = default;
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
  size_t m_MaxFree;
  CRefCountedDataStoreRow* m_pFree = nullptr;
  size_t m_cFree = 0;
  size_t m_cOut = 0;  // rows taken and not yet given back
  bool m_bDetached = false;
};
