// Helpers shared by the SQL front end suites: parsing a UTF-8 text, and a compact
// rendering of WHERE trees and expression items for exact comparisons.
#pragma once
#include <memory>
#include <string>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLParser.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/Printers.h"

namespace sqltest {

struct Parsed {
  HRESULT hr = S_OK;
  std::unique_ptr<CSQLQueryInfo> query;
  std::string error;  // UTF-8 error info
};

inline Parsed Parse(const std::string& text) {
  const corvane::WString wide = corvane::FromUtf8(text);
  Parsed result;
  corvane::WString error;
  result.hr = CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), wide}, &result.query, &error);
  result.error = corvane::ToUtf8(error);
  return result;
}

// "a", "q.a", "5", "'x'", "1.5", "?2", "f(a,'x')".
inline std::string Render(const CSQLCalcItem* item) {
  if (!item) return "null";
  switch (item->Kind()) {
    case SQL_CALC_CONST: {
      const VARIANT& v = static_cast<const CSQLCalcItemConst*>(item)->Value();
      if (V_VT(&v) == VT_I8) return std::to_string(V_I8(&v));
      if (V_VT(&v) == VT_R8) return "R8:" + std::to_string(v.dblVal);
      if (V_VT(&v) == VT_BSTR) return "'" + corvane::ToUtf8(corvane::WStringView(v.bstrVal, SysStringLen(v.bstrVal))) + "'";
      return "?const";
    }
    case SQL_CALC_PARAMETER:
      return "?" + std::to_string(static_cast<const CSQLCalcItemParameter*>(item)->Number());
    case SQL_CALC_TABLE_COLUMN: {
      auto* c = static_cast<const CSQLCalcItemTableColumn*>(item);
      std::string name = c->TableName().empty() ? "" : corvane::ToUtf8(c->TableName()) + ".";
      return name + corvane::ToUtf8(c->ColumnName());
    }
    case SQL_CALC_FUNCTION: {
      auto* f = static_cast<const CSQLCalcItemFunction*>(item);
      std::string text = corvane::ToUtf8(f->Name()) + "(";
      for (size_t i = 0; i < f->ArgumentCount(); ++i) text += (i ? "," : "") + Render(f->Argument(i));
      return text + ")";
    }
  }
  return "?item";
}

// "OR(EQ(a,1),AND(GT(b,2),LT(b,5)))"; a comparison with a condition on its right side shows it after the operands.
inline std::string Render(const CSQLConditionNode* node) {
  if (!node) return "null";
  static const char* const kNames[] = {"OPERAND", "EQ", "GT", "LT", "GE", "LE", "NE", "OR", "AND", "NOT"};
  const int op = node->Operator();
  std::string text = (op >= 0 && op <= 9) ? kNames[op] : "?op";
  text += "(";
  if (op == SQL_COND_OR || op == SQL_COND_AND) return text + Render(node->Left()) + "," + Render(node->Right()) + ")";
  if (op == SQL_COND_NOT) return text + Render(node->Left()) + ")";
  text += Render(node->FirstOperand());
  if (op != SQL_COND_OPERAND) text += "," + Render(node->SecondOperand());
  if (node->Right()) text += "," + Render(node->Right());
  return text + ")";
}

inline std::string W8(const corvane::WString& s) { return corvane::ToUtf8(s); }

// The whole query model on one line, for exact comparisons: "SELECT limit=0,10 aggregate cols=r.VALUE:VALUE@r as v
// from=CAT.SCH.RAWDATA r where=EQ(a,1) order=TIMESTAMP DESC"; a select column shows its item, then its column name and
// display name where they differ; "FAILED: <error info>" when the text does not parse.
inline std::string Describe(const std::string& text) {
  const Parsed p = Parse(text);
  if (FAILED(p.hr)) return "FAILED: " + p.error;
  const CSQLQueryInfo& q = *p.query;
  static const char* const kKinds[] = {"?", "SELECT", "INSERT", "UPDATE", "DELETE", "EXEC"};
  const int kind = q.StatementKind();
  std::string out = kKinds[kind >= 1 && kind <= 5 ? kind : 0];
  auto list = [&out](const char* name, size_t n, auto item) {
    if (!n) return;
    out += std::string(" ") + name + "=";
    for (size_t i = 0; i < n; ++i) out += (i ? ", " : "") + item(i);
  };
  if (q.RowLimitEnabled()) out += " limit=" + std::to_string(q.RowLimitSkip()) + "," + std::to_string(q.RowLimitCount());
  if (kind == SQL_STATEMENT_SELECT && static_cast<const CSQLQueryInfoSELECT&>(q).Aggregate()) out += " aggregate";
  list("cols", q.SelectColumns().size(), [&q](size_t i) {
    const CSQLSelectColumn& c = *q.SelectColumns()[i];
    std::string text = Render(c.Item());
    if (W8(c.ColumnName()) != text) text += ":" + W8(c.ColumnName());
    if (!c.TableAlias().empty()) text += "@" + W8(c.TableAlias());
    if (c.DisplayName() != c.ColumnName()) text += " as " + W8(c.DisplayName());
    return text;
  });
  list("from", q.FromItems().size(), [&q](size_t i) {
    const CSQLSelectItem& item = *q.FromItems()[i];
    std::string text = W8(item.Catalog()) + "." + W8(item.Schema()) + ".";
    if (item.Kind() == SQL_SELECT_ITEM_TABLE) {
      const auto& table = static_cast<const CSQLSelectItemTable&>(item);
      return text + W8(table.TableName()) + (table.Alias() != table.TableName() ? " " + W8(table.Alias()) : "");
    }
    const auto& sp = static_cast<const CSQLSelectItemSP&>(item);
    text += W8(sp.ProcedureName()) + "(";
    for (size_t a = 0; a < sp.Parameters().size(); ++a) text += (a ? " " : "") + Render(sp.Parameters()[a].get());
    return text + ")";
  });
  if (kind == SQL_STATEMENT_INSERT) {
    const auto& insert = static_cast<const CSQLQueryInfoINSERT&>(q);
    list("set", insert.Columns().size(), [&insert](size_t i) {
      return Render(insert.Columns()[i].get()) + "=" + Render(insert.Values().at(i).get());
    });
  }
  if (q.Condition()) out += " where=" + Render(q.Condition());
  list("order", q.Ordering().size(), [&q](size_t i) {
    const SQLOrderingEntry& o = q.Ordering()[i];
    return Render(&o.column) + (o.descending ? " DESC" : "");
  });
  return out;
}

}  // namespace sqltest
