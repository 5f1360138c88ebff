#include "provider/SchemaRowsets.h"

#include <set>

#include "base/Trace.h"

using corvane::WString;

namespace {

constexpr ULONGLONG kNameSize = 128;
constexpr ULONGLONG kTextSize = 1024;

struct ColumnLayout {
  const OLECHAR* name;
  DBTYPE type;
  ULONGLONG size;
};

// The GUID columns of the standard layouts (TABLE_GUID, COLUMN_GUID, TYPE_GUID and
// PROVIDER_TYPES' GUID) are null, which is what OLE DB asks of a provider whose tables,
// columns and types are known by name and whose types come from no type library. The
// data store holds no GUID cells, so they are offered as VARIANT columns that read as
// null in any binding.
constexpr DBTYPE kGuidColumn = DBTYPE_VARIANT;

#define NAME_COLUMN(n) {OLESTR(n), DBTYPE_WSTR, kNameSize}
#define TEXT_COLUMN(n) {OLESTR(n), DBTYPE_WSTR, kTextSize}
#define FIXED_COLUMN(n, t) {OLESTR(n), t, 0}

const ColumnLayout kCatalogs[] = {NAME_COLUMN("CATALOG_NAME"), TEXT_COLUMN("DESCRIPTION")};

const ColumnLayout kSchemata[] = {
    NAME_COLUMN("CATALOG_NAME"),
    NAME_COLUMN("SCHEMA_NAME"),
    NAME_COLUMN("SCHEMA_OWNER"),
    NAME_COLUMN("DEFAULT_CHARACTER_SET_CATALOG"),
    NAME_COLUMN("DEFAULT_CHARACTER_SET_SCHEMA"),
    NAME_COLUMN("DEFAULT_CHARACTER_SET_NAME"),
};

const ColumnLayout kTables[] = {
    NAME_COLUMN("TABLE_CATALOG"),           NAME_COLUMN("TABLE_SCHEMA"),
    NAME_COLUMN("TABLE_NAME"),              NAME_COLUMN("TABLE_TYPE"),
    FIXED_COLUMN("TABLE_GUID", kGuidColumn), TEXT_COLUMN("DESCRIPTION"),
    FIXED_COLUMN("TABLE_PROPID", DBTYPE_UI4), FIXED_COLUMN("DATE_CREATED", DBTYPE_DATE),
    FIXED_COLUMN("DATE_MODIFIED", DBTYPE_DATE),
};

const ColumnLayout kTablesInfo[] = {
    NAME_COLUMN("TABLE_CATALOG"),
    NAME_COLUMN("TABLE_SCHEMA"),
    NAME_COLUMN("TABLE_NAME"),
    NAME_COLUMN("TABLE_TYPE"),
    FIXED_COLUMN("TABLE_GUID", kGuidColumn),
    FIXED_COLUMN("BOOKMARKS", DBTYPE_BOOL),
    FIXED_COLUMN("BOOKMARK_TYPE", DBTYPE_I4),
    FIXED_COLUMN("BOOKMARK_DATATYPE", DBTYPE_UI2),
    FIXED_COLUMN("BOOKMARK_MAXIMUM_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("BOOKMARK_INFORMATION", DBTYPE_UI4),
    FIXED_COLUMN("TABLE_VERSION", DBTYPE_I8),
    FIXED_COLUMN("CARDINALITY", DBTYPE_UI8),
    TEXT_COLUMN("DESCRIPTION"),
    FIXED_COLUMN("TABLE_PROPID", DBTYPE_UI4),
};

const ColumnLayout kColumns[] = {
    NAME_COLUMN("TABLE_CATALOG"),
    NAME_COLUMN("TABLE_SCHEMA"),
    NAME_COLUMN("TABLE_NAME"),
    NAME_COLUMN("COLUMN_NAME"),
    FIXED_COLUMN("COLUMN_GUID", kGuidColumn),
    FIXED_COLUMN("COLUMN_PROPID", DBTYPE_UI4),
    FIXED_COLUMN("ORDINAL_POSITION", DBTYPE_UI4),
    FIXED_COLUMN("COLUMN_HASDEFAULT", DBTYPE_BOOL),
    TEXT_COLUMN("COLUMN_DEFAULT"),
    FIXED_COLUMN("COLUMN_FLAGS", DBTYPE_UI4),
    FIXED_COLUMN("IS_NULLABLE", DBTYPE_BOOL),
    FIXED_COLUMN("DATA_TYPE", DBTYPE_UI2),
    FIXED_COLUMN("TYPE_GUID", kGuidColumn),
    FIXED_COLUMN("CHARACTER_MAXIMUM_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("CHARACTER_OCTET_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("NUMERIC_PRECISION", DBTYPE_UI2),
    FIXED_COLUMN("NUMERIC_SCALE", DBTYPE_I2),
    FIXED_COLUMN("DATETIME_PRECISION", DBTYPE_UI4),
    NAME_COLUMN("CHARACTER_SET_CATALOG"),
    NAME_COLUMN("CHARACTER_SET_SCHEMA"),
    NAME_COLUMN("CHARACTER_SET_NAME"),
    NAME_COLUMN("COLLATION_CATALOG"),
    NAME_COLUMN("COLLATION_SCHEMA"),
    NAME_COLUMN("COLLATION_NAME"),
    NAME_COLUMN("DOMAIN_CATALOG"),
    NAME_COLUMN("DOMAIN_SCHEMA"),
    NAME_COLUMN("DOMAIN_NAME"),
    TEXT_COLUMN("DESCRIPTION"),
};

const ColumnLayout kProviderTypes[] = {
    NAME_COLUMN("TYPE_NAME"),
    FIXED_COLUMN("DATA_TYPE", DBTYPE_UI2),
    FIXED_COLUMN("COLUMN_SIZE", DBTYPE_UI4),
    NAME_COLUMN("LITERAL_PREFIX"),
    NAME_COLUMN("LITERAL_SUFFIX"),
    NAME_COLUMN("CREATE_PARAMS"),
    FIXED_COLUMN("IS_NULLABLE", DBTYPE_BOOL),
    FIXED_COLUMN("CASE_SENSITIVE", DBTYPE_BOOL),
    FIXED_COLUMN("SEARCHABLE", DBTYPE_UI4),
    FIXED_COLUMN("UNSIGNED_ATTRIBUTE", DBTYPE_BOOL),
    FIXED_COLUMN("FIXED_PREC_SCALE", DBTYPE_BOOL),
    FIXED_COLUMN("AUTO_UNIQUE_VALUE", DBTYPE_BOOL),
    NAME_COLUMN("LOCAL_TYPE_NAME"),
    FIXED_COLUMN("MINIMUM_SCALE", DBTYPE_I2),
    FIXED_COLUMN("MAXIMUM_SCALE", DBTYPE_I2),
    FIXED_COLUMN("GUID", kGuidColumn),
    NAME_COLUMN("TYPELIB"),
    NAME_COLUMN("VERSION"),
    FIXED_COLUMN("IS_LONG", DBTYPE_BOOL),
    FIXED_COLUMN("BEST_MATCH", DBTYPE_BOOL),
    FIXED_COLUMN("IS_FIXEDLENGTH", DBTYPE_BOOL),
};

const ColumnLayout kProcedures[] = {
    NAME_COLUMN("PROCEDURE_CATALOG"),          NAME_COLUMN("PROCEDURE_SCHEMA"),
    NAME_COLUMN("PROCEDURE_NAME"),             FIXED_COLUMN("PROCEDURE_TYPE", DBTYPE_I2),
    TEXT_COLUMN("PROCEDURE_DEFINITION"),       TEXT_COLUMN("DESCRIPTION"),
    FIXED_COLUMN("DATE_CREATED", DBTYPE_DATE), FIXED_COLUMN("DATE_MODIFIED", DBTYPE_DATE),
};

const ColumnLayout kProcedureParameters[] = {
    NAME_COLUMN("PROCEDURE_CATALOG"),
    NAME_COLUMN("PROCEDURE_SCHEMA"),
    NAME_COLUMN("PROCEDURE_NAME"),
    NAME_COLUMN("PARAMETER_NAME"),
    FIXED_COLUMN("ORDINAL_POSITION", DBTYPE_UI2),
    FIXED_COLUMN("PARAMETER_TYPE", DBTYPE_UI2),
    FIXED_COLUMN("PARAMETER_HASDEFAULT", DBTYPE_BOOL),
    TEXT_COLUMN("PARAMETER_DEFAULT"),
    FIXED_COLUMN("IS_NULLABLE", DBTYPE_BOOL),
    FIXED_COLUMN("DATA_TYPE", DBTYPE_UI2),
    FIXED_COLUMN("CHARACTER_MAXIMUM_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("CHARACTER_OCTET_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("NUMERIC_PRECISION", DBTYPE_UI2),
    FIXED_COLUMN("NUMERIC_SCALE", DBTYPE_I2),
    TEXT_COLUMN("DESCRIPTION"),
    NAME_COLUMN("TYPE_NAME"),
    NAME_COLUMN("LOCAL_TYPE_NAME"),
};

const ColumnLayout kProcedureColumns[] = {
    NAME_COLUMN("PROCEDURE_CATALOG"),
    NAME_COLUMN("PROCEDURE_SCHEMA"),
    NAME_COLUMN("PROCEDURE_NAME"),
    NAME_COLUMN("COLUMN_NAME"),
    FIXED_COLUMN("COLUMN_GUID", kGuidColumn),
    FIXED_COLUMN("COLUMN_PROPID", DBTYPE_UI4),
    FIXED_COLUMN("ROWSET_NUMBER", DBTYPE_I4),
    FIXED_COLUMN("ORDINAL_POSITION", DBTYPE_I4),
    FIXED_COLUMN("IS_NULLABLE", DBTYPE_BOOL),
    FIXED_COLUMN("DATA_TYPE", DBTYPE_UI2),
    FIXED_COLUMN("TYPE_GUID", kGuidColumn),
    FIXED_COLUMN("CHARACTER_MAXIMUM_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("CHARACTER_OCTET_LENGTH", DBTYPE_UI4),
    FIXED_COLUMN("NUMERIC_PRECISION", DBTYPE_UI2),
    FIXED_COLUMN("NUMERIC_SCALE", DBTYPE_I2),
    TEXT_COLUMN("DESCRIPTION"),
};

enum class Kind { Catalogs, Schemata, Tables, TablesInfo, Columns, ProviderTypes, Procedures, ProcParams, ProcColumns };

struct SchemaDefinition {
  const GUID* schema;
  ULONG mask;
  Kind kind;
  const OLECHAR* name;
  const ColumnLayout* layout;
  size_t columnCount;
  // Column behind each restriction, in restriction order.
  int restrictionColumns[4];
  ULONG restrictionCount;
};

#define LAYOUT(a) a, sizeof a / sizeof a[0]
const SchemaDefinition kSchemas[] = {
    {&DBSCHEMA_CATALOGS, 1, Kind::Catalogs, OLESTR("CATALOGS"), LAYOUT(kCatalogs), {0}, 1},
    {&DBSCHEMA_COLUMNS, 15, Kind::Columns, OLESTR("COLUMNS"), LAYOUT(kColumns), {0, 1, 2, 3}, 4},
    {&DBSCHEMA_PROCEDURES, 15, Kind::Procedures, OLESTR("PROCEDURES"), LAYOUT(kProcedures), {0, 1, 2, 3}, 4},
    {&DBSCHEMA_PROCEDURE_PARAMETERS, 15, Kind::ProcParams, OLESTR("PROCEDURE_PARAMETERS"),
     LAYOUT(kProcedureParameters), {0, 1, 2, 3}, 4},
    {&DBSCHEMA_PROCEDURE_COLUMNS, 15, Kind::ProcColumns, OLESTR("PROCEDURE_COLUMNS"), LAYOUT(kProcedureColumns),
     {0, 1, 2, 3}, 4},
    // The standard gives PROVIDER_TYPES two restrictions (DATA_TYPE, BEST_MATCH); the
    // mask still says four, which is what consumers have always been shown.
    {&DBSCHEMA_PROVIDER_TYPES, 15, Kind::ProviderTypes, OLESTR("PROVIDER_TYPES"), LAYOUT(kProviderTypes),
     {1, 19}, 2},
    {&DBSCHEMA_SCHEMATA, 15, Kind::Schemata, OLESTR("SCHEMATA"), LAYOUT(kSchemata), {0, 1, 2}, 3},
    {&DBSCHEMA_TABLES, 15, Kind::Tables, OLESTR("TABLES"), LAYOUT(kTables), {0, 1, 2, 3}, 4},
    {&DBSCHEMA_TABLES_INFO, 15, Kind::TablesInfo, OLESTR("TABLES_INFO"), LAYOUT(kTablesInfo), {0, 1, 2, 3}, 4},
};

const SchemaDefinition* FindSchema(REFGUID schema) {
  for (const auto& def : kSchemas)
    if (IsEqualGUID(schema, *def.schema)) return &def;
  return nullptr;
}

// ---- Provider types

struct TypeDescription {
  DBTYPE type;
  const OLECHAR* name;
  ULONG columnSize;
  const OLECHAR* literalPrefix;
  const OLECHAR* literalSuffix;
  bool caseSensitive;
  bool isUnsigned;  // meaningless (null) for non-numeric types
  bool numeric;
  bool fixedLength;
  ULONG searchable;
};

// Every type a data store cell holds; PROVIDER_TYPES lists those the catalogs use.
// Names are the ones ICommandWithParameters accepts for the same type.
const TypeDescription kTypes[] = {
    {DBTYPE_I2, OLESTR("DBTYPE_I2"), 5, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_I4, OLESTR("DBTYPE_I4"), 10, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_R4, OLESTR("DBTYPE_R4"), 7, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_R8, OLESTR("DBTYPE_R8"), 15, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_DATE, OLESTR("DBTYPE_DATE"), 19, OLESTR("'"), OLESTR("'"), false, false, false, true,
     DB_ALL_EXCEPT_LIKE},
    {DBTYPE_BSTR, OLESTR("DBTYPE_BSTR"), ~0u, OLESTR("'"), OLESTR("'"), false, false, false, false, DB_SEARCHABLE},
    {DBTYPE_BOOL, OLESTR("DBTYPE_BOOL"), 1, nullptr, nullptr, false, false, false, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_VARIANT, OLESTR("DBTYPE_VARIANT"), 16, nullptr, nullptr, false, false, false, true, DB_UNSEARCHABLE},
    {DBTYPE_I1, OLESTR("DBTYPE_I1"), 3, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_UI1, OLESTR("DBTYPE_UI1"), 3, nullptr, nullptr, false, true, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_UI2, OLESTR("DBTYPE_UI2"), 5, nullptr, nullptr, false, true, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_UI4, OLESTR("DBTYPE_UI4"), 10, nullptr, nullptr, false, true, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_I8, OLESTR("DBTYPE_I8"), 19, nullptr, nullptr, false, false, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_UI8, OLESTR("DBTYPE_UI8"), 20, nullptr, nullptr, false, true, true, true, DB_ALL_EXCEPT_LIKE},
    {DBTYPE_STR, OLESTR("DBTYPE_STR"), 8000, OLESTR("'"), OLESTR("'"), false, false, false, false, DB_SEARCHABLE},
    {DBTYPE_WSTR, OLESTR("DBTYPE_WSTR"), 4000, OLESTR("'"), OLESTR("'"), false, false, false, false,
     DB_SEARCHABLE},
    {DBTYPE_DBTIMESTAMP, OLESTR("DBTYPE_DBTIMESTAMP"), 23, OLESTR("'"), OLESTR("'"), false, false, false, true,
     DB_ALL_EXCEPT_LIKE},
};

const TypeDescription* FindType(DBTYPE type) {
  for (const auto& t : kTypes)
    if (t.type == type) return &t;
  return nullptr;
}

// ---- Cell values

StoreValue Text(const WString& text) {
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!v.bstrVal) v.vt = VT_EMPTY;  // out of memory: the cell reads as null
  return StoreValue::TakeVariant(&v);
}
StoreValue OptionalText(const WString& text) { return text.empty() ? StoreValue() : Text(text); }
StoreValue Null() { return StoreValue(); }

template <typename T>
StoreValue Scalar(VARTYPE vt, T value) {
  VARIANT v;
  VariantInit(&v);
  v.vt = vt;
  switch (vt) {
    case VT_BOOL: v.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE; break;
    case VT_I2: v.iVal = static_cast<SHORT>(value); break;
    case VT_UI2: v.uiVal = static_cast<USHORT>(value); break;
    case VT_I4: v.lVal = static_cast<LONG>(value); break;
    case VT_UI4: v.ulVal = static_cast<ULONG>(value); break;
    default: v.vt = VT_EMPTY; break;
  }
  return StoreValue::TakeVariant(&v);
}
StoreValue Bool(bool b) { return Scalar(VT_BOOL, b); }
StoreValue UI2(unsigned n) { return Scalar(VT_UI2, n); }
StoreValue I2(int n) { return Scalar(VT_I2, n); }
StoreValue UI4(ULONG n) { return Scalar(VT_UI4, n); }
StoreValue I4(LONG n) { return Scalar(VT_I4, n); }

bool IsText(DBTYPE t) { return t == DBTYPE_WSTR || t == DBTYPE_STR || t == DBTYPE_BSTR; }

// Character columns report their length; a column of unknown size reports none.
StoreValue CharLength(DBTYPE t, ULONGLONG size) { return IsText(t) && size ? UI4(static_cast<ULONG>(size)) : Null(); }
StoreValue OctetLength(DBTYPE t, ULONGLONG size) {
  if (!IsText(t) || !size) return Null();
  return UI4(static_cast<ULONG>(t == DBTYPE_STR ? size : size * 2));
}
StoreValue Precision(DBTYPE t) {
  const TypeDescription* d = FindType(t);
  return d && d->numeric ? UI2(d->columnSize) : Null();
}
StoreValue Scale(DBTYPE t) {
  const TypeDescription* d = FindType(t);
  return d && d->numeric ? I2(0) : Null();
}

ULONG ColumnFlags(const ColumnRecord& c) {
  ULONG flags = c.dwFlags;
  if (!flags) flags = DBCOLUMNFLAGS_ISNULLABLE | DBCOLUMNFLAGS_MAYBENULL;
  if (!IsText(c.wType) && c.wType != DBTYPE_VARIANT) flags |= DBCOLUMNFLAGS_ISFIXEDLENGTH;
  return flags;
}

// ---- Rows per schema

using Rows = ProducedRecordList;

void CatalogRows(const SchemaCatalog& cat, Rows& rows) {
  ProducedRecord r;
  r.push_back(Text(cat.catalog));
  r.push_back(Text(OLESTR("The historian's tags and procedures")));
  rows.push_back(std::move(r));
}

void SchemataRows(const SchemaCatalog& cat, Rows& rows) {
  ProducedRecord r;
  r.push_back(Text(cat.catalog));
  r.push_back(Text(cat.schema));
  r.push_back(Null());
  for (int i = 0; i < 3; ++i) r.push_back(Null());
  rows.push_back(std::move(r));
}

void TableRows(const SchemaCatalog& cat, bool info, Rows& rows) {
  for (const auto& t : cat.tables) {
    ProducedRecord r;
    r.push_back(Text(cat.catalog));
    r.push_back(Text(cat.schema));
    r.push_back(Text(t.Name));
    r.push_back(Text(OLESTR("TABLE")));
    r.push_back(Null());  // TABLE_GUID
    if (info) {
      r.push_back(Bool(false));  // BOOKMARKS: the rowsets have none
      for (int i = 0; i < 4; ++i) r.push_back(Null());
      r.push_back(Null());  // TABLE_VERSION
      r.push_back(Null());  // CARDINALITY: unknown until read
      r.push_back(OptionalText(t.Description));
      r.push_back(Null());
    } else {
      r.push_back(OptionalText(t.Description));
      for (int i = 0; i < 3; ++i) r.push_back(Null());
    }
    rows.push_back(std::move(r));
  }
}

void ColumnRows(const SchemaCatalog& cat, Rows& rows) {
  for (const auto& t : cat.tables) {
    ULONG ordinal = 0;
    for (const auto& c : t.Columns) {
      ++ordinal;
      ProducedRecord r;
      r.push_back(Text(cat.catalog));
      r.push_back(Text(cat.schema));
      r.push_back(Text(t.Name));
      r.push_back(Text(c.ColumnAlias.empty() ? c.ColumnName : c.ColumnAlias));
      r.push_back(Null());
      r.push_back(Null());
      r.push_back(UI4(c.Ordinal ? static_cast<ULONG>(c.Ordinal) : ordinal));
      r.push_back(Bool(false));
      r.push_back(Null());
      const ULONG flags = ColumnFlags(c);
      r.push_back(UI4(flags));
      r.push_back(Bool((flags & DBCOLUMNFLAGS_ISNULLABLE) != 0));
      r.push_back(UI2(c.wType));
      r.push_back(Null());
      r.push_back(CharLength(c.wType, c.ColumnSize));
      r.push_back(OctetLength(c.wType, c.ColumnSize));
      r.push_back(Precision(c.wType));
      r.push_back(Scale(c.wType));
      r.push_back(c.wType == DBTYPE_DBTIMESTAMP || c.wType == DBTYPE_DATE ? UI4(3) : Null());
      for (int i = 0; i < 9; ++i) r.push_back(Null());
      r.push_back(Null());  // DESCRIPTION
      rows.push_back(std::move(r));
    }
  }
}

void ProviderTypeRows(const SchemaCatalog& cat, Rows& rows) {
  std::set<DBTYPE> used;
  for (const auto& t : cat.tables)
    for (const auto& c : t.Columns) used.insert(c.wType);
  for (const auto& p : cat.procedures) {
    for (const auto& c : p.Columns) used.insert(c.wType);
    for (const auto& a : p.Parameters) used.insert(a.wType);
  }
  for (const auto& d : kTypes) {
    if (!used.count(d.type)) continue;
    ProducedRecord r;
    r.push_back(Text(d.name));
    r.push_back(UI2(d.type));
    r.push_back(UI4(d.columnSize));
    r.push_back(d.literalPrefix ? Text(d.literalPrefix) : Null());
    r.push_back(d.literalSuffix ? Text(d.literalSuffix) : Null());
    r.push_back(IsText(d.type) && d.type != DBTYPE_BSTR ? Text(OLESTR("max length")) : Null());
    r.push_back(Bool(true));
    r.push_back(Bool(d.caseSensitive));
    r.push_back(UI4(d.searchable));
    r.push_back(d.numeric ? Bool(d.isUnsigned) : Null());
    r.push_back(Bool(false));
    r.push_back(d.numeric ? Bool(false) : Null());
    r.push_back(Null());
    r.push_back(d.numeric ? I2(0) : Null());
    r.push_back(d.numeric ? I2(0) : Null());
    r.push_back(Null());
    r.push_back(Null());
    r.push_back(Null());
    r.push_back(Bool(false));
    r.push_back(Bool(true));  // each type is the best match for its DBTYPE
    r.push_back(Bool(d.fixedLength));
    rows.push_back(std::move(r));
  }
}

StoreValue PrecisionOf(DBTYPE t, BYTE precision) {
  return precision != 255 ? UI2(precision) : Precision(t);
}
StoreValue ScaleOf(DBTYPE t, BYTE scale) { return scale != 255 ? I2(scale) : Scale(t); }

void ProcedureRows(const SchemaCatalog& cat, Rows& rows) {
  for (const auto& p : cat.procedures) {
    ProducedRecord r;
    r.push_back(Text(cat.catalog));
    r.push_back(Text(cat.schema));
    r.push_back(Text(p.Name));
    r.push_back(I2(p.ProcedureType));
    r.push_back(OptionalText(p.Definition));
    r.push_back(OptionalText(p.Description));
    r.push_back(Null());
    r.push_back(Null());
    rows.push_back(std::move(r));
  }
}

void ProcedureParameterRows(const SchemaCatalog& cat, Rows& rows) {
  for (const auto& p : cat.procedures) {
    for (const auto& a : p.Parameters) {
      ProducedRecord r;
      r.push_back(Text(cat.catalog));
      r.push_back(Text(cat.schema));
      r.push_back(Text(p.Name));
      r.push_back(Text(a.Name));
      r.push_back(UI2(static_cast<unsigned>(a.Ordinal)));
      r.push_back(UI2(static_cast<unsigned>(a.ParamType)));
      r.push_back(Bool(false));
      r.push_back(Null());
      // A missing value reaches the procedure as absent, which it answers itself.
      r.push_back(Bool(true));
      r.push_back(UI2(a.wType));
      r.push_back(Null());  // string parameters take any length
      r.push_back(Null());
      r.push_back(PrecisionOf(a.wType, a.Precision));
      r.push_back(ScaleOf(a.wType, a.Scale));
      r.push_back(Null());
      const WString typeName = CSchemaRowsets::TypeName(a.wType);
      r.push_back(OptionalText(typeName));
      r.push_back(OptionalText(typeName));
      rows.push_back(std::move(r));
    }
  }
}

void ProcedureColumnRows(const SchemaCatalog& cat, Rows& rows) {
  for (const auto& p : cat.procedures) {
    for (const auto& c : p.Columns) {
      ProducedRecord r;
      r.push_back(Text(cat.catalog));
      r.push_back(Text(cat.schema));
      r.push_back(Text(p.Name));
      r.push_back(Text(c.Name));
      r.push_back(Null());
      r.push_back(Null());
      r.push_back(I4(1));
      r.push_back(I4(static_cast<LONG>(c.Ordinal)));
      r.push_back(Bool((c.dwFlags & DBCOLUMNFLAGS_ISNULLABLE) != 0));
      r.push_back(UI2(c.wType));
      r.push_back(Null());
      r.push_back(CharLength(c.wType, c.ColumnSize));
      r.push_back(OctetLength(c.wType, c.ColumnSize));
      r.push_back(PrecisionOf(c.wType, c.Precision));
      r.push_back(ScaleOf(c.wType, c.Scale));
      r.push_back(Null());
      rows.push_back(std::move(r));
    }
  }
}

// ---- Restrictions

// A restriction compares with the cell of its column: texts ignoring case, like every
// name of the provider, other types after conversion to the column's type.
HRESULT Matches(const StoreValue& cell, DBTYPE columnType, const VARIANT& restriction, bool* match) {
  *match = true;
  if (restriction.vt == VT_EMPTY || restriction.vt == VT_NULL) return S_OK;
  if (IsText(columnType)) {
    if (restriction.vt != VT_BSTR) return E_INVALIDARG;
    *match = cell.Kind == StoreValue::kVariant && cell.Value.vt == VT_BSTR &&
             corvane::WIEquals(cell.Value.bstrVal ? cell.Value.bstrVal : OLESTR(""),
                               restriction.bstrVal ? restriction.bstrVal : OLESTR(""));
    return S_OK;
  }
  if (cell.Kind != StoreValue::kVariant || cell.Value.vt == VT_EMPTY) {
    *match = false;
    return S_OK;
  }
  VARIANT wanted;
  VariantInit(&wanted);
  if (FAILED(VariantChangeType(&wanted, const_cast<VARIANT*>(&restriction), 0, cell.Value.vt))) return E_INVALIDARG;
  // Every non-text restriction column is a small integer or a boolean: compare as I8.
  VARIANT a, b;
  VariantInit(&a);
  VariantInit(&b);
  const bool converted = SUCCEEDED(VariantChangeType(&a, &wanted, 0, VT_I8)) &&
                         SUCCEEDED(VariantChangeType(&b, const_cast<VARIANT*>(&cell.Value), 0, VT_I8));
  *match = converted && a.llVal == b.llVal;
  VariantClear(&wanted);
  return S_OK;
}

}  // namespace

size_t CSchemaRowsets::SchemaCount() { return sizeof kSchemas / sizeof kSchemas[0]; }

const GUID& CSchemaRowsets::SchemaAt(size_t index) { return *kSchemas[index].schema; }

bool CSchemaRowsets::RestrictionMask(REFGUID schema, ULONG* mask) {
  const SchemaDefinition* def = FindSchema(schema);
  if (!def) return false;
  if (mask) *mask = def->mask;
  return true;
}

WString CSchemaRowsets::TypeName(DBTYPE type) {
  const TypeDescription* d = FindType(type);
  return d ? WString(d->name) : WString();
}

HRESULT CSchemaRowsets::Build(REFGUID schema, const SchemaCatalog& catalog, ULONG cRestrictions,
                              const VARIANT rgRestrictions[], std::unique_ptr<CDataStore>* store) {
  if (!store) return E_INVALIDARG;
  const SchemaDefinition* def = FindSchema(schema);
  if (!def) return E_INVALIDARG;
  ULONG allowed = 0;
  for (ULONG m = def->mask; m; m >>= 1) ++allowed;
  if (cRestrictions > allowed || (cRestrictions && !rgRestrictions)) return E_INVALIDARG;

  Rows rows;
  switch (def->kind) {
    case Kind::Catalogs: CatalogRows(catalog, rows); break;
    case Kind::Schemata: SchemataRows(catalog, rows); break;
    case Kind::Tables: TableRows(catalog, false, rows); break;
    case Kind::TablesInfo: TableRows(catalog, true, rows); break;
    case Kind::Columns: ColumnRows(catalog, rows); break;
    case Kind::ProviderTypes: ProviderTypeRows(catalog, rows); break;
    case Kind::Procedures: ProcedureRows(catalog, rows); break;
    case Kind::ProcParams: ProcedureParameterRows(catalog, rows); break;
    case Kind::ProcColumns: ProcedureColumnRows(catalog, rows); break;
  }

  std::vector<ColumnRecord> columns;
  for (size_t i = 0; i < def->columnCount; ++i) {
    ColumnRecord c;
    c.ColumnName = c.ColumnAlias = def->layout[i].name;
    c.TableName = def->name;
    c.Ordinal = i + 1;
    c.wType = def->layout[i].type;
    c.ColumnSize = def->layout[i].size;
    c.dwFlags = DBCOLUMNFLAGS_ISNULLABLE | DBCOLUMNFLAGS_MAYBENULL;
    if (!IsText(c.wType) && c.wType != DBTYPE_VARIANT) c.dwFlags |= DBCOLUMNFLAGS_ISFIXEDLENGTH;
    columns.push_back(std::move(c));
  }

  auto result = std::make_unique<CDataStore>();
  HRESULT hr = result->BuildColumnInfo(columns);
  if (FAILED(hr)) return hr;
  for (const auto& row : rows) {
    bool keep = true;
    for (ULONG i = 0; keep && i < cRestrictions && i < def->restrictionCount; ++i) {
      const int column = def->restrictionColumns[i];
      hr = Matches(row[column], def->layout[column].type, rgRestrictions[i], &keep);
      if (FAILED(hr)) return hr;
    }
    if (!keep) continue;
    hr = result->AppendRecord(row);
    if (FAILED(hr)) return hr;
  }
  result->SetEndOfData();
  CVTRACE(TRACE_DETAIL, OLESTR("Schema rowset %s -> %d rows"), def->name,
          static_cast<int>(result->QueuedRowCount()));
  *store = std::move(result);
  return S_OK;
}
