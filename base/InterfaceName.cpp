#include "base/InterfaceName.h"

#include <cstdint>

namespace corvane {
namespace {

// Consumers mostly ask the rowset and command objects for interfaces of the OLE DB
// rowset family that the provider does not offer; those are named too, so that a
// trace says what the consumer wanted rather than a bare GUID.
constexpr GUID OleDbIid(uint32_t first) {
  return GUID{first, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
}

struct NamedInterface {
  GUID iid;
  const OLECHAR* name;
};

const NamedInterface kNames[] = {
    {IID_IUnknown, OLESTR("IUnknown")},
    {IID_IAccessor, OLESTR("IAccessor")},
    {IID_IRowset, OLESTR("IRowset")},
    {IID_IRowsetInfo, OLESTR("IRowsetInfo")},
    {IID_IRowsetIdentity, OLESTR("IRowsetIdentity")},
    {IID_IColumnsInfo, OLESTR("IColumnsInfo")},
    {IID_IConvertType, OLESTR("IConvertType")},
    {IID_ICommand, OLESTR("ICommand")},
    {IID_ICommandText, OLESTR("ICommandText")},
    {IID_ICommandPrepare, OLESTR("ICommandPrepare")},
    {IID_ICommandProperties, OLESTR("ICommandProperties")},
    {IID_ICommandWithParameters, OLESTR("ICommandWithParameters")},
    {IID_IMultipleResults, OLESTR("IMultipleResults")},
    {IID_IDBCreateCommand, OLESTR("IDBCreateCommand")},
    {IID_IDBCreateSession, OLESTR("IDBCreateSession")},
    {IID_IDBSchemaRowset, OLESTR("IDBSchemaRowset")},
    {IID_IOpenRowset, OLESTR("IOpenRowset")},
    {IID_IGetDataSource, OLESTR("IGetDataSource")},
    {IID_ISessionProperties, OLESTR("ISessionProperties")},
    {IID_IDBProperties, OLESTR("IDBProperties")},
    {IID_IDBInitialize, OLESTR("IDBInitialize")},
    {IID_IDBInfo, OLESTR("IDBInfo")},
    {IID_IPersist, OLESTR("IPersist")},
    {IID_ISupportErrorInfo, OLESTR("ISupportErrorInfo")},
    {OleDbIid(0x0C733A05), OLESTR("IRowsetChange")},
    {OleDbIid(0x0C733A6D), OLESTR("IRowsetUpdate")},
    {OleDbIid(0x0C733A7D), OLESTR("IRowsetLocate")},
    {OleDbIid(0x0C733A7E), OLESTR("IRowsetScroll")},
    {OleDbIid(0x0C733A10), OLESTR("IColumnsRowset")},
};

}  // namespace

WString InterfaceName(REFIID iid) {
  for (const auto& known : kNames)
    if (IsEqualIID(iid, known.iid)) return known.name;
  OLECHAR text[40] = {};  // a braced GUID and its terminator
  StringFromGUID2(iid, text, 40);
  return text;
}

}  // namespace corvane
