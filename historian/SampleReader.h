// A way for a reader in the same process to scan a tag's samples without paging them
// through allocated value lists or copying them: the host shows its own columns for the
// length of a callback. Hosts that do not offer it are read through IRawDataProvider.
#pragma once
#include <cstddef>
#include <cstdint>

#include "base/HistorianInterfaces.h"

namespace corvane::historian {

// Sees the `count` samples of a range, oldest first: their times, qualities and, for a
// tag of a numeric or boolean type `vt`, their values in the store's 64-bit form (the
// IEEE bits of a double for VT_R8 and VT_R4, the integer otherwise; null for texts).
// The arrays live only for the call, during which the host holds its read lock: a
// visitor may compute over them in place, but must not call the host back. What it
// returns is returned.
using ColumnVisitor = HRESULT (*)(void* context, VARTYPE vt, const ULONGLONG* times, const DWORD* qualities,
                                  const uint64_t* bits, size_t count);

struct ISampleReader : public IUnknown {
  // Shows the samples of the tag in [low, high]. HIST_E_TAG_NOT_FOUND for an unknown
  // tag, E_INVALIDARG for a malformed TagIdent or low > high.
  virtual HRESULT STDMETHODCALLTYPE VisitColumns(const TagIdent* tag, ULONGLONG low, ULONGLONG high,
                                                 ColumnVisitor visit, void* context) = 0;
};

CORVANE_HIST_GUID(IID_ISampleReader, 0x5B0E61A2, 0x3C47, 0x4D1E, 0x8F, 0x26, 0x71, 0xA9, 0x0C, 0xD3, 0x44, 0x9B);

}  // namespace corvane::historian
