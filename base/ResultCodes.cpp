#include "base/ResultCodes.h"

namespace corvane {
namespace {

struct InterfaceText {
  const IID* iid;
  const OLECHAR* text;
};

const InterfaceText kInterfaceTexts[] = {
    {&IID_ICommand, OLESTR("Failed to execute a command (IID_ICommand).")},
    {&IID_ICommandText, OLESTR("Failed to run a command (IID_ICommandText).")},
    {&IID_ICommandPrepare, OLESTR("Failed to prepare a command (IID_ICommandPrepare).")},
    {&IID_IDBCreateCommand, OLESTR("Failed to create a command (IID_IDBCreateCommand).")},
    {&IID_IDBSchemaRowset, OLESTR("Failed to get a rowset or schema (IID_IDBSchemaRowset).")},
    {&IID_IOpenRowset, OLESTR("Failed to open a rowset (IID_IOpenRowset).")},
    {&IID_IDBProperties, OLESTR("Failed to get/set the properties (IID_IDBProperties).")},
    {&IID_IDBInitialize, OLESTR("Failed to initialize/unitialize a data source (IID_IDBInitialize).")},
    {&IID_IDBCreateSession, OLESTR("Failed to create a session (IID_IDBCreateSession).")},
    {&IID_IDBInfo, OLESTR("Failed to get keywords or literals (IID_IDBInfo).")},
};

const OLECHAR kDetailsPattern[] = OLESTR("%s Details: %s");

}  // namespace

WString ErrorInterfaceText(REFIID iid) {
  for (const auto& entry : kInterfaceTexts)
    if (IsEqualIID(*entry.iid, iid)) return entry.text;
  const unsigned fourth = (static_cast<unsigned>(iid.Data4[0]) << 8) | iid.Data4[1];
  return WFormat(OLESTR("Failed (interface %X-%X-%X-%X)."), static_cast<unsigned>(iid.Data1),
                 static_cast<unsigned>(iid.Data2), static_cast<unsigned>(iid.Data3), fourth);
}

WString ErrorResultText(HRESULT hr) {
  const unsigned code = static_cast<unsigned>(hr);
  switch (code) {
    case 0x8004C001u:
      return OLESTR("Required table doesn't exist.");
    case 0x8004C004u:
      return OLESTR("Missing required parameter.");
    case 0x8004C005u:
      return OLESTR("Required tag path doesn't exist.");
    case 0x8004C007u:
      return OLESTR("Required stored procedure doesn't exist.");
    case 0xC0041009u:
      return WFormat(OLESTR("The requested aggregate is not available from the provided item (%X)."), code);
    case 0xC004100Bu:
      return WFormat(OLESTR("Unable to insert - data already present (%X)."), code);
    case 0x80004005u:
      return OLESTR("Returned E_FAIL.");
    case 0x80020005u:
      return OLESTR("Type mismatch.");
    default:
      return WFormat(OLESTR("No more details (HRESULT = %X)."), code);
  }
}

WString DescribeFailure(REFIID iid, HRESULT hr) {
  return WFormat(kDetailsPattern, ErrorInterfaceText(iid).c_str(), ErrorResultText(hr).c_str());
}

WString DescribeFailure(REFIID iid, const OLECHAR* message) {
  return WFormat(kDetailsPattern, ErrorInterfaceText(iid).c_str(), message ? message : OLESTR(""));
}

}  // namespace corvane
