#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/Platform.h"

// The POSIX layer must lay data out exactly as the Windows SDK does: these structures
// cross interfaces and are written into consumers' buffers.
static_assert(sizeof(VARIANT) == 24, "VARIANT is 24 bytes on x64");
static_assert(offsetof(VARIANT, vt) == 0, "vt first");
static_assert(offsetof(VARIANT, lVal) == 8, "value at 8");
static_assert(offsetof(VARIANT, llVal) == 8, "value at 8");
static_assert(offsetof(VARIANT, bstrVal) == 8, "value at 8");
static_assert(sizeof(DECIMAL) == 16, "DECIMAL overlays the whole VARIANT head");
static_assert(sizeof(DBTIMESTAMP) == 16, "DBTIMESTAMP is 16 bytes");
static_assert(offsetof(DBTIMESTAMP, fraction) == 12, "fraction last");
static_assert(sizeof(FILETIME) == 8, "FILETIME is two DWORDs");
static_assert(sizeof(SYSTEMTIME) == 16, "SYSTEMTIME is eight WORDs");
static_assert(sizeof(GUID) == 16, "GUID is 16 bytes");
static_assert(sizeof(OLECHAR) == 2, "OLECHAR is one UTF-16 code unit");
static_assert(sizeof(CY) == 8, "CY is 64-bit");
static_assert(sizeof(HRESULT) == 4 && sizeof(ULONG) == 4 && sizeof(LONG) == 4, "32-bit LONG as on Windows");

// The OLE DB, error-object and time structures, member by member, with the offsets of the
// 64-bit Windows SDK (the Windows build compiles this same file against the SDK).
static_assert(sizeof(DBBINDING) == 88);
static_assert(offsetof(DBBINDING, iOrdinal) == 0);
static_assert(offsetof(DBBINDING, obValue) == 8);
static_assert(offsetof(DBBINDING, obLength) == 16);
static_assert(offsetof(DBBINDING, obStatus) == 24);
static_assert(offsetof(DBBINDING, pTypeInfo) == 32);
static_assert(offsetof(DBBINDING, pObject) == 40);
static_assert(offsetof(DBBINDING, pBindExt) == 48);
static_assert(offsetof(DBBINDING, dwPart) == 56);
static_assert(offsetof(DBBINDING, dwMemOwner) == 60);
static_assert(offsetof(DBBINDING, eParamIO) == 64);
static_assert(offsetof(DBBINDING, cbMaxLen) == 72);
static_assert(offsetof(DBBINDING, dwFlags) == 80);
static_assert(offsetof(DBBINDING, wType) == 84);
static_assert(offsetof(DBBINDING, bPrecision) == 86);
static_assert(offsetof(DBBINDING, bScale) == 87);

static_assert(sizeof(DBID) == 32);
static_assert(offsetof(DBID, uGuid) == 0);
static_assert(offsetof(DBID, eKind) == 16);
static_assert(offsetof(DBID, uName) == 24);

static_assert(sizeof(DBCOLUMNINFO) == 80);
static_assert(offsetof(DBCOLUMNINFO, pwszName) == 0);
static_assert(offsetof(DBCOLUMNINFO, pTypeInfo) == 8);
static_assert(offsetof(DBCOLUMNINFO, iOrdinal) == 16);
static_assert(offsetof(DBCOLUMNINFO, dwFlags) == 24);
static_assert(offsetof(DBCOLUMNINFO, ulColumnSize) == 32);
static_assert(offsetof(DBCOLUMNINFO, wType) == 40);
static_assert(offsetof(DBCOLUMNINFO, bPrecision) == 42);
static_assert(offsetof(DBCOLUMNINFO, bScale) == 43);
static_assert(offsetof(DBCOLUMNINFO, columnid) == 48);

static_assert(sizeof(DBPROP) == 72);
static_assert(offsetof(DBPROP, dwPropertyID) == 0);
static_assert(offsetof(DBPROP, dwOptions) == 4);
static_assert(offsetof(DBPROP, dwStatus) == 8);
static_assert(offsetof(DBPROP, colid) == 16);
static_assert(offsetof(DBPROP, vValue) == 48);

static_assert(sizeof(DBPROPSET) == 32);
static_assert(offsetof(DBPROPSET, rgProperties) == 0);
static_assert(offsetof(DBPROPSET, cProperties) == 8);
static_assert(offsetof(DBPROPSET, guidPropertySet) == 12);

static_assert(sizeof(DBPROPIDSET) == 32);
static_assert(offsetof(DBPROPIDSET, rgPropertyIDs) == 0);
static_assert(offsetof(DBPROPIDSET, cPropertyIDs) == 8);
static_assert(offsetof(DBPROPIDSET, guidPropertySet) == 12);

static_assert(sizeof(DBPROPINFO) == 48);
static_assert(offsetof(DBPROPINFO, pwszDescription) == 0);
static_assert(offsetof(DBPROPINFO, dwPropertyID) == 8);
static_assert(offsetof(DBPROPINFO, dwFlags) == 12);
static_assert(offsetof(DBPROPINFO, vtType) == 16);
static_assert(offsetof(DBPROPINFO, vValues) == 24);

static_assert(sizeof(DBPROPINFOSET) == 32);
static_assert(offsetof(DBPROPINFOSET, rgPropertyInfos) == 0);
static_assert(offsetof(DBPROPINFOSET, cPropertyInfos) == 8);
static_assert(offsetof(DBPROPINFOSET, guidPropertySet) == 12);

static_assert(sizeof(DBPARAMINFO) == 48);
static_assert(offsetof(DBPARAMINFO, dwFlags) == 0);
static_assert(offsetof(DBPARAMINFO, iOrdinal) == 8);
static_assert(offsetof(DBPARAMINFO, pwszName) == 16);
static_assert(offsetof(DBPARAMINFO, pTypeInfo) == 24);
static_assert(offsetof(DBPARAMINFO, ulParamSize) == 32);
static_assert(offsetof(DBPARAMINFO, wType) == 40);
static_assert(offsetof(DBPARAMINFO, bPrecision) == 42);
static_assert(offsetof(DBPARAMINFO, bScale) == 43);

static_assert(sizeof(DBPARAMBINDINFO) == 32);
static_assert(offsetof(DBPARAMBINDINFO, pwszDataSourceType) == 0);
static_assert(offsetof(DBPARAMBINDINFO, pwszName) == 8);
static_assert(offsetof(DBPARAMBINDINFO, ulParamSize) == 16);
static_assert(offsetof(DBPARAMBINDINFO, dwFlags) == 24);
static_assert(offsetof(DBPARAMBINDINFO, bPrecision) == 28);
static_assert(offsetof(DBPARAMBINDINFO, bScale) == 29);

static_assert(sizeof(DBPARAMS) == 24);
static_assert(offsetof(DBPARAMS, pData) == 0);
static_assert(offsetof(DBPARAMS, cParamSets) == 8);
static_assert(offsetof(DBPARAMS, hAccessor) == 16);

static_assert(sizeof(DBOBJECT) == 20);
static_assert(offsetof(DBOBJECT, dwFlags) == 0);
static_assert(offsetof(DBOBJECT, iid) == 4);

static_assert(sizeof(DBLITERALINFO) == 40);
static_assert(offsetof(DBLITERALINFO, lt) == 24);
static_assert(offsetof(DBLITERALINFO, fSupported) == 28);
static_assert(offsetof(DBLITERALINFO, cchMaxLen) == 32);

static_assert(sizeof(DBDATE) == 6);

static_assert(sizeof(DBTIME) == 6);

static_assert(sizeof(DB_NUMERIC) == 19);

static_assert(sizeof(DBVECTOR) == 16);

static_assert(sizeof(DCINFO) == 32);
static_assert(offsetof(DCINFO, vData) == 8);

static_assert(sizeof(ERRORINFO) == 44);
static_assert(offsetof(ERRORINFO, hrError) == 0);
static_assert(offsetof(ERRORINFO, dwMinor) == 4);
static_assert(offsetof(ERRORINFO, clsid) == 8);
static_assert(offsetof(ERRORINFO, iid) == 24);
static_assert(offsetof(ERRORINFO, dispid) == 40);

static_assert(sizeof(DISPPARAMS) == 24);
static_assert(offsetof(DISPPARAMS, rgvarg) == 0);
static_assert(offsetof(DISPPARAMS, rgdispidNamedArgs) == 8);
static_assert(offsetof(DISPPARAMS, cArgs) == 16);
static_assert(offsetof(DISPPARAMS, cNamedArgs) == 20);

static_assert(sizeof(TIME_ZONE_INFORMATION) == 172);
static_assert(offsetof(TIME_ZONE_INFORMATION, StandardName) == 4);
static_assert(offsetof(TIME_ZONE_INFORMATION, StandardDate) == 68);
static_assert(offsetof(TIME_ZONE_INFORMATION, StandardBias) == 84);
static_assert(offsetof(TIME_ZONE_INFORMATION, DaylightName) == 88);
static_assert(offsetof(TIME_ZONE_INFORMATION, DaylightDate) == 152);
static_assert(offsetof(TIME_ZONE_INFORMATION, DaylightBias) == 168);

static_assert(sizeof(LARGE_INTEGER) == 8);

static_assert(sizeof(DECIMAL) == 16);
static_assert(offsetof(DECIMAL, scale) == 2);
static_assert(offsetof(DECIMAL, sign) == 3);
static_assert(offsetof(DECIMAL, Hi32) == 4);
static_assert(offsetof(DECIMAL, Lo32) == 8);
static_assert(offsetof(DECIMAL, Mid32) == 12);

static_assert(sizeof(SAFEARRAY) == 32);
static_assert(offsetof(SAFEARRAY, pvData) == 16);
static_assert(offsetof(SAFEARRAY, rgsabound) == 24);

static_assert(sizeof(DBREFCOUNT) == 4);

static_assert(sizeof(DBHASHVALUE) == 8);

static_assert(sizeof(DBLENGTH) == 8);

static_assert(sizeof(HACCESSOR) == 8);

static_assert(sizeof(DBTYPE) == 2);

static_assert(sizeof(DBSTATUS) == 4);

static_assert(sizeof(DBROWCOUNT) == 8);

TEST(Layout, VariantMembersShareTheValueSlot) {
  VARIANT v;
  v.vt = VT_I8;
  v.llVal = 0x0102030405060708LL;
  EXPECT_EQ(v.lVal, 0x05060708);
  EXPECT_EQ(v.decVal.Lo64 & 0xFFFFFFFFu, 0x05060708u);
}

namespace {
// Slot of a virtual method in its vtable. Every compiler we build with (g++ and clang on
// Linux, mingw g++ for Windows) follows the Itanium C++ ABI, where a pointer to a
// virtual member function holds 1 + the slot's byte offset.
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
  EXPECT_EQ(Slot(&IClassFactory::CreateInstance), 3u);
  EXPECT_EQ(Slot(&IClassFactory::LockServer), 4u);
  EXPECT_EQ(Slot(&IDBInitialize::Initialize), 3u);
  EXPECT_EQ(Slot(&IDBInitialize::Uninitialize), 4u);
  EXPECT_EQ(Slot(&IDBProperties::GetProperties), 3u);
  EXPECT_EQ(Slot(&IDBProperties::GetPropertyInfo), 4u);
  EXPECT_EQ(Slot(&IDBProperties::SetProperties), 5u);
  EXPECT_EQ(Slot(&IDBCreateSession::CreateSession), 3u);
  EXPECT_EQ(Slot(&IDBInfo::GetKeywords), 3u);
  EXPECT_EQ(Slot(&IDBInfo::GetLiteralInfo), 4u);
  EXPECT_EQ(Slot(&IPersist::GetClassID), 3u);
  EXPECT_EQ(Slot(&IDBCreateCommand::CreateCommand), 3u);
  EXPECT_EQ(Slot(&IOpenRowset::OpenRowset), 3u);
  EXPECT_EQ(Slot(&IGetDataSource::GetDataSource), 3u);
  EXPECT_EQ(Slot(&ISessionProperties::GetProperties), 3u);
  EXPECT_EQ(Slot(&ISessionProperties::SetProperties), 4u);
  EXPECT_EQ(Slot(&IDBSchemaRowset::GetRowset), 3u);
  EXPECT_EQ(Slot(&IDBSchemaRowset::GetSchemas), 4u);
  EXPECT_EQ(Slot(&ICommand::Cancel), 3u);
  EXPECT_EQ(Slot(&ICommand::Execute), 4u);
  EXPECT_EQ(Slot(&ICommand::GetDBSession), 5u);
  EXPECT_EQ(Slot(&ICommandText::GetCommandText), 6u);
  EXPECT_EQ(Slot(&ICommandText::SetCommandText), 7u);
  EXPECT_EQ(Slot(&ICommandPrepare::Prepare), 3u);
  EXPECT_EQ(Slot(&ICommandPrepare::Unprepare), 4u);
  EXPECT_EQ(Slot(&ICommandProperties::GetProperties), 3u);
  EXPECT_EQ(Slot(&ICommandProperties::SetProperties), 4u);
  EXPECT_EQ(Slot(&ICommandWithParameters::GetParameterInfo), 3u);
  EXPECT_EQ(Slot(&ICommandWithParameters::MapParameterNames), 4u);
  EXPECT_EQ(Slot(&ICommandWithParameters::SetParameterInfo), 5u);
  EXPECT_EQ(Slot(&IAccessor::AddRefAccessor), 3u);
  EXPECT_EQ(Slot(&IAccessor::CreateAccessor), 4u);
  EXPECT_EQ(Slot(&IAccessor::GetBindings), 5u);
  EXPECT_EQ(Slot(&IAccessor::ReleaseAccessor), 6u);
  EXPECT_EQ(Slot(&IRowset::AddRefRows), 3u);
  EXPECT_EQ(Slot(&IRowset::GetData), 4u);
  EXPECT_EQ(Slot(&IRowset::GetNextRows), 5u);
  EXPECT_EQ(Slot(&IRowset::ReleaseRows), 6u);
  EXPECT_EQ(Slot(&IRowset::RestartPosition), 7u);
  EXPECT_EQ(Slot(&IRowsetInfo::GetProperties), 3u);
  EXPECT_EQ(Slot(&IRowsetInfo::GetReferencedRowset), 4u);
  EXPECT_EQ(Slot(&IRowsetInfo::GetSpecification), 5u);
  EXPECT_EQ(Slot(&IColumnsInfo::GetColumnInfo), 3u);
  EXPECT_EQ(Slot(&IColumnsInfo::MapColumnIDs), 4u);
  EXPECT_EQ(Slot(&IConvertType::CanConvert), 3u);
  EXPECT_EQ(Slot(&IMultipleResults::GetResult), 3u);
  EXPECT_EQ(Slot(&IDataConvert::DataConvert), 3u);
  EXPECT_EQ(Slot(&IDataConvert::CanConvert), 4u);
  EXPECT_EQ(Slot(&IDataConvert::GetConversionSize), 5u);
  EXPECT_EQ(Slot(&IDCInfo::GetInfo), 3u);
  EXPECT_EQ(Slot(&IDCInfo::SetInfo), 4u);
  EXPECT_EQ(Slot(&IErrorInfo::GetGUID), 3u);
  EXPECT_EQ(Slot(&IErrorInfo::GetHelpContext), 7u);
  EXPECT_EQ(Slot(&ISupportErrorInfo::InterfaceSupportsErrorInfo), 3u);
  EXPECT_EQ(Slot(&IErrorRecords::AddErrorRecord), 3u);
  EXPECT_EQ(Slot(&IErrorRecords::GetBasicErrorInfo), 4u);
  EXPECT_EQ(Slot(&IErrorRecords::GetCustomErrorObject), 5u);
  EXPECT_EQ(Slot(&IErrorRecords::GetErrorInfo), 6u);
  EXPECT_EQ(Slot(&IErrorRecords::GetErrorParameters), 7u);
  EXPECT_EQ(Slot(&IErrorRecords::GetRecordCount), 8u);
  EXPECT_EQ(Slot(&IErrorLookup::GetErrorDescription), 3u);
  EXPECT_EQ(Slot(&IErrorLookup::ReleaseErrors), 5u);
}
