// The thread's error object lives in thread-local storage: OLE DB error objects are
// per thread, so records posted by one client thread never show up on another.
#include <utility>

#include "platform/Platform.h"

namespace {
thread_local std::vector<corvane::platform::ErrorRecord> t_records;

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

void AddErrorRecord(const ErrorRecord& record) { t_records.push_back(record); }

void ClearErrorRecords() { t_records.clear(); }

size_t ErrorRecordCount() { return t_records.size(); }

bool GetErrorRecord(size_t index, ErrorRecord& out) {
  if (index >= t_records.size()) return false;
  out = t_records[index];
  return true;
}

std::vector<ErrorRecord> TakeErrorRecords() {
  std::vector<ErrorRecord> taken;
  taken.swap(t_records);
  return taken;
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
