#include "SQLParser/SQLQueryInfo.h"

#include <new>

namespace {

template <typename T>
HRESULT Append(std::vector<T>& list, T item) {
  try {
    list.push_back(std::move(item));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

}  // namespace

CSQLQueryInfo::~CSQLQueryInfo() = default;

void CSQLQueryInfo::Clear() {
  statementKind_ = SQL_STATEMENT_NONE;
  selectColumns_.clear();
  fromItems_.clear();
  condition_.reset();
  ordering_.clear();
}

HRESULT CSQLQueryInfo::AddFromItem(std::unique_ptr<CSQLSelectItem> item) {
  if (!item) return E_INVALIDARG;
  return Append(fromItems_, std::move(item));
}

HRESULT CSQLQueryInfo::AddSelectColumn(std::unique_ptr<CSQLCalcItem> item) {
  std::unique_ptr<CSQLSelectColumn> column;
  HRESULT hr = CSQLSelectColumn::Create(std::move(item), &column);
  if (FAILED(hr)) return hr;
  return Append(selectColumns_, std::move(column));
}

HRESULT CSQLQueryInfo::AddOrdering(const CSQLCalcItemTableColumn& column, int descending) {
  try {
    ordering_.push_back(SQLOrderingEntry{column, descending});
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

void CSQLQueryInfoINSERT::Clear() {
  CSQLQueryInfo::Clear();
  columns_.clear();
  values_.clear();
}

HRESULT CSQLQueryInfoINSERT::AddColumn(std::unique_ptr<CSQLCalcItem> item) {
  if (!item) return E_INVALIDARG;
  return Append(columns_, std::move(item));
}

HRESULT CSQLQueryInfoINSERT::AddValue(std::unique_ptr<CSQLCalcItem> item) {
  if (!item) return E_INVALIDARG;
  return Append(values_, std::move(item));
}

void CSQLQueryInfoUPDATE::Clear() {
  CSQLQueryInfo::Clear();
  columns_.clear();
  values_.clear();
}

HRESULT CSQLQueryInfoUPDATE::AddColumn(std::unique_ptr<CSQLCalcItem> item) {
  if (!item) return E_INVALIDARG;
  return Append(columns_, std::move(item));
}

HRESULT CSQLQueryInfoUPDATE::AddValue(std::unique_ptr<CSQLCalcItem> item) {
  if (!item) return E_INVALIDARG;
  return Append(values_, std::move(item));
}
