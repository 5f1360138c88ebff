#include "provider/procedures/ProcedureCatalog.h"

#include <mutex>

#include "provider/procedures/HdaFamilies.h"
#include "provider/procedures/ProcedureFactory.h"
#include "provider/procedures/SPGetBadValues.h"
#include "provider/procedures/SPGetFilteredTagStatistics.h"
#include "provider/procedures/SPGetGoodValues.h"
#include "provider/procedures/SPGetMostRecentValue.h"
#include "provider/procedures/SPGetValues.h"
#include "provider/procedures/SPHdaAnalog.h"
#include "provider/procedures/SPHdaAnalog5.h"
#include "provider/procedures/SPHdaBool.h"
#include "provider/procedures/SPHdaBool5.h"
#include "provider/procedures/SPHdaQuality.h"
#include "provider/procedures/SPHdaQuality5.h"
#include "provider/procedures/SPHdaReducedAnalog.h"
#include "provider/procedures/SPHdaReducedAnalog5.h"
#include "provider/procedures/SPRawData.h"
#include "provider/procedures/SPRawDataInsert.h"
#include "provider/procedures/SPRawDataUpdate.h"

using corvane::WString;

namespace {

ULONGLONG SizeOf(DBTYPE type) {
  switch (type) {
    case DBTYPE_DBTIMESTAMP: return 16;
    case DBTYPE_UI4: return 4;
    case DBTYPE_VARIANT: return 16;
    case DBTYPE_R8: return 8;
    default: return 4096;  // DBTYPE_WSTR
  }
}

DBTYPE TypeOf(HdaField field) {
  switch (field) {
    case HdaField::Value: return DBTYPE_VARIANT;
    case HdaField::Status: return DBTYPE_UI4;
    case HdaField::StatusStr: return DBTYPE_WSTR;
    case HdaField::Timestamp: return DBTYPE_DBTIMESTAMP;
    case HdaField::ValueStr: return DBTYPE_VARIANT;  // typed VARIANT although it holds a text
  }
  return DBTYPE_VARIANT;
}

const OLECHAR* SuffixOf(HdaField field) {
  switch (field) {
    case HdaField::Value: return OLESTR("_Value");
    case HdaField::Status: return OLESTR("_Status");
    case HdaField::StatusStr: return OLESTR("_Status_Str");
    case HdaField::Timestamp: return OLESTR("_Timestamp");
    case HdaField::ValueStr: return OLESTR("_Value_Str");
  }
  return OLESTR("");
}

// Builds the per-tag columns of a family: for each aggregate Value, Status, then
// Status_Str when `withStr`, and the aggregate's own timestamp for MIN, MAX and LAST.
std::vector<HdaColumn> LayoutOf(const std::vector<AggregateId>& aggregates, bool withStr) {
  std::vector<HdaColumn> columns;
  for (size_t i = 0; i < aggregates.size(); ++i) {
    const AggregateId id = aggregates[i];
    columns.push_back({i, HdaField::Value});
    if (id == AGG_WORST_QUALITY) {
      columns.push_back({i, HdaField::ValueStr});
      columns.push_back({i, HdaField::Status});
      continue;
    }
    columns.push_back({i, HdaField::Status});
    if (withStr) columns.push_back({i, HdaField::StatusStr});
    if (id == AGG_MIN || id == AGG_MAX || id == AGG_LAST) columns.push_back({i, HdaField::Timestamp});
  }
  return columns;
}

HdaFamily MakeFamily(const OLECHAR* name, std::vector<AggregateId> aggregates, size_t timestampAggregate,
                     bool withStr) {
  HdaFamily family;
  family.name = name;
  family.aggregates = std::move(aggregates);
  family.timestampAggregate = timestampAggregate;
  family.columns = LayoutOf(family.aggregates, withStr);
  // The five-tag forms leave the texts out, except the quality family, which repeats
  // its one-tag list (it never had status texts, only the worst-quality text).
  family.columns5 = LayoutOf(family.aggregates, false);
  return family;
}

ProcedureColumnInfo Column(const WString& name, DBTYPE type, LONGLONG ordinal) {
  ProcedureColumnInfo column;
  column.Name = name;
  column.Ordinal = ordinal;
  column.wType = type;
  column.ColumnSize = SizeOf(type);
  return column;
}

struct ParamSpec {
  const OLECHAR* name;
  DBTYPE type;
};

ProcedureInfo Procedure(const OLECHAR* name, std::initializer_list<ParamSpec> params) {
  ProcedureInfo info;
  info.Name = name;
  info.Description = OLESTR("Description");
  info.Definition = OLESTR("Definition");
  LONGLONG ordinal = 1;
  for (const ParamSpec& p : params) {
    ProcedureParameterInfo param;
    param.Ordinal = ordinal++;
    param.Name = p.name;
    param.wType = p.type;
    info.Parameters.push_back(std::move(param));
  }
  return info;
}

void AddColumns(ProcedureInfo& info, std::initializer_list<ParamSpec> columns) {
  for (const ParamSpec& c : columns)
    info.Columns.push_back(Column(c.name, c.type, static_cast<LONGLONG>(info.Columns.size()) + 1));
}

void AddHdaColumns(ProcedureInfo& info, const HdaFamily& family, bool fiveTags) {
  info.Columns.push_back(Column(OLESTR("Timestamp"), DBTYPE_DBTIMESTAMP, 1));
  const std::vector<HdaColumn>& layout = fiveTags ? family.columns5 : family.columns;
  const int tags = fiveTags ? 5 : 1;
  for (int k = 1; k <= tags; ++k) {
    for (size_t i = 0; i < layout.size(); ++i) {
      const HdaColumn& c = layout[i];
      WString name = WString(AggregateName(family.aggregates[c.aggregate])) + SuffixOf(c.field);
      if (fiveTags) name = corvane::WFormat(OLESTR("%s_%d"), name.c_str(), k);
      // Index i + 1 in the base list (Timestamp is index 0).
      const LONGLONG ordinal = static_cast<LONGLONG>(i + 1) + 1 + (k - 1) * static_cast<LONGLONG>(layout.size());
      info.Columns.push_back(Column(name, TypeOf(c.field), ordinal));
    }
  }
}

constexpr DBTYPE TS = DBTYPE_DBTIMESTAMP;
constexpr DBTYPE UI4 = DBTYPE_UI4;
constexpr DBTYPE R8 = DBTYPE_R8;
constexpr DBTYPE WSTR = DBTYPE_WSTR;
constexpr DBTYPE VAR = DBTYPE_VARIANT;

template <typename T>
std::unique_ptr<CBaseStoredProcedure> Make(const StoredProcedureCall& c, const WString& catalog,
                                           const WString& schema) {
  return std::make_unique<T>(c.query, c.item, c.bindContext, c.dataSource, catalog, schema);
}

ProcedureInfo Entry(ProcedureInfo info, ProcedureMaker make, bool listed = true) {
  info.Make = make;
  info.Listed = listed;
  return info;
}

ProcedureInfo Hda(const OLECHAR* name, HdaKind kind, bool five, ProcedureMaker make) {
  ProcedureInfo info = five ? Procedure(name, {{OLESTR("TimestampStart"), TS},
                                               {OLESTR("TimestampEnd"), TS},
                                               {OLESTR("ResamplingPeriod"), R8},
                                               {OLESTR("TagName_1"), WSTR},
                                               {OLESTR("TagName_2"), WSTR},
                                               {OLESTR("TagName_3"), WSTR},
                                               {OLESTR("TagName_4"), WSTR},
                                               {OLESTR("TagName_5"), WSTR}})
                            : Procedure(name, {{OLESTR("TimestampStart"), TS},
                                               {OLESTR("TimestampEnd"), TS},
                                               {OLESTR("ResamplingPeriod"), R8},
                                               {OLESTR("TagName"), WSTR}});
  AddHdaColumns(info, GetHdaFamily(kind), five);
  return Entry(std::move(info), make);
}

ProcedureInfo Values(const OLECHAR* name, ProcedureMaker make, bool listed = true) {
  ProcedureInfo info = Procedure(name, {{OLESTR("TimestampStart"), TS},
                                        {OLESTR("TimestampEnd"), TS},
                                        {OLESTR("Count"), UI4},
                                        {OLESTR("TagName"), WSTR}});
  AddColumns(info, {{OLESTR("Timestamp"), TS}, {OLESTR("Quality"), UI4}, {OLESTR("Value"), VAR}});
  return Entry(std::move(info), make, listed);
}

ProcedureInfo Write(const OLECHAR* name, ProcedureMaker make) {
  ProcedureInfo info = Procedure(name, {{OLESTR("TagName"), WSTR},
                                        {OLESTR("Timestamp"), TS},
                                        {OLESTR("Value"), VAR},
                                        {OLESTR("Quality"), UI4}});
  AddColumns(info, {{OLESTR("Result"), WSTR}});
  return Entry(std::move(info), make);
}

// Every procedure, listed ones in the order the schema rowsets show them.
std::vector<ProcedureInfo> BuildCatalog() {
  std::vector<ProcedureInfo> all;
  all.push_back(Hda(OLESTR("HDA_ANALOG"), HdaKind::Analog, false, &Make<CSPHdaAnalog>));
  all.push_back(Hda(OLESTR("HDA_ANALOG_5"), HdaKind::Analog, true, &Make<CSPHdaAnalog5>));
  all.push_back(Hda(OLESTR("HDA_REDUCED_ANALOG"), HdaKind::ReducedAnalog, false, &Make<CSPHdaReducedAnalog>));
  all.push_back(Hda(OLESTR("HDA_REDUCED_ANALOG_5"), HdaKind::ReducedAnalog, true, &Make<CSPHdaReducedAnalog5>));
  all.push_back(Hda(OLESTR("HDA_BOOL"), HdaKind::Bool, false, &Make<CSPHdaBool>));
  all.push_back(Hda(OLESTR("HDA_BOOL_5"), HdaKind::Bool, true, &Make<CSPHdaBool5>));
  {
    ProcedureInfo info = Procedure(OLESTR("GET_MOST_RECENT_VALUE"), {{OLESTR("TagName"), WSTR}});
    AddColumns(info, {{OLESTR("Timestamp"), TS}, {OLESTR("Quality"), UI4}, {OLESTR("Value"), VAR}});
    all.push_back(Entry(std::move(info), &Make<CSPGetMostRecentValue>));
  }
  all.push_back(Values(OLESTR("GET_BAD_VALUES"), &Make<CSPGetBadValues>));
  all.push_back(Values(OLESTR("GET_GOOD_VALUES"), &Make<CSPGetGoodValues>));
  all.push_back(Hda(OLESTR("HDA_QUALITY"), HdaKind::Quality, false, &Make<CSPHdaQuality>));
  all.push_back(Hda(OLESTR("HDA_QUALITY_5"), HdaKind::Quality, true, &Make<CSPHdaQuality5>));
  all.push_back(Write(OLESTR("RAWDATA_INSERT"), &Make<CSPRawDataInsert>));
  all.push_back(Write(OLESTR("RAWDATA_UPDATE"), &Make<CSPRawDataUpdate>));
  {
    ProcedureInfo info = Procedure(OLESTR("GET_FILTERED_TAG_STATISTICS"), {{OLESTR("Filter1"), WSTR},
                                                                          {OLESTR("Filter2"), WSTR},
                                                                          {OLESTR("Filter3"), WSTR},
                                                                          {OLESTR("TimestampStart"), TS},
                                                                          {OLESTR("TimestampEnd"), TS},
                                                                          {OLESTR("MaxPointNamesToReturn"), UI4}});
    AddColumns(info, {{OLESTR("TagName"), WSTR},
                      {OLESTR("MIN_Value"), VAR},
                      {OLESTR("MIN_Status"), UI4},
                      {OLESTR("MAX_Value"), VAR},
                      {OLESTR("MAX_Status"), UI4},
                      {OLESTR("AVG_Value"), VAR},
                      {OLESTR("AVG_Status"), UI4},
                      {OLESTR("COUNT_Value"), VAR},
                      {OLESTR("COUNT_Status"), UI4}});
    all.push_back(Entry(std::move(info), &Make<CSPGetFilteredTagStatistics>));
  }
  {
    ProcedureInfo info = Procedure(OLESTR("SP_RAWDATA"), {{OLESTR("TimestampStart"), TS},
                                                          {OLESTR("TimestampEnd"), TS},
                                                          {OLESTR("TagsNames"), WSTR}});
    AddColumns(info, {{OLESTR("Timestamp"), TS},
                      {OLESTR("TagName"), WSTR},
                      {OLESTR("Quality"), UI4},
                      {OLESTR("Value"), VAR}});
    all.push_back(Entry(std::move(info), &Make<CSPRawData>));
  }
  // Callable, but the schema rowsets have never shown it.
  all.push_back(Values(OLESTR("GET_VALUES"), &Make<CSPGetValues>, false));
  for (ProcedureInfo& info : all) {
    info.Table.Name = info.Name;
    info.Table.Description = info.Description;
    for (const ProcedureColumnInfo& c : info.Columns) {
      ColumnRecord record;
      record.ColumnName = record.ColumnAlias = c.Name;
      record.TableName = info.Name;
      record.Ordinal = static_cast<ULONGLONG>(c.Ordinal);
      record.wType = c.wType;
      record.ColumnSize = c.ColumnSize;
      record.dwFlags = c.dwFlags;
      info.Table.Columns.push_back(std::move(record));
    }
  }
  return all;
}

const std::vector<ProcedureInfo>& Catalog() {
  static const std::vector<ProcedureInfo> catalog = BuildCatalog();
  return catalog;
}

const ProcedureInfo* Lookup(const OLECHAR* name) {
  if (!name) return nullptr;
  // Measured once and compared by length first: every Prepare of a procedure call
  // looks its name up here.
  const corvane::WStringView wanted(name);
  for (const ProcedureInfo& info : Catalog())
    if (info.Name.size() == wanted.size() && corvane::WIEquals(info.Name, wanted)) return &info;
  return nullptr;
}

}  // namespace

const HdaFamily& GetHdaFamily(HdaKind kind) {
  static const HdaFamily analog =
      MakeFamily(OLESTR("HDA_ANALOG"),
                 {AGG_MIN, AGG_MAX, AGG_AVG, AGG_TIME_AVG, AGG_TOTAL_AVG, AGG_INTERPOLATIVE, AGG_LAST, AGG_DELTA,
                  AGG_RANGE, AGG_TOTAL, AGG_COUNT},
                 2, true);
  static const HdaFamily reduced =
      MakeFamily(OLESTR("HDA_REDUCED_ANALOG"), {AGG_MIN, AGG_MAX, AGG_TIME_AVG, AGG_COUNT}, 3, true);
  static const HdaFamily boolean = MakeFamily(
      OLESTR("HDA_BOOL"), {AGG_DURATION_IN_STATE_0, AGG_DURATION_IN_STATE_1, AGG_NUMBER_OF_TRANSITIONS, AGG_COUNT},
      0, true);
  static const HdaFamily quality = MakeFamily(
      OLESTR("HDA_QUALITY"),
      {AGG_DURATION_GOOD, AGG_DURATION_BAD, AGG_PERCENT_GOOD, AGG_PERCENT_BAD, AGG_WORST_QUALITY}, 0, false);
  switch (kind) {
    case HdaKind::Analog: return analog;
    case HdaKind::ReducedAnalog: return reduced;
    case HdaKind::Bool: return boolean;
    case HdaKind::Quality: break;
  }
  return quality;
}

const ProcedureInfo* FindProcedure(const OLECHAR* name) { return Lookup(name); }

void EnumerateProcedures(std::vector<ProcedureInfo>* procedures) {
  if (!procedures) return;
  procedures->clear();
  for (const ProcedureInfo& info : Catalog())
    if (info.Listed) procedures->push_back(info);
}
