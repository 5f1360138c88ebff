#include "SQLParser/SQLParser.h"

#include <cstdint>
#include <new>

#include "SQLParser/SQLSyntaxParser.h"
#include "base/Trace.h"

HRESULT CSQLParser::ParseQuery(const SQLParseRequest& request, std::unique_ptr<CSQLQueryInfo>* query,
                               corvane::WString* errorInfo) {
  HRESULT hr = S_OK;
  corvane::WString error;
  try {
    CVTRACE(TRACE_INFO, OLESTR("Called CSQLParser::ParseQuery"));
    if (errorInfo) errorInfo->clear();
    CSQLSyntaxParser parser(request.defaultCatalog, request.defaultSchema, request.queryText);
    if (!query) {
      hr = E_INVALIDARG;
    } else if (request.queryText.size() >= static_cast<size_t>(INT32_MAX)) {
      hr = E_INVALIDARG;  // the read position is 32 bits wide
    } else if (request.queryText.empty()) {
      return S_OK;
    } else {
      hr = parser.Start();
      if (SUCCEEDED(hr)) {
        *query = parser.TakeQuery();
        return S_OK;
      }
    }
    error = parser.ErrorInfo();
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  try {
    CVTRACE(TRACE_ERROR, OLESTR("Failed to parse the SQL query (HR = %X), error info: %s"), static_cast<unsigned>(hr),
            error.c_str());
    if (errorInfo) *errorInfo = std::move(error);
  } catch (const std::bad_alloc&) {
    // The failure code is what matters; the text is lost with the memory.
  }
  return hr;
}
