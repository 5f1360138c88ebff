// The OLE Automation subset the provider calls: BSTRs, VARIANTs and their
// conversions, with the rules and result codes of the Windows implementation.
// Text follows the en-US rules for every LCID ('.' decimal point, ',' grouping,
// M/d/yyyy h:mm:ss AM/PM dates), except that LOCALE_INVARIANT writes dates as
// MM/dd/yyyy HH:mm:ss. Text to date also reads ISO 8601 ('T', 'Z', fractions).
// VARIANTs holding SAFEARRAYs or records are not supported (E_NOTIMPL).
#pragma once
#ifndef _WIN32
#include "Types.h"

// Signatures follow the mingw-w64 SDK that builds the Windows target (sources pointers
// are not const there), so code that compiles here compiles there too.
extern "C" {
// BSTR: a 4-byte byte-length prefix, then UTF-16 text, then a 16-bit terminator.
BSTR SysAllocString(const OLECHAR* psz);
BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui);
BSTR SysAllocStringByteLen(LPCSTR psz, UINT len);
INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz);
INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, UINT len);
void SysFreeString(BSTR bstrString);
UINT SysStringLen(BSTR pbstr);
UINT SysStringByteLen(BSTR bstr);

void VariantInit(VARIANTARG* pvarg);
HRESULT VariantClear(VARIANTARG* pvarg);
HRESULT VariantCopy(VARIANTARG* pvargDest, VARIANTARG* pvargSrc);
HRESULT VariantCopyInd(VARIANT* pvarDest, VARIANTARG* pvargSrc);
HRESULT VariantChangeType(VARIANTARG* pvargDest, VARIANTARG* pvarSrc, USHORT wFlags, VARTYPE vt);
HRESULT VariantChangeTypeEx(VARIANTARG* pvargDest, VARIANTARG* pvarSrc, LCID lcid, USHORT wFlags,
                            VARTYPE vt);

// Date/number/text conversions (DATE: days since 1899-12-30, fraction = time of day).
INT SystemTimeToVariantTime(LPSYSTEMTIME lpSystemTime, DOUBLE* pvtime);
INT VariantTimeToSystemTime(DOUBLE vtime, LPSYSTEMTIME lpSystemTime);
HRESULT VarDateFromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, DATE* pdateOut);
HRESULT VarBstrFromDate(DATE dateIn, LCID lcid, ULONG dwFlags, BSTR* pbstrOut);
HRESULT VarR8FromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, DOUBLE* pdblOut);
HRESULT VarI8FromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, LONG64* pi64Out);
HRESULT VarI4FromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, LONG* plOut);
HRESULT VarBstrFromR8(DOUBLE dblIn, LCID lcid, ULONG dwFlags, BSTR* pbstrOut);
HRESULT VarBstrFromI8(LONG64 i64In, LCID lcid, ULONG dwFlags, BSTR* pbstrOut);
HRESULT VarR8FromDec(DECIMAL* pdecIn, DOUBLE* pdblOut);
HRESULT VarDecFromR8(DOUBLE dblIn, DECIMAL* pdecOut);
HRESULT VarR8FromCy(CY cyIn, DOUBLE* pdblOut);
HRESULT VarCyFromR8(DOUBLE dblIn, CY* pcyOut);
}

#define VARIANT_NOVALUEPROP 0x1
#define VARIANT_ALPHABOOL 0x2
#define VARIANT_NOUSEROVERRIDE 0x4
#define VARIANT_CALENDAR_HIJRI 0x8
#define VARIANT_LOCALBOOL 0x10
#define VAR_TIMEVALUEONLY ((DWORD)0x00000001)
#define VAR_DATEVALUEONLY ((DWORD)0x00000002)
#define LOCALE_NOUSEROVERRIDE 0x80000000
#define LOCALE_USER_DEFAULT ((LCID)0x0400)
#define LOCALE_SYSTEM_DEFAULT ((LCID)0x0800)
#define LOCALE_INVARIANT ((LCID)0x007F)
#define LANG_ENGLISH 0x09
#define SUBLANG_ENGLISH_US 0x01
#define SORT_DEFAULT 0x0
#define MAKELANGID(p, s) ((((WORD)(s)) << 10) | (WORD)(p))
#define MAKELCID(lgid, srtid) ((DWORD)((((DWORD)((WORD)(srtid))) << 16) | ((DWORD)((WORD)(lgid)))))

#endif  // !_WIN32
