// GUID text in the registry form "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", read and
// written as ole32 does.
#include "platform/Platform.h"

namespace {

constexpr int kGuidChars = 38;  // without the terminator

int HexValue(OLECHAR c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

bool ReadHex(const OLECHAR* s, int digits, uint64_t& value) {
  value = 0;
  for (int i = 0; i < digits; ++i) {
    const int v = HexValue(s[i]);
    if (v < 0) return false;
    value = value << 4 | static_cast<uint64_t>(v);
  }
  return true;
}

size_t Length(const OLECHAR* s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

// Exactly the braced form; nothing before or after it.
bool ParseBraced(const OLECHAR* s, GUID& out) {
  if (Length(s) != kGuidChars) return false;
  if (s[0] != u'{' || s[9] != u'-' || s[14] != u'-' || s[19] != u'-' || s[24] != u'-' || s[37] != u'}')
    return false;
  GUID g{};
  uint64_t v = 0;
  if (!ReadHex(s + 1, 8, v)) return false;
  g.Data1 = static_cast<uint32_t>(v);
  if (!ReadHex(s + 10, 4, v)) return false;
  g.Data2 = static_cast<uint16_t>(v);
  if (!ReadHex(s + 15, 4, v)) return false;
  g.Data3 = static_cast<uint16_t>(v);
  const int offsets[8] = {20, 22, 25, 27, 29, 31, 33, 35};
  for (int i = 0; i < 8; ++i) {
    if (!ReadHex(s + offsets[i], 2, v)) return false;
    g.Data4[i] = static_cast<uint8_t>(v);
  }
  out = g;
  return true;
}

}  // namespace

extern "C" {

HRESULT CLSIDFromString(LPCOLESTR lpsz, LPCLSID pclsid) {
  if (!pclsid) return E_INVALIDARG;
  // A null or empty text reads as CLSID_NULL, as on Windows.
  if (!lpsz || !*lpsz) {
    *pclsid = CLSID_NULL;
    return S_OK;
  }
  if (ParseBraced(lpsz, *pclsid)) return S_OK;
  // ole32 also takes a ProgID here.
  CLSID fromProgId;
  if (lpsz[0] != u'{' && SUCCEEDED(CLSIDFromProgID(lpsz, &fromProgId))) {
    *pclsid = fromProgId;
    return S_OK;
  }
  return CO_E_CLASSSTRING;
}

HRESULT IIDFromString(LPCOLESTR lpsz, LPIID lpiid) {
  if (!lpiid) return E_INVALIDARG;
  if (!lpsz) {
    *lpiid = IID_NULL;
    return S_OK;
  }
  if (Length(lpsz) != kGuidChars) return E_INVALIDARG;
  return ParseBraced(lpsz, *lpiid) ? S_OK : CO_E_IIDSTRING;
}

INT StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, INT cchMax) {
  if (!lpsz || cchMax < kGuidChars + 1) return 0;
  static const char kHex[] = "0123456789ABCDEF";
  int pos = 0;
  auto put = [&](uint64_t value, int digits) {
    for (int i = digits - 1; i >= 0; --i) lpsz[pos++] = static_cast<OLECHAR>(kHex[(value >> (4 * i)) & 0xF]);
  };
  lpsz[pos++] = u'{';
  put(rguid.Data1, 8);
  lpsz[pos++] = u'-';
  put(rguid.Data2, 4);
  lpsz[pos++] = u'-';
  put(rguid.Data3, 4);
  lpsz[pos++] = u'-';
  put(rguid.Data4[0], 2);
  put(rguid.Data4[1], 2);
  lpsz[pos++] = u'-';
  for (int i = 2; i < 8; ++i) put(rguid.Data4[i], 2);
  lpsz[pos++] = u'}';
  lpsz[pos++] = 0;
  return pos;
}

}  // extern "C"
