// One row of a data store: a task-allocated byte buffer laid out by the store's column
// description. Counted, so that a row handed to the consumer outlives its place in the
// store's queue for as long as the rowset holds a handle to it.
#pragma once
#include <atomic>

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

 private:
  ~CRefCountedDataStoreRow();

  std::atomic<ULONG> m_cRef{1};
  BYTE* m_pBuffer;
  const DataStoreColumnInfo* m_pColumns;
  DBORDINAL m_cColumns;
  DBLENGTH m_cbSize;
};
