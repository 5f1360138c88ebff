#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/Platform.h"

// The POSIX layer must lay data out exactly as the Windows SDK does: these structures cross
// interfaces and are written into consumers' buffers. Member by member, with the offsets of
// the 64-bit Windows SDK (the Windows build compiles this same file against the SDK).
#define SIZE(T, n) static_assert(sizeof(T) == n, #T);
#define AT(T, m, n) static_assert(offsetof(T, m) == n, #T "." #m);
SIZE(DBBINDING, 88) AT(DBBINDING, iOrdinal, 0) AT(DBBINDING, obValue, 8) AT(DBBINDING, obLength, 16)
    AT(DBBINDING, obStatus, 24) AT(DBBINDING, pTypeInfo, 32) AT(DBBINDING, pObject, 40) AT(DBBINDING, pBindExt, 48)
    AT(DBBINDING, dwPart, 56) AT(DBBINDING, dwMemOwner, 60) AT(DBBINDING, eParamIO, 64) AT(DBBINDING, cbMaxLen, 72)
    AT(DBBINDING, dwFlags, 80) AT(DBBINDING, wType, 84) AT(DBBINDING, bPrecision, 86) AT(DBBINDING, bScale, 87)
SIZE(DBID, 32) AT(DBID, uGuid, 0) AT(DBID, eKind, 16) AT(DBID, uName, 24)
SIZE(DBCOLUMNINFO, 80) AT(DBCOLUMNINFO, pwszName, 0) AT(DBCOLUMNINFO, pTypeInfo, 8) AT(DBCOLUMNINFO, iOrdinal, 16)
    AT(DBCOLUMNINFO, dwFlags, 24) AT(DBCOLUMNINFO, ulColumnSize, 32) AT(DBCOLUMNINFO, wType, 40)
    AT(DBCOLUMNINFO, bPrecision, 42) AT(DBCOLUMNINFO, bScale, 43) AT(DBCOLUMNINFO, columnid, 48)
SIZE(DBPROP, 72) AT(DBPROP, dwPropertyID, 0) AT(DBPROP, dwOptions, 4) AT(DBPROP, dwStatus, 8) AT(DBPROP, colid, 16)
    AT(DBPROP, vValue, 48)
SIZE(DBPROPSET, 32) AT(DBPROPSET, rgProperties, 0) AT(DBPROPSET, cProperties, 8) AT(DBPROPSET, guidPropertySet, 12)
SIZE(DBPROPIDSET, 32) AT(DBPROPIDSET, rgPropertyIDs, 0) AT(DBPROPIDSET, cPropertyIDs, 8)
    AT(DBPROPIDSET, guidPropertySet, 12)
SIZE(DBPROPINFO, 48) AT(DBPROPINFO, pwszDescription, 0) AT(DBPROPINFO, dwPropertyID, 8) AT(DBPROPINFO, dwFlags, 12)
    AT(DBPROPINFO, vtType, 16) AT(DBPROPINFO, vValues, 24)
SIZE(DBPROPINFOSET, 32) AT(DBPROPINFOSET, rgPropertyInfos, 0) AT(DBPROPINFOSET, cPropertyInfos, 8)
    AT(DBPROPINFOSET, guidPropertySet, 12)
SIZE(DBPARAMINFO, 48) AT(DBPARAMINFO, dwFlags, 0) AT(DBPARAMINFO, iOrdinal, 8) AT(DBPARAMINFO, pwszName, 16)
    AT(DBPARAMINFO, pTypeInfo, 24) AT(DBPARAMINFO, ulParamSize, 32) AT(DBPARAMINFO, wType, 40)
    AT(DBPARAMINFO, bPrecision, 42) AT(DBPARAMINFO, bScale, 43)
SIZE(DBPARAMBINDINFO, 32) AT(DBPARAMBINDINFO, pwszDataSourceType, 0) AT(DBPARAMBINDINFO, pwszName, 8)
    AT(DBPARAMBINDINFO, ulParamSize, 16) AT(DBPARAMBINDINFO, dwFlags, 24) AT(DBPARAMBINDINFO, bPrecision, 28)
    AT(DBPARAMBINDINFO, bScale, 29)
SIZE(DBPARAMS, 24) AT(DBPARAMS, pData, 0) AT(DBPARAMS, cParamSets, 8) AT(DBPARAMS, hAccessor, 16)
SIZE(DBOBJECT, 20) AT(DBOBJECT, dwFlags, 0) AT(DBOBJECT, iid, 4)
SIZE(DBLITERALINFO, 40) AT(DBLITERALINFO, lt, 24) AT(DBLITERALINFO, fSupported, 28) AT(DBLITERALINFO, cchMaxLen, 32)
SIZE(DBDATE, 6) SIZE(DBTIME, 6) SIZE(DB_NUMERIC, 19) SIZE(DBVECTOR, 16)
SIZE(DCINFO, 32) AT(DCINFO, vData, 8)
SIZE(ERRORINFO, 44) AT(ERRORINFO, hrError, 0) AT(ERRORINFO, dwMinor, 4) AT(ERRORINFO, clsid, 8)
    AT(ERRORINFO, iid, 24) AT(ERRORINFO, dispid, 40)
SIZE(DISPPARAMS, 24) AT(DISPPARAMS, rgvarg, 0) AT(DISPPARAMS, rgdispidNamedArgs, 8) AT(DISPPARAMS, cArgs, 16)
    AT(DISPPARAMS, cNamedArgs, 20)
SIZE(TIME_ZONE_INFORMATION, 172) AT(TIME_ZONE_INFORMATION, StandardName, 4)
    AT(TIME_ZONE_INFORMATION, StandardDate, 68) AT(TIME_ZONE_INFORMATION, StandardBias, 84)
    AT(TIME_ZONE_INFORMATION, DaylightName, 88) AT(TIME_ZONE_INFORMATION, DaylightDate, 152)
    AT(TIME_ZONE_INFORMATION, DaylightBias, 168)
SIZE(LARGE_INTEGER, 8)
SIZE(DECIMAL, 16) AT(DECIMAL, scale, 2) AT(DECIMAL, sign, 3) AT(DECIMAL, Hi32, 4) AT(DECIMAL, Lo32, 8)
    AT(DECIMAL, Mid32, 12)
SIZE(SAFEARRAY, 32) AT(SAFEARRAY, pvData, 16) AT(SAFEARRAY, rgsabound, 24)
SIZE(DBREFCOUNT, 4) SIZE(DBHASHVALUE, 8) SIZE(DBLENGTH, 8) SIZE(HACCESSOR, 8) SIZE(DBTYPE, 2) SIZE(DBSTATUS, 4)
SIZE(DBROWCOUNT, 8)
// The base types: 32-bit LONG as on Windows, one UTF-16 code unit per OLECHAR.
SIZE(VARIANT, 24) AT(VARIANT, vt, 0) AT(VARIANT, lVal, 8) AT(VARIANT, llVal, 8) AT(VARIANT, bstrVal, 8)
    AT(VARIANT, decVal, 0)  // a DECIMAL takes the whole VARIANT, its reserved word over vt
SIZE(DBTIMESTAMP, 16) AT(DBTIMESTAMP, fraction, 12) SIZE(FILETIME, 8) SIZE(SYSTEMTIME, 16) SIZE(GUID, 16)
SIZE(OLECHAR, 2) SIZE(CY, 8) SIZE(HRESULT, 4) SIZE(ULONG, 4) SIZE(LONG, 4)

#undef SIZE
#undef AT

namespace {
// Slot of a virtual method in its vtable. Every compiler we build with (g++ and clang on Linux, mingw g++ for Windows)
// follows the Itanium C++ ABI, where a pointer to a virtual member function holds 1 + the slot's byte offset.
template <typename Method>
size_t Slot(Method method) {
  static_assert(sizeof(Method) == 2 * sizeof(uintptr_t), "Itanium member-function pointer");
  uintptr_t raw[2];
  std::memcpy(raw, &method, sizeof raw);
  return (raw[0] - 1) / sizeof(void*);
}
}  // namespace

// Objects cross between the provider and consumers built against the SDK, so every
// method must sit in the slot the SDK gives it (IUnknown takes slots 0 to 2).
TEST(Layout, InterfaceMethodsSitInTheSdkVtableSlots) {
#define SLOT(method, n) EXPECT_EQ(Slot(&method), size_t{n}) << #method;
  SLOT(IClassFactory::CreateInstance, 3) SLOT(IClassFactory::LockServer, 4) SLOT(IDBInitialize::Initialize, 3)
  SLOT(IDBInitialize::Uninitialize, 4) SLOT(IDBProperties::GetProperties, 3) SLOT(IDBProperties::GetPropertyInfo, 4)
  SLOT(IDBProperties::SetProperties, 5) SLOT(IDBCreateSession::CreateSession, 3) SLOT(IDBInfo::GetKeywords, 3)
  SLOT(IDBInfo::GetLiteralInfo, 4) SLOT(IPersist::GetClassID, 3) SLOT(IDBCreateCommand::CreateCommand, 3)
  SLOT(IOpenRowset::OpenRowset, 3) SLOT(IGetDataSource::GetDataSource, 3) SLOT(ISessionProperties::GetProperties, 3)
  SLOT(ISessionProperties::SetProperties, 4) SLOT(IDBSchemaRowset::GetRowset, 3) SLOT(IDBSchemaRowset::GetSchemas, 4)
  SLOT(ICommand::Cancel, 3) SLOT(ICommand::Execute, 4) SLOT(ICommand::GetDBSession, 5)
  SLOT(ICommandText::GetCommandText, 6) SLOT(ICommandText::SetCommandText, 7) SLOT(ICommandPrepare::Prepare, 3)
  SLOT(ICommandPrepare::Unprepare, 4) SLOT(ICommandProperties::GetProperties, 3)
  SLOT(ICommandProperties::SetProperties, 4) SLOT(ICommandWithParameters::GetParameterInfo, 3)
  SLOT(ICommandWithParameters::MapParameterNames, 4) SLOT(ICommandWithParameters::SetParameterInfo, 5)
  SLOT(IAccessor::AddRefAccessor, 3) SLOT(IAccessor::CreateAccessor, 4) SLOT(IAccessor::GetBindings, 5)
  SLOT(IAccessor::ReleaseAccessor, 6) SLOT(IRowset::AddRefRows, 3) SLOT(IRowset::GetData, 4)
  SLOT(IRowset::GetNextRows, 5) SLOT(IRowset::ReleaseRows, 6) SLOT(IRowset::RestartPosition, 7)
  SLOT(IRowsetInfo::GetProperties, 3) SLOT(IRowsetInfo::GetReferencedRowset, 4)
  SLOT(IRowsetInfo::GetSpecification, 5) SLOT(IColumnsInfo::GetColumnInfo, 3) SLOT(IColumnsInfo::MapColumnIDs, 4)
  SLOT(IConvertType::CanConvert, 3) SLOT(IMultipleResults::GetResult, 3) SLOT(IDataConvert::DataConvert, 3)
  SLOT(IDataConvert::CanConvert, 4) SLOT(IDataConvert::GetConversionSize, 5) SLOT(IDCInfo::GetInfo, 3)
  SLOT(IDCInfo::SetInfo, 4) SLOT(IErrorInfo::GetGUID, 3) SLOT(IErrorInfo::GetHelpContext, 7)
  SLOT(ISupportErrorInfo::InterfaceSupportsErrorInfo, 3) SLOT(IErrorRecords::AddErrorRecord, 3)
  SLOT(IErrorRecords::GetBasicErrorInfo, 4) SLOT(IErrorRecords::GetCustomErrorObject, 5)
  SLOT(IErrorRecords::GetErrorInfo, 6) SLOT(IErrorRecords::GetErrorParameters, 7)
  SLOT(IErrorRecords::GetRecordCount, 8) SLOT(IErrorLookup::GetErrorDescription, 3)
  SLOT(IErrorLookup::ReleaseErrors, 5)
#undef SLOT
}
