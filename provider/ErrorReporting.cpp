// Error descriptions and records. On Windows the records go to the system's OLE DB
// error object (CLSID_EXTENDEDERRORINFO from oledb32), which gets each description from
// the provider's error lookup service by the record's lookup id, and tells the service
// to drop the text (the lookup id is also the record's dynamic error id) when the
// consumer releases the error object. Each record also carries a custom error object
// that holds the description, source and interface, for consumers that read it.
// Wine's oledb32 keeps the records (count, HRESULT, interface, class, lookup id) but
// neither calls the lookup service nor keeps the custom object; when no error object
// can be created at all, the description goes out as a plain OLE Automation error
// object instead.
#include "provider/ErrorReporting.h"

#include <atomic>

#include "provider/ErrorLookup.h"
#include "provider/ICreateCorvaneOleDbProvider.h"

namespace corvane {
namespace {


#ifdef _WIN32
// oledb32's error object; the SDK import library does not carry this CLSID.
constexpr CLSID kExtendedErrorInfo = {0xC8B522CF, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};

// An OLE Automation error object holding the description, source and interface.
IErrorInfo* MakeDescriptionObject(REFIID iid, const OLECHAR* source, const OLECHAR* description) {
  ICreateErrorInfo* create = nullptr;
  if (FAILED(CreateErrorInfo(&create)) || !create) return nullptr;
  create->SetGUID(iid);
  create->SetSource(const_cast<LPOLESTR>(source ? source : OLESTR("")));
  create->SetDescription(const_cast<LPOLESTR>(description ? description : OLESTR("")));
  IErrorInfo* info = nullptr;
  create->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&info));
  create->Release();
  return info;
}
#endif

}  // namespace

HRESULT PostFailure(REFIID iid, HRESULT hr, const OLECHAR* source) {
  return PostErrorRecord(iid, hr, source, DescribeFailure(iid, hr).c_str());
}

#ifdef _WIN32

HRESULT PostErrorRecord(REFIID iid, HRESULT hr, const OLECHAR* source, const OLECHAR* description) {
  // Records of the same call accumulate in the error object the thread already holds.
  IErrorInfo* object = nullptr;
  if (GetErrorInfo(0, &object) != S_OK) object = nullptr;
  IErrorRecords* records = nullptr;
  if (object && FAILED(object->QueryInterface(IID_IErrorRecords, reinterpret_cast<void**>(&records)))) {
    records = nullptr;
    object->Release();
    object = nullptr;
  }
  if (!records) {
    HRESULT created = CoCreateInstance(kExtendedErrorInfo, nullptr, CLSCTX_INPROC_SERVER, IID_IErrorInfo,
                                       reinterpret_cast<void**>(&object));
    if (SUCCEEDED(created) && object &&
        FAILED(object->QueryInterface(IID_IErrorRecords, reinterpret_cast<void**>(&records)))) {
      records = nullptr;
    }
    if (!records) {
      if (object) object->Release();
      IErrorInfo* plain = MakeDescriptionObject(iid, source, description);
      if (!plain) return E_OUTOFMEMORY;
      SetErrorInfo(0, plain);
      plain->Release();
      return S_OK;
    }
  }
  ERRORINFO info = {};
  info.hrError = hr;
  info.dwMinor = CErrorLookup::Hold(hr, source, description);
  info.clsid = CLSID_CorvaneOleDbProvider;
  info.iid = iid;
  info.dispid = 0;
  IErrorInfo* custom = MakeDescriptionObject(iid, source, description);
  const HRESULT added = records->AddErrorRecord(&info, info.dwMinor, nullptr, custom, info.dwMinor);
  if (custom) custom->Release();
  if (FAILED(added) && info.dwMinor) CErrorLookup::Drop(info.dwMinor);
  records->Release();
  SetErrorInfo(0, object);
  object->Release();
  return added;
}

void ClearErrorRecords() { SetErrorInfo(0, nullptr); }

#else

HRESULT PostErrorRecord(REFIID iid, HRESULT hr, const OLECHAR* source, const OLECHAR* description) {
  platform::ErrorRecord record;
  record.info.hrError = hr;
  record.info.dwMinor = CErrorLookup::Hold(hr, source, description);
  record.info.clsid = CLSID_CorvaneOleDbProvider;
  record.info.iid = iid;
  record.lookupId = record.info.dwMinor;
  record.dynamicErrorId = record.info.dwMinor;
  record.source = source ? source : OLESTR("");
  record.description = description ? description : OLESTR("");
  platform::AddErrorRecord(record);
  return S_OK;
}

void ClearErrorRecords() {
  platform::ClearErrorRecords();
  SetErrorInfo(0, nullptr);
}

#endif

}  // namespace corvane
