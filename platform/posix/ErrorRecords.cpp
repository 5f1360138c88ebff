// The thread's error object lives in thread-local storage: OLE DB error objects are
// per thread, so records posted by one client thread never show up on another.
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "platform/Platform.h"

namespace {

using corvane::platform::ErrorRecord;

struct GuidLess {
  bool operator()(const GUID& a, const GUID& b) const { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }
};

struct LookupRegistry {
  std::mutex mutex;
  std::map<CLSID, CLSID, GuidLess> byProvider;
};

LookupRegistry& Lookups() {
  static LookupRegistry registry;
  return registry;
}

void ReleaseDynamicErrors(const std::vector<ErrorRecord>& records) {
  for (const ErrorRecord& record : records) {
    CLSID lookupClass;
    IErrorLookup* lookup = nullptr;
    if (record.dynamicErrorId == 0 || !corvane::platform::FindErrorLookup(record.info.clsid, &lookupClass) ||
        FAILED(CoCreateInstance(lookupClass, nullptr, CLSCTX_INPROC_SERVER, IID_IErrorLookup,
                                reinterpret_cast<void**>(&lookup))))
      continue;
    lookup->ReleaseErrors(record.dynamicErrorId);
    lookup->Release();
  }
}

struct ThreadRecords {
  std::vector<ErrorRecord> list;
  ~ThreadRecords() { ReleaseDynamicErrors(list); }
};
thread_local ThreadRecords t_records;

// Releases the held error object when the thread ends.
struct ErrorObjectSlot {
  IErrorInfo* object = nullptr;
  ~ErrorObjectSlot() {
    if (object) object->Release();
  }
};
thread_local ErrorObjectSlot t_errorObject;
}  // namespace

namespace corvane::platform {

void AddErrorRecord(const ErrorRecord& record) { t_records.list.push_back(record); }

void ClearErrorRecords() { ReleaseDynamicErrors(TakeErrorRecords()); }

size_t ErrorRecordCount() { return t_records.list.size(); }

bool GetErrorRecord(size_t index, ErrorRecord& out) {
  if (index >= t_records.list.size()) return false;
  out = t_records.list[index];
  return true;
}

std::vector<ErrorRecord> TakeErrorRecords() {
  std::vector<ErrorRecord> taken;
  taken.swap(t_records.list);
  return taken;
}

void RegisterErrorLookup(REFCLSID provider, REFCLSID lookup) {
  LookupRegistry& r = Lookups();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.byProvider[provider] = lookup;
}

void UnregisterErrorLookup(REFCLSID provider) {
  LookupRegistry& r = Lookups();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.byProvider.erase(provider);
}

bool FindErrorLookup(REFCLSID provider, CLSID* lookup) {
  LookupRegistry& r = Lookups();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.byProvider.find(provider);
  if (it == r.byProvider.end()) return false;
  *lookup = it->second;
  return true;
}

}  // namespace corvane::platform

extern "C" {

HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* perrinfo) {
  if (dwReserved != 0) return E_INVALIDARG;
  if (perrinfo) perrinfo->AddRef();
  IErrorInfo* previous = std::exchange(t_errorObject.object, perrinfo);
  if (previous) previous->Release();
  return S_OK;
}

HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** pperrinfo) {
  if (!pperrinfo) return E_INVALIDARG;
  if (dwReserved != 0) {
    *pperrinfo = nullptr;
    return E_INVALIDARG;
  }
  *pperrinfo = std::exchange(t_errorObject.object, nullptr);
  return *pperrinfo ? S_OK : S_FALSE;
}

}  // extern "C"
