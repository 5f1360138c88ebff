#include "tests/support/RowReader.h"

#include <cstddef>

namespace corvane::test {

DBBINDING CellBinding(size_t i, DBORDINAL ordinal, DBTYPE type, DBPARAMIO io) {
  const DBBYTEOFFSET cell = i * sizeof(Cell);
  return DBBINDING{ordinal, cell + offsetof(Cell, v), cell + offsetof(Cell, length), cell + offsetof(Cell, status),
                   nullptr, nullptr, nullptr, DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS, DBMEMOWNER_CLIENTOWNED,
                   io, Cell::kTextChars * sizeof(OLECHAR), 0, type, 0, 0};
}

HRESULT ReadRows(IUnknown* rowset, const CellColumns& columns, const std::function<DBROWCOUNT(size_t)>& batch,
                 const std::function<bool(const Row&)>& onRow, bool hold, const std::function<void(HRESULT)>& failed) {
  IAccessor* accessor = nullptr;
  IRowset* fetch = nullptr;
  HRESULT hr = rowset->QueryInterface(IID_IAccessor, reinterpret_cast<void**>(&accessor));
  if (SUCCEEDED(hr)) hr = rowset->QueryInterface(IID_IRowset, reinterpret_cast<void**>(&fetch));
  std::vector<DBBINDING> bindings;
  for (size_t i = 0; i < columns.size(); ++i) bindings.push_back(CellBinding(i, columns[i].first, columns[i].second));
  HACCESSOR handle = DB_NULL_HACCESSOR;
  if (SUCCEEDED(hr)) {
    hr = accessor->CreateAccessor(DBACCESSOR_ROWDATA, bindings.size(), bindings.data(), columns.size() * sizeof(Cell),
                                  &handle, nullptr);
  }
  Row row(columns.size());
  bool stop = false;
  // Reads and releases `n` rows; the first GetData failure is kept in `hr` unless a fetch failed before.
  auto read = [&](HROW* rows, DBCOUNTITEM n) {
    for (DBCOUNTITEM r = 0; r < n && !stop; ++r) {
      const HRESULT got = fetch->GetData(rows[r], handle, row.data());
      if (got != S_OK) {
        hr = FAILED(hr) ? hr : got;
        stop = true;
        break;
      }
      stop = !onRow(row);
      for (size_t c = 0; c < columns.size(); ++c)
        if (columns[c].second == DBTYPE_VARIANT && row[c].status == DBSTATUS_S_OK) VariantClear(&row[c].v.variant);
    }
    if (n) fetch->ReleaseRows(n, rows, nullptr, nullptr, nullptr);
  };
  std::vector<HROW> held;
  for (size_t count = 0; hr == S_OK && !stop;) {
    const DBROWCOUNT want = batch(count);
    if (want == 0) break;
    DBCOUNTITEM obtained = 0;
    HROW* rows = nullptr;
    hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, want, &obtained, &rows);
    if (FAILED(hr) && failed) failed(hr);
    count += obtained;
    if (hold) held.insert(held.end(), rows, rows + obtained);
    else read(rows, obtained);
    CoTaskMemFree(rows);
    if (obtained == 0) break;
  }
  stop = false;
  read(held.data(), held.size());  // rows held to the end stay readable
  if (handle != DB_NULL_HACCESSOR) accessor->ReleaseAccessor(handle, nullptr);
  if (accessor) accessor->Release();
  if (fetch) fetch->Release();
  return hr == DB_S_ENDOFROWSET ? S_OK : hr;
}

}  // namespace corvane::test
