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

inline Parsed Parse(const std::string& text, const char* catalog = "CAT", const char* schema = "SCH") {
  const corvane::WString wide = corvane::FromUtf8(text), wcatalog = corvane::FromUtf8(catalog),
                         wschema = corvane::FromUtf8(schema);
  Parsed result;
  corvane::WString error;
  result.hr = CSQLParser::ParseQuery({wcatalog, wschema, wide}, &result.query, &error);
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

// "OR(EQ(a,1),AND(GT(b,2),LT(b,5)))"; a comparison with a condition on its right side
// shows it after the operands.
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

}  // namespace sqltest
