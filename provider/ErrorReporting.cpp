// Error records. The thread's error object (oledb32's on Windows) gets each
// description from the provider's error lookup service by the record's lookup id, and
// tells the service to drop the text (the lookup id is also the record's dynamic error
// id) when the consumer releases the error object.
#include "provider/ErrorReporting.h"

#include "platform/ErrorObject.h"
#include "provider/ErrorLookup.h"
#include "provider/ICreateCorvaneOleDbProvider.h"

namespace corvane {

HRESULT PostFailure(REFIID iid, HRESULT hr, const OLECHAR* source) {
  return PostErrorRecord(iid, hr, source, DescribeFailure(iid, hr).c_str());
}

HRESULT PostErrorRecord(REFIID iid, HRESULT hr, const OLECHAR* source, const OLECHAR* description) {
  ERRORINFO info = {};
  info.hrError = hr;
  info.dwMinor = CErrorLookup::Hold(hr, source, description);
  info.clsid = CLSID_CorvaneOleDbProvider;
  info.iid = iid;
  const HRESULT posted = platform::PostThreadErrorRecord(info, source, description);
  // A text no record refers to would only wait for eviction.
  if (posted != S_OK && info.dwMinor) CErrorLookup::Drop(info.dwMinor);
  return FAILED(posted) ? posted : S_OK;
}

void ClearErrorRecords() { platform::ClearThreadErrorObject(); }

}  // namespace corvane
