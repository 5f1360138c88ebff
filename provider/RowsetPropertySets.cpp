#include "provider/RowsetPropertySets.h"

namespace corvane {
namespace {

constexpr DBPROPFLAGS kRead = DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ;
constexpr DBPROPFLAGS kWrite = kRead | DBPROPFLAGS_WRITE;

const PropertyDefinition kCommandRowset[] = {
    {DBPROP_IAccessor, kRead, PropertyDefault::Bool(true), OLESTR("IAccessor")},
    {DBPROP_IColumnsInfo, kRead, PropertyDefault::Bool(true), OLESTR("IColumnsInfo")},
    {DBPROP_IConvertType, kRead, PropertyDefault::Bool(true), OLESTR("IConvertType")},
    {DBPROP_IRowset, kRead, PropertyDefault::Bool(true), OLESTR("IRowset")},
    {DBPROP_IRowsetIdentity, kRead, PropertyDefault::Bool(true), OLESTR("IRowsetIdentity")},
    {DBPROP_IRowsetInfo, kRead, PropertyDefault::Bool(true), OLESTR("IRowsetInfo")},
    {DBPROP_CANHOLDROWS, kWrite, PropertyDefault::Bool(true), OLESTR("Hold Rows")},
    {DBPROP_CANFETCHBACKWARDS, kRead, PropertyDefault::Bool(false), OLESTR("Fetch Backwards")},
    {DBPROP_CANSCROLLBACKWARDS, kRead, PropertyDefault::Bool(false), OLESTR("Scroll Backwards")},
    {DBPROP_BOOKMARKS, kRead, PropertyDefault::Bool(false), OLESTR("Use Bookmarks")},
    {DBPROP_BOOKMARKSKIPPED, kRead, PropertyDefault::Bool(false), OLESTR("Skip Deleted Bookmarks")},
    {DBPROP_BOOKMARKTYPE, kRead, PropertyDefault::I4(0), OLESTR("Bookmark Type")},
    {DBPROP_LITERALBOOKMARKS, kRead, PropertyDefault::Bool(false), OLESTR("Literal Bookmarks")},
    {DBPROP_ORDEREDBOOKMARKS, kRead, PropertyDefault::Bool(false), OLESTR("Ordered Bookmarks")},
};

// Fetch Backwards and Scroll Backwards say true although fetching only goes forward;
// consumers have always seen these values for opened tables.
const PropertyDefinition kTableRowset[] = {
    {DBPROP_IAccessor, kRead, PropertyDefault::Bool(true), OLESTR("IAccessor")},
    {DBPROP_IColumnsInfo, kRead, PropertyDefault::Bool(true), OLESTR("IColumnsInfo")},
    {DBPROP_IConvertType, kRead, PropertyDefault::Bool(true), OLESTR("IConvertType")},
    {DBPROP_IRowset, kRead, PropertyDefault::Bool(true), OLESTR("IRowset")},
    {DBPROP_IRowsetIdentity, kRead, PropertyDefault::Bool(true), OLESTR("IRowsetIdentity")},
    {DBPROP_IRowsetInfo, kRead, PropertyDefault::Bool(true), OLESTR("IRowsetInfo")},
    {DBPROP_CANHOLDROWS, kWrite, PropertyDefault::Bool(true), OLESTR("Hold Rows")},
    {DBPROP_CANFETCHBACKWARDS, kWrite, PropertyDefault::Bool(true), OLESTR("Fetch Backwards")},
    {DBPROP_CANSCROLLBACKWARDS, kWrite, PropertyDefault::Bool(true), OLESTR("Scroll Backwards")},
    {DBPROP_MAXOPENROWS, kRead, PropertyDefault::I4(0), OLESTR("Maximum Open Rows")},
    {DBPROP_MAXROWS, kWrite, PropertyDefault::I4(0), OLESTR("Maximum Rows")},
};

const PropertySetDefinition kCommandSets[] = {
    {&DBPROPSET_ROWSET, DBPROPFLAGS_ROWSET, kCommandRowset, sizeof kCommandRowset / sizeof kCommandRowset[0]},
};
const PropertySetDefinition kTableSets[] = {
    {&DBPROPSET_ROWSET, DBPROPFLAGS_ROWSET, kTableRowset, sizeof kTableRowset / sizeof kTableRowset[0]},
};

}  // namespace

const PropertySetDefinition* CommandRowsetPropertySets(size_t* count) {
  *count = sizeof kCommandSets / sizeof kCommandSets[0];
  return kCommandSets;
}

const PropertySetDefinition* TableRowsetPropertySets(size_t* count) {
  *count = sizeof kTableSets / sizeof kTableSets[0];
  return kTableSets;
}

}  // namespace corvane
