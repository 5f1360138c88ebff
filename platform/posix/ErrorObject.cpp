#include "platform/ErrorObject.h"

namespace corvane::platform {

HRESULT PostThreadErrorRecord(const ERRORINFO& info, const OLECHAR* source, const OLECHAR* description) {
  ErrorRecord record;
  record.info = info;
  record.lookupId = info.dwMinor;
  record.dynamicErrorId = info.dwMinor;
  record.source = source ? source : OLESTR("");
  record.description = description ? description : OLESTR("");
  AddErrorRecord(record);
  return S_OK;
}

void ClearThreadErrorObject() {
  ClearErrorRecords();
  SetErrorInfo(0, nullptr);
}

}  // namespace corvane::platform
