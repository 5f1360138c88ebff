// Per-thread OLE DB error records for POSIX, where there are no system error objects:
// each record has the shape of an IErrorRecords entry (interface id, HRESULT, source,
// description, lookup id) and a consumer on the same thread reads them back. The
// error-object interfaces and ERRORINFO are declared here with their published IIDs,
// with the per-thread error-object slot of GetErrorInfo/SetErrorInfo, and the stand-in
// for the ExtendedErrors key through which a consumer finds a provider's error lookup
// service.
#pragma once
#ifndef _WIN32
#include <string>
#include <vector>

#include "Types.h"

typedef LONG DISPID;
struct DISPPARAMS {
  VARIANTARG* rgvarg;
  DISPID* rgdispidNamedArgs;
  UINT cArgs;
  UINT cNamedArgs;
};

struct ERRORINFO {
  HRESULT hrError;
  DWORD dwMinor;
  CLSID clsid;
  IID iid;
  DISPID dispid;
};

// Lookup ids with a meaning of their own to the error lookup service.
#define IDENTIFIER_SDK_MASK 0xF0000000
#define IDENTIFIER_SDK_ERROR 0x10000000

struct IErrorInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetGUID(GUID* pGUID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSource(BSTR* pBstrSource) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDescription(BSTR* pBstrDescription) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* pBstrHelpFile) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* pdwHelpContext) = 0;
};
CORVANE_DEFINE_GUID(IID_IErrorInfo, 0x1CF2B120, 0x547D, 0x101B, 0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19);

struct ISupportErrorInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) = 0;
};
CORVANE_DEFINE_GUID(IID_ISupportErrorInfo, 0xDF0B3D60, 0x548F, 0x101B, 0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1,
                    0x19);

struct IErrorRecords : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE AddErrorRecord(ERRORINFO* pErrorInfo, DWORD dwLookupID, DISPPARAMS* pdispparams,
                                                   IUnknown* punkCustomError, DWORD dwDynamicErrorID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBasicErrorInfo(ULONG ulRecordNum, ERRORINFO* pErrorInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCustomErrorObject(ULONG ulRecordNum, REFIID riid, IUnknown** ppObject) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetErrorInfo(ULONG ulRecordNum, LCID lcid, IErrorInfo** ppErrorInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetErrorParameters(ULONG ulRecordNum, DISPPARAMS* pdispparams) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRecordCount(ULONG* pcRecords) = 0;
};
CORVANE_DEFINE_GUID(IID_IErrorRecords, 0x0C733A67, 0x2A1C, 0x11CE, 0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D);

struct IErrorLookup : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetErrorDescription(HRESULT hrError, DWORD dwLookupID, DISPPARAMS* pdispparams,
                                                        LCID lcid, BSTR* pbstrSource, BSTR* pbstrDescription) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpInfo(HRESULT hrError, DWORD dwLookupID, LCID lcid, BSTR* pbstrHelpFile,
                                                DWORD* pdwHelpContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE ReleaseErrors(const DWORD dwDynamicErrorID) = 0;
};
CORVANE_DEFINE_GUID(IID_IErrorLookup, 0x0C733A66, 0x2A1C, 0x11CE, 0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D);

extern "C" {
// The thread's current error object. SetErrorInfo takes a reference (null clears);
// GetErrorInfo hands the object over and clears the slot, S_FALSE when there is none.
HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* perrinfo);
HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** pperrinfo);
}

namespace corvane::platform {

// One entry of the thread's error object.
struct ErrorRecord {
  ERRORINFO info{};            // HRESULT, minor code, class, interface id, dispid
  DWORD lookupId = 0;          // what the lookup service is asked with
  DWORD dynamicErrorId = 0;    // released at the lookup service when the record is dropped
  std::u16string source;       // the posting class, e.g. "CProviderSession class"
  std::u16string description;  // complete text
};

// Appends a record after any already posted on this thread.
void AddErrorRecord(const ErrorRecord& record);
// Drops the thread's records and, as a system error object does when it goes away,
// releases their dynamic errors at the lookup service of each record's class. So does
// the end of the thread.
void ClearErrorRecords();
size_t ErrorRecordCount();
// Copies record `index` (0 = the first posted); false when there is no such record.
bool GetErrorRecord(size_t index, ErrorRecord& out);
// Hands over all of this thread's records and leaves the list empty; their dynamic
// errors stay held (the lookup service bounds what it holds).
std::vector<ErrorRecord> TakeErrorRecords();

// The ExtendedErrors key of a provider's class: the class of its error lookup service.
// Registering again replaces it; unregistering what is not there is harmless.
void RegisterErrorLookup(REFCLSID provider, REFCLSID lookup);
void UnregisterErrorLookup(REFCLSID provider);
// False when the provider's class has none.
bool FindErrorLookup(REFCLSID provider, CLSID* lookup);

}  // namespace corvane::platform

#endif  // !_WIN32
