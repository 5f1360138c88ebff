// A consumer's fetch loop over typed cells: one row buffer, rows fetched in batches and
// released after each, or all held until the end as a consumer that keeps rows does.
#pragma once
#include <functional>
#include <utility>
#include <vector>

#include "platform/Platform.h"

namespace corvane::test {

struct Cell {
  static constexpr size_t kTextChars = 512;
  DBSTATUS status;
  DBLENGTH length;
  union {
    double r8;
    ULONG ui4;
    DBTIMESTAMP ts;
    VARIANT variant;
    OLECHAR text[kTextChars];
  } v;
};
using Row = std::vector<Cell>;
using CellColumns = std::vector<std::pair<DBORDINAL, DBTYPE>>;

// A binding of `ordinal` as `type` to cell `i` of an array of Cell.
DBBINDING CellBinding(size_t i, DBORDINAL ordinal, DBTYPE type, DBPARAMIO io = DBPARAMIO_NOTPARAM);

// Reads `rowset` through one accessor of `columns`: GetNextRows of `batch(rowsSoFar)` rows (0 stops before fetching),
// GetData of each row into one buffer that `onRow` sees (false stops after the batch; VARIANT cells are cleared after
// it), ReleaseRows of each batch. With `hold`, every row is fetched and held first, then read and released. `failed`
// sees a failing GetNextRows at once, before any held row is read. Returns the first failure of CreateAccessor,
// GetNextRows or GetData, else S_OK.
HRESULT ReadRows(IUnknown* rowset, const CellColumns& columns, const std::function<DBROWCOUNT(size_t)>& batch,
                 const std::function<bool(const Row&)>& onRow, bool hold = false,
                 const std::function<void(HRESULT)>& failed = {});

}  // namespace corvane::test
