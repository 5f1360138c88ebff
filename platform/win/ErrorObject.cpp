// Each record also carries a custom error object that holds the description, source
// and interface, for consumers that read it. Wine's oledb32 keeps the records (count,
// HRESULT, interface, class, lookup id) but neither calls the lookup service nor keeps
// the custom object.
#include "platform/ErrorObject.h"

namespace corvane::platform {
namespace {

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

}  // namespace

HRESULT PostThreadErrorRecord(const ERRORINFO& info, const OLECHAR* source, const OLECHAR* description) {
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
      IErrorInfo* plain = MakeDescriptionObject(info.iid, source, description);
      if (!plain) return E_OUTOFMEMORY;
      SetErrorInfo(0, plain);
      plain->Release();
      return S_FALSE;
    }
  }
  ERRORINFO record = info;
  IErrorInfo* custom = MakeDescriptionObject(info.iid, source, description);
  const HRESULT added = records->AddErrorRecord(&record, info.dwMinor, nullptr, custom, info.dwMinor);
  if (custom) custom->Release();
  records->Release();
  SetErrorInfo(0, object);
  object->Release();
  return added;
}

void ClearThreadErrorObject() { SetErrorInfo(0, nullptr); }

}  // namespace corvane::platform
