// The custom interface through which a historian host brings the provider to life:
// Create(host, &dataSource) builds an OLE DB data source over the host's historian
// interfaces. The type library of the module (CorvaneOleDbProvider.idl) declares the
// same interface for hosts that import it.
#pragma once
#include "platform/Platform.h"

// {EFFACBC0-538B-4bc7-AFE1-2E90167424C6}
inline constexpr CLSID CLSID_CorvaneOleDbProvider = {
    0xEFFACBC0, 0x538B, 0x4bc7, {0xAF, 0xE1, 0x2E, 0x90, 0x16, 0x74, 0x24, 0xC6}};
// {5BD2E8EC-478E-4DB9-B9A6-032260802405}
inline constexpr IID IID_ICreateCorvaneOleDbProvider = {
    0x5BD2E8EC, 0x478E, 0x4DB9, {0xB9, 0xA6, 0x03, 0x22, 0x60, 0x80, 0x24, 0x05}};
// {00047AC6-757D-44F9-95FB-0CB5973F029B}: the module's type library.
inline constexpr GUID LIBID_CorvaneOleDbProviderLib = {
    0x00047AC6, 0x757D, 0x44F9, {0x95, 0xFB, 0x0C, 0xB5, 0x97, 0x3F, 0x02, 0x9B}};
// {E16D1923-C9EA-4b7c-B86C-42511B8AD21A}
inline constexpr GUID APPID_CorvaneOleDbProvider = {
    0xE16D1923, 0xC9EA, 0x4b7c, {0xB8, 0x6C, 0x42, 0x51, 0x1B, 0x8A, 0xD2, 0x1A}};

#define CORVANE_PROVIDER_PROGID OLESTR("Quellix.CorvaneOleDbProvider_VLD64")
#define CORVANE_PROVIDER_PROGID_VERSIONED OLESTR("Quellix.CorvaneOleDbProvider_VLD64.1")

struct ICreateCorvaneOleDbProvider : public IUnknown {
  // pProvider: the host object that answers the historian interfaces. ppUnk receives
  // an IUnknown of a new data source with one reference owned by the caller.
  virtual HRESULT STDMETHODCALLTYPE Create(IUnknown* pProvider, IUnknown** ppUnk) = 0;
};
