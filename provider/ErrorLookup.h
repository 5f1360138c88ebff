// The provider's error lookup service. An OLE DB error object knows only a record's
// HRESULT and lookup id; to show a consumer the provider's words it creates the service
// registered as ExtendedErrors under the provider's class and asks it. The texts of
// every posted record are held here, shared by all threads, until the error object
// that owns the record releases them, and never more than kHeldTextLimit at once.
#pragma once
#include <atomic>
#include <cstddef>

#include "platform/Platform.h"

// {4847E217-9067-4A53-89DC-8281638914AE}
inline constexpr CLSID CLSID_CorvaneErrorLookup = {
    0x4847E217, 0x9067, 0x4A53, {0x89, 0xDC, 0x82, 0x81, 0x63, 0x89, 0x14, 0xAE}};

class CErrorLookup final : public IErrorLookup {
 public:
  // An error object that never releases what it was given (some do not) must not make
  // the held texts grow: beyond this many, the oldest are dropped, and a lookup of a
  // dropped id answers DB_E_BADLOOKUPID.
  static constexpr size_t kHeldTextLimit = 1024;

  // Creates the service (no aggregation) and returns interface `riid` of it.
  static HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv);

  // Keeps the source and description of one record of `hr`; answers the id under which
  // GetErrorDescription gives them back and ReleaseErrors drops them, or 0 when there
  // was no memory to keep them. Ids stay below IDENTIFIER_SDK_ERROR, whose range error
  // objects resolve without asking the provider.
  static DWORD Hold(HRESULT hr, const OLECHAR* source, const OLECHAR* description);
  // What ReleaseErrors does, for a record that never reached an error object.
  static HRESULT Drop(DWORD id);
  static size_t HeldCount();

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // The held texts for any locale (the provider has one language). DB_E_BADLOOKUPID
  // for an id not held, DB_E_BADHRESULT when `hrError` is not the record's.
  HRESULT STDMETHODCALLTYPE GetErrorDescription(HRESULT hrError, DWORD dwLookupID, DISPPARAMS* pdispparams,
                                                LCID lcid, BSTR* pbstrSource, BSTR* pbstrDescription) override;
  // The provider ships no help file: none, context 0.
  HRESULT STDMETHODCALLTYPE GetHelpInfo(HRESULT hrError, DWORD dwLookupID, LCID lcid, BSTR* pbstrHelpFile,
                                        DWORD* pdwHelpContext) override;
  HRESULT STDMETHODCALLTYPE ReleaseErrors(const DWORD dwDynamicErrorID) override;

 private:
  CErrorLookup();
  ~CErrorLookup();
  std::atomic<ULONG> refs_{1};
};
