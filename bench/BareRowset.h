// The floor of fetch throughput: a bare IRowset over the historian's raw read that
// answers the consumer's calls straight from the page it holds, and the consumer loop
// of the end-to-end SELECT run over it. Not a provider: it has no row store, worker,
// lock, handle table, trace, stopwatch or conversion service, so it shows what the
// OLE DB calls themselves cost over this historian, and what a provider's rowset is
// measured against.
#pragma once
#include <cstddef>

#include "base/HistorianInterfaces.h"

namespace corvane::bench {

// Reads [first, last] of the e2e series' tag through the bare rowset with the bindings
// of corvane::e2e::RowBindings(kVariant), by corvane::e2e::ReadRowset, the loop that reads
// the provider's rowsets: batches of SelectConsumer's size, GetData per row through the
// rowset's interface, the consumer's checksum and VariantClear, then ReleaseRows.
// Returns the rows read, 0 when a call failed.
size_t ReadBareRowset(IRawDataProvider* raw, ULONGLONG first, ULONGLONG last, double* checksum);

}  // namespace corvane::bench
