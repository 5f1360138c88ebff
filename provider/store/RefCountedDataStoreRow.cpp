#include "provider/store/RefCountedDataStoreRow.h"

#include <cstring>

namespace {

constexpr DBTYPE kStrRef = DBTYPE_STR | DBTYPE_BYREF;
constexpr DBTYPE kWStrRef = DBTYPE_WSTR | DBTYPE_BYREF;

// Values sit one byte after their status byte, so they are never aligned: every access
// goes through memcpy.
bool CellFits(DBBYTEOFFSET offset, size_t valueBytes, DBLENGTH size) {
  return offset < size && size - offset - 1 >= valueBytes;
}

}  // namespace

CRefCountedDataStoreRow::CRefCountedDataStoreRow(BYTE* buffer, const DataStoreColumnInfo* columns,
                                                 DBORDINAL columnCount, DBLENGTH size)
    : m_pBuffer(buffer), m_pColumns(columns), m_cColumns(columnCount), m_cbSize(size) {}

CRefCountedDataStoreRow::~CRefCountedDataStoreRow() {
  ReleaseBuffer(m_pBuffer, m_cbSize, m_pColumns, m_cColumns);
}

ULONG CRefCountedDataStoreRow::Release() {
  const ULONG left = --m_cRef;
  if (left == 0) delete this;
  return left;
}

void CRefCountedDataStoreRow::InitializeBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns,
                                               DBORDINAL count) {
  if (!buffer) return;
  for (DBORDINAL i = 0; i < count; ++i) {
    const DataStoreColumnInfo& col = columns[i];
    if (col.cbOffset >= size) continue;
    buffer[col.cbOffset] = 0;
    if (col.wType == DBTYPE_VARIANT && CellFits(col.cbOffset, sizeof(VARIANT), size)) {
      VARIANT empty;
      VariantInit(&empty);
      std::memcpy(buffer + col.cbOffset + 1, &empty, sizeof empty);
    } else if ((col.wType == kStrRef || col.wType == kWStrRef) && CellFits(col.cbOffset, sizeof(void*), size)) {
      void* null = nullptr;
      std::memcpy(buffer + col.cbOffset + 1, &null, sizeof null);
    }
  }
}

void CRefCountedDataStoreRow::ReleaseBuffer(BYTE* buffer, DBLENGTH size, const DataStoreColumnInfo* columns,
                                            DBORDINAL count) {
  if (!buffer) return;
  for (DBORDINAL i = 0; columns && i < count; ++i) {
    const DataStoreColumnInfo& col = columns[i];
    BYTE* value = buffer + col.cbOffset + 1;
    if (col.wType == DBTYPE_VARIANT && CellFits(col.cbOffset, sizeof(VARIANT), size)) {
      VARIANT v;
      std::memcpy(&v, value, sizeof v);
      VariantClear(&v);
      std::memcpy(value, &v, sizeof v);
    } else if ((col.wType == kStrRef || col.wType == kWStrRef) && CellFits(col.cbOffset, sizeof(void*), size)) {
      void* text = nullptr;
      std::memcpy(&text, value, sizeof text);
      CoTaskMemFree(text);
      text = nullptr;
      std::memcpy(value, &text, sizeof text);
    }
  }
  CoTaskMemFree(buffer);
}
