#include <gtest/gtest.h>

#include <set>

#include "provider/PropertyEngine.h"
#include "tests/store/StoreTestSupport.h"

namespace corvane::test {
namespace {

class RowsetFetch : public RowsetTest {
 protected:
  // One of the rowset's interfaces, released by the caller.
  template <typename T>
  T* As(REFIID iid) {
    T* p = nullptr;
    EXPECT_EQ(S_OK, rowset_->QueryInterface(iid, reinterpret_cast<void**>(&p)));
    return p;
  }
  HRESULT SameRow(HROW a, HROW b) {
    IRowsetIdentity* identity = As<IRowsetIdentity>(IID_IRowsetIdentity);
    const HRESULT hr = identity->IsSameRow(a, b);
    identity->Release();
    return hr;
  }
};
using RowsetAccessor = RowsetFetch;
using RowsetDescription = RowsetFetch;

const DBPROP* Find(const DBPROPSET& set, DBPROPID id) {
  for (ULONG i = 0; i < set.cProperties; ++i)
    if (set.rgProperties[i].dwPropertyID == id) return &set.rgProperties[i];
  return nullptr;
}

// Bad arguments are refused before the store is asked; then handles come distinct and
// nonzero whether the rowset allocates their array or the consumer supplies it, and a
// held row outlives the store's queue, counted, until its last release.
TEST_F(RowsetFetch, ArgumentsAreCheckedThenHandlesAreDistinctAndHeldRowsCounted) {
  Open(10);
  DBCOUNTITEM obtained = 99;
  HROW* allocated = nullptr;
  EXPECT_EQ(E_INVALIDARG, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 1, nullptr, &allocated));
  EXPECT_EQ(E_INVALIDARG, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 1, &obtained, nullptr));
  EXPECT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 0, &obtained, &allocated));
  EXPECT_EQ(0u, obtained);
  EXPECT_EQ(0, producer_->fetches.load());
  EXPECT_EQ(DB_E_CANTSCROLLBACKWARDS, rowset_->GetNextRows(DB_NULL_HCHAPTER, -1, 1, &obtained, &allocated));
  EXPECT_EQ(DB_E_CANTFETCHBACKWARDS, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, -1, &obtained, &allocated));
  EXPECT_EQ(nullptr, allocated);
  EXPECT_EQ(S_OK, rowset_->RestartPosition(DB_NULL_HCHAPTER));  // nothing fetched yet

  ASSERT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 1, 3, &obtained, &allocated));
  ASSERT_EQ(3u, obtained);
  HROW supplied[8] = {};
  HROW* inPlace = supplied;
  ASSERT_EQ(S_OK, rowset_->GetNextRows(DB_NULL_HCHAPTER, 0, 4, &obtained, &inPlace));
  EXPECT_EQ(supplied, inPlace);
  ASSERT_EQ(4u, obtained);
  EXPECT_EQ(DB_S_ENDOFROWSET, rowset_->GetNextRows(DB_NULL_HCHAPTER, 10, 1, &obtained, &inPlace));
  EXPECT_EQ(0u, obtained);  // skipped past the end: the store dropped the two rows left
  std::set<HROW> seen(allocated, allocated + 3);
  seen.insert(supplied, supplied + 4);
  EXPECT_EQ(7u, seen.size());
  EXPECT_EQ(0u, seen.count(DB_NULL_HROW));
  EXPECT_EQ(S_FALSE, SameRow(allocated[0], supplied[0]));
  EXPECT_DOUBLE_EQ(7.0, ValueOf(supplied[3]));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(4, supplied, nullptr, nullptr, nullptr));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(2, allocated + 1, nullptr, nullptr, nullptr));

  const HROW first = allocated[0];
  CoTaskMemFree(allocated);
  DBREFCOUNT refs = 0;
  DBROWSTATUS status = 99;
  EXPECT_EQ(S_OK, rowset_->AddRefRows(1, &first, &refs, &status));
  EXPECT_EQ(2u, refs);
  EXPECT_DOUBLE_EQ(1.0, ValueOf(first));  // the first row was skipped
  EXPECT_EQ(S_OK, SameRow(first, first));
  const HROW both[] = {first, 12345};
  DBROWSTATUS statuses[2];
  DBREFCOUNT counts[2];
  EXPECT_EQ(DB_S_ERRORSOCCURRED, rowset_->ReleaseRows(2, both, nullptr, counts, statuses));
  EXPECT_EQ(1u, counts[0]);
  EXPECT_EQ(static_cast<DBROWSTATUS>(DBROWSTATUS_E_INVALID), statuses[1]);
  EXPECT_DOUBLE_EQ(1.0, ValueOf(first));
  EXPECT_EQ(S_OK, rowset_->ReleaseRows(1, &first, nullptr, counts, nullptr));
  EXPECT_EQ(0u, counts[0]);
  EXPECT_EQ(DB_E_BADROWHANDLE, StatusOf(first));
  EXPECT_EQ(DB_E_ERRORSOCCURRED, rowset_->ReleaseRows(1, &first, nullptr, nullptr, nullptr));
  EXPECT_EQ(DB_E_BADROWHANDLE, SameRow(first, first));
  EXPECT_EQ(DB_E_CANNOTRESTART, rowset_->RestartPosition(DB_NULL_HCHAPTER));
}

// Bindings are checked one by one and the accessor is refused as a whole; an accepted
// accessor is counted and gives back its bindings.
TEST_F(RowsetAccessor, BindingsAreValidatedThenAccessorsAreCountedAndGiveBackTheirBindings) {
  Open(1);
  const DBBINDING bad[] = {Binding(4, DBTYPE_R8, 0, 8), Binding(9, DBTYPE_R8, 0, 8),
                           Binding(1, DBTYPE_WSTR, 0, 8, DBPART_VALUE, DBMEMOWNER_PROVIDEROWNED),
                           Binding(3, DBTYPE_IUNKNOWN, 0, 8), Binding(1, DBTYPE_WSTR, 0, 8, 0)};
  DBBINDSTATUS status[5];
  HACCESSOR h = 77;
  EXPECT_EQ(DB_E_BADBINDINFO, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 5, bad, 0, &h, status));
  EXPECT_EQ(DB_NULL_HACCESSOR, h);
  EXPECT_EQ((std::vector<DBBINDSTATUS>{DBBINDSTATUS_OK, DBBINDSTATUS_BADORDINAL, DBBINDSTATUS_BADBINDINFO,
                                       DBBINDSTATUS_UNSUPPORTEDCONVERSION, DBBINDSTATUS_BADBINDINFO}),
            std::vector<DBBINDSTATUS>(status, status + 5));
  EXPECT_EQ(DB_E_BADACCESSORFLAGS, accessor_->CreateAccessor(DBACCESSOR_PARAMETERDATA, 1, bad, 0, &h, nullptr));
  EXPECT_EQ(DB_E_BYREFACCESSORNOTSUPPORTED,
            accessor_->CreateAccessor(DBACCESSOR_ROWDATA | DBACCESSOR_PASSBYREF, 1, bad, 0, &h, nullptr));
  EXPECT_EQ(DB_E_NULLACCESSORNOTSUPPORTED, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 0, bad, 0, &h, nullptr));

  const DBBINDING b[] = {Binding(1, kWStrRef, 0, 8, DBPART_VALUE, DBMEMOWNER_PROVIDEROWNED),
                         Binding(2, DBTYPE_DBTIMESTAMP, 16, 16)};
  ASSERT_EQ(S_OK, accessor_->CreateAccessor(DBACCESSOR_ROWDATA, 2, b, 0, &h, nullptr));
  EXPECT_NE(DB_NULL_HACCESSOR, h);
  DBREFCOUNT refs = 0;
  EXPECT_EQ(S_OK, accessor_->AddRefAccessor(h, &refs));
  EXPECT_EQ(2u, refs);
  DBACCESSORFLAGS flags = 0;
  DBCOUNTITEM count = 0;
  DBBINDING* copy = nullptr;
  ASSERT_EQ(S_OK, accessor_->GetBindings(h, &flags, &count, &copy));
  EXPECT_EQ(static_cast<DBACCESSORFLAGS>(DBACCESSOR_ROWDATA), flags);
  ASSERT_EQ(2u, count);
  EXPECT_EQ(0, std::memcmp(b, copy, sizeof b));
  CoTaskMemFree(copy);
  EXPECT_EQ(S_OK, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(1u, refs);
  EXPECT_EQ(S_OK, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(0u, refs);
  EXPECT_EQ(DB_E_BADACCESSORHANDLE, accessor_->ReleaseAccessor(h, &refs));
  EXPECT_EQ(DB_E_BADACCESSORHANDLE, accessor_->GetBindings(h, &flags, &count, &copy));
}

TEST_F(RowsetDescription, ColumnsAreDescribedAndMappedByName) {
  std::vector<ColumnRecord> columns = RawDataColumns();
  columns.insert(columns.begin() + 1, Column(OLESTR("MONEY"), 2, DBTYPE_CY, 8));
  Open(1, 4, CProviderIRowset::RowsetKind::Command, columns);
  IColumnsInfo* info = As<IColumnsInfo>(IID_IColumnsInfo);
  DBORDINAL n = 0;
  DBCOLUMNINFO* cols = nullptr;
  OLECHAR* strings = nullptr;
  ASSERT_EQ(S_OK, info->GetColumnInfo(&n, &cols, &strings));
  ASSERT_EQ(4u, n);
  EXPECT_EQ(WString(OLESTR("VALUE")), cols[3].pwszName);
  EXPECT_EQ(5u, cols[3].iOrdinal);
  EXPECT_EQ(WString(OLESTR("TIMESTAMP")), cols[1].columnid.uName.pwszName);
  EXPECT_EQ(DBTYPE_DBTIMESTAMP, cols[1].wType);
  CoTaskMemFree(cols);
  CoTaskMemFree(strings);
  DBID ids[2] = {{{}, DBKIND_NAME, {const_cast<LPOLESTR>(OLESTR("quality"))}},
                 {{}, DBKIND_NAME, {const_cast<LPOLESTR>(OLESTR("MONEY"))}}};
  DBORDINAL ordinals[2];
  EXPECT_EQ(DB_S_ERRORSOCCURRED, info->MapColumnIDs(2, ids, ordinals));
  EXPECT_EQ(4u, ordinals[0]);
  EXPECT_EQ(DB_INVALIDCOLUMN, ordinals[1]);
  info->Release();
}

// A table rowset can fetch backwards and has no bookmarks; a command rowset offers the bookmark properties as false.
TEST_F(RowsetDescription, PropertiesDependOnTheKindOfRowset) {
  const struct {
    CProviderIRowset::RowsetKind kind;
    DBPROPID present, absent;
    VARIANT_BOOL value;
  } kinds[] = {{CProviderIRowset::RowsetKind::Command, DBPROP_BOOKMARKS, DBPROP_MAXROWS, VARIANT_FALSE},
               {CProviderIRowset::RowsetKind::Table, DBPROP_CANFETCHBACKWARDS, DBPROP_BOOKMARKS, VARIANT_TRUE}};
  for (const auto& k : kinds) {
    if (rowset_) rowset_->Release(), accessor_->Release();
    Open(1, 4, k.kind);
    IRowsetInfo* info = As<IRowsetInfo>(IID_IRowsetInfo);
    ULONG n = 0;
    DBPROPSET* sets = nullptr;
    ASSERT_EQ(S_OK, info->GetProperties(0, nullptr, &n, &sets));
    ASSERT_EQ(1u, n);
    const DBPROP* present = Find(sets[0], k.present);
    ASSERT_NE(nullptr, present);
    EXPECT_EQ(k.value, V_BOOL(&present->vValue));
    EXPECT_EQ(nullptr, Find(sets[0], k.absent));
    CPropertyEngine::FreePropertySets(n, sets);
    info->Release();
  }
  // The table rowset: a request names its property set.
  IRowsetInfo* info = As<IRowsetInfo>(IID_IRowsetInfo);
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  DBPROPID ids[] = {DBPROP_MAXROWS, DBPROP_BOOKMARKS};
  DBPROPIDSET request = {ids, 2, {0xC8B522BE, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}}};
  ASSERT_EQ(DB_S_ERRORSOCCURRED, info->GetProperties(1, &request, &n, &sets));
  EXPECT_EQ(static_cast<DBPROPSTATUS>(DBPROPSTATUS_OK), sets[0].rgProperties[0].dwStatus);
  EXPECT_EQ(static_cast<DBPROPSTATUS>(DBPROPSTATUS_NOTSUPPORTED), sets[0].rgProperties[1].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  request.guidPropertySet = IID_IRowset;  // not a property set of a rowset
  EXPECT_EQ(DB_E_ERRORSOCCURRED, info->GetProperties(1, &request, &n, &sets));
  CPropertyEngine::FreePropertySets(n, sets);
  IUnknown* creator = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(S_FALSE, info->GetSpecification(IID_IUnknown, &creator));
  EXPECT_EQ(nullptr, creator);
  info->Release();
  IConvertType* convert = As<IConvertType>(IID_IConvertType);
  EXPECT_EQ(S_OK, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_COLUMN));
  EXPECT_EQ(DB_E_BADCONVERTFLAG, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_PARAMETER));
  EXPECT_EQ(DB_E_BADCONVERTFLAG, convert->CanConvert(DBTYPE_I4, DBTYPE_WSTR, DBCONVERTFLAGS_ISLONG));
  convert->Release();
}

}  // namespace
}  // namespace corvane::test
