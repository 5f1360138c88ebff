// BSTR allocation with the Windows layout. A block is an 8-byte header whose last four
// bytes hold the byte length, then the text, then a 16-bit zero; the BSTR points just
// past the header, so it is 8-byte aligned and the length sits right before it as
// callers that read ((DWORD*)bstr)[-1] expect.
#include <cstring>

#include "platform/posix/ComInternal.h"
#include "platform/posix/OleAuto.h"

namespace {

constexpr size_t kHeader = 8;
// The largest byte length the 32-bit prefix can carry once the header and terminator
// are added; longer requests fail as they do on Windows.
constexpr UINT kMaxBytes = 0x7FFFFFF0u;

inline unsigned char* BlockOf(BSTR s) { return reinterpret_cast<unsigned char*>(s) - kHeader; }

inline DWORD& PrefixOf(BSTR s) { return reinterpret_cast<DWORD*>(s)[-1]; }

// Allocates room for byteLen bytes of text plus the terminator (two zero bytes, and one
// more zero byte when byteLen is odd so the final OLECHAR is whole).
BSTR AllocBytes(UINT byteLen) {
  if (byteLen > kMaxBytes) return nullptr;
  size_t total = kHeader + ((static_cast<size_t>(byteLen) + 1 + sizeof(OLECHAR)) & ~size_t(1));
  auto* block = static_cast<unsigned char*>(corvane::platform::detail::AllocBstrBlock(total));
  if (!block) return nullptr;
  BSTR s = reinterpret_cast<BSTR>(block + kHeader);
  PrefixOf(s) = byteLen;
  std::memset(reinterpret_cast<unsigned char*>(s) + byteLen, 0, total - kHeader - byteLen);
  return s;
}

}  // namespace

extern "C" {

BSTR SysAllocStringByteLen(LPCSTR psz, UINT len) {
  BSTR s = AllocBytes(len);
  if (!s) return nullptr;
  if (psz)
    std::memcpy(s, psz, len);
  else
    std::memset(s, 0, len);
  return s;
}

BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui) {
  if (ui > kMaxBytes / sizeof(OLECHAR)) return nullptr;
  return SysAllocStringByteLen(reinterpret_cast<LPCSTR>(strIn), ui * static_cast<UINT>(sizeof(OLECHAR)));
}

BSTR SysAllocString(const OLECHAR* psz) {
  if (!psz) return nullptr;
  const OLECHAR* end = psz;
  while (*end) ++end;
  size_t n = static_cast<size_t>(end - psz);
  if (n > kMaxBytes / sizeof(OLECHAR)) return nullptr;
  return SysAllocStringLen(psz, static_cast<UINT>(n));
}

// The new text may lie inside the old string, so the old block is released only after
// the copy.
INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, UINT len) {
  if (!pbstr) return FALSE;
  BSTR fresh = SysAllocStringLen(psz, len);
  if (!fresh) return FALSE;
  SysFreeString(*pbstr);
  *pbstr = fresh;
  return TRUE;
}

INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz) {
  if (!pbstr) return FALSE;
  if (!psz) {
    SysFreeString(*pbstr);
    *pbstr = nullptr;
    return TRUE;
  }
  BSTR fresh = SysAllocString(psz);
  if (!fresh) return FALSE;
  SysFreeString(*pbstr);
  *pbstr = fresh;
  return TRUE;
}

void SysFreeString(BSTR bstrString) {
  if (bstrString) corvane::platform::detail::FreeBstrBlock(BlockOf(bstrString));
}

UINT SysStringLen(BSTR pbstr) { return pbstr ? PrefixOf(pbstr) / sizeof(OLECHAR) : 0; }

UINT SysStringByteLen(BSTR bstr) { return bstr ? PrefixOf(bstr) : 0; }

}  // extern "C"
