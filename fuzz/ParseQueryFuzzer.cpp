// Feeds arbitrary text to CSQLParser::ParseQuery with rule tracing on, checks the result's promises and walks every
// node of the model, so that the sanitizers see each pointer used. Input bytes are Latin-1 code units (the seeds read
// as written); an input starting with 0xFF is raw UTF-16 instead.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLParser.h"
#include "SQLParser/SQLSyntaxParser.h"
#include "fuzz/FuzzSupport.h"

namespace {

using corvane::fuzz::Check;

size_t Walk(const CSQLCalcItem* item, int depth) {
  Check(item != nullptr && depth <= CSQLSyntaxParser::kMaxNestingDepth + 2);
  switch (item->Kind()) {
    case SQL_CALC_CONST: {
      const auto* c = static_cast<const CSQLCalcItemConst*>(item);
      Check(c->HasValue());
      const VARTYPE vt = V_VT(&c->Value());
      Check(vt == VT_I8 || vt == VT_R8 || vt == VT_BSTR);
      return vt == VT_BSTR ? SysStringLen(c->Value().bstrVal) : 1;
    }
    case SQL_CALC_FUNCTION: {
      const auto* f = static_cast<const CSQLCalcItemFunction*>(item);
      size_t n = f->Name().size();
      for (const auto& argument : f->Arguments()) n += Walk(argument.get(), depth + 1);
      return n;
    }
    case SQL_CALC_PARAMETER:
      Check(static_cast<const CSQLCalcItemParameter*>(item)->Number() >= 1);
      return 1;
    case SQL_CALC_TABLE_COLUMN:
      return static_cast<const CSQLCalcItemTableColumn*>(item)->ColumnName().size();
    default:
      Check(false);
      return 0;
  }
}

size_t Walk(const CSQLConditionNode* node, int depth) {
  Check(depth <= CSQLSyntaxParser::kMaxConditionDepth);
  size_t n = 1;
  if (node->Left()) n += Walk(node->Left(), depth + 1);
  if (node->Right()) n += Walk(node->Right(), depth + 1);
  if (node->FirstOperand()) n += Walk(node->FirstOperand(), 0);
  if (node->SecondOperand()) n += Walk(node->SecondOperand(), 0);
  return n;
}

size_t Walk(const CSQLQueryInfo& query) {
  size_t n = 0;
  for (const auto& column : query.SelectColumns()) n += Walk(column->Item(), 0) + column->DisplayName().size();
  for (const auto& from : query.FromItems()) {
    Check(from->Kind() == SQL_SELECT_ITEM_TABLE || from->Kind() == SQL_SELECT_ITEM_SP);
    if (from->Kind() == SQL_SELECT_ITEM_SP)
      for (const auto& p : static_cast<const CSQLSelectItemSP&>(*from).Parameters()) n += Walk(p.get(), 0);
  }
  if (query.Condition()) n += Walk(query.Condition(), 1);
  for (const auto& entry : query.Ordering()) n += entry.column.ColumnName().size();
  auto pairs = [&n](const auto& change, bool paired) {
    Check(!paired || change.Columns().size() == change.Values().size());
    for (const auto& c : change.Columns()) n += Walk(c.get(), 0);
    for (const auto& v : change.Values()) n += Walk(v.get(), 0);
  };
  if (query.StatementKind() == SQL_STATEMENT_INSERT) pairs(static_cast<const CSQLQueryInfoINSERT&>(query), false);
  if (query.StatementKind() == SQL_STATEMENT_UPDATE) pairs(static_cast<const CSQLQueryInfoUPDATE&>(query), true);
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::SetTraceSink(std::make_shared<corvane::fuzz::DiscardSink>());
  corvane::SetTraceThreshold(TRACE_DETAIL);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  corvane::WString text;
  if (size > 0 && data[0] == 0xFF) {
    for (size_t i = 1; i + 1 < size; i += 2) text.push_back(static_cast<OLECHAR>(data[i] | (data[i + 1] << 8)));
  } else {
    for (size_t i = 0; i < size; ++i) text.push_back(static_cast<OLECHAR>(data[i]));
  }
  std::unique_ptr<CSQLQueryInfo> query;
  corvane::WString error;
  const HRESULT hr = CSQLParser::ParseQuery({OLESTR("CAT"), OLESTR("SCH"), text}, &query, &error);
  if (SUCCEEDED(hr)) {
    Check(hr == S_OK && error.empty());
    Check(text.empty() == (query == nullptr));
    if (query) {
      const int kind = query->StatementKind();
      Check(kind >= SQL_STATEMENT_SELECT && kind <= SQL_STATEMENT_SP);
      Check(kind == SQL_STATEMENT_SELECT || !query->FromItems().empty());
      volatile size_t sink = Walk(*query);
      (void)sink;
    }
  } else {
    Check(query == nullptr);
    // Clause messages quote the text after the common prefix, cut to its beginning and an ellipsis when it is long.
    const size_t kQuoted = CSQLSyntaxParser::kMaxQuotedStatement;
    const corvane::WString quoted = text.size() <= kQuoted ? text : text.substr(0, kQuoted) + OLESTR("...");
    const corvane::WString prefix = corvane::WString(OLESTR("Failed to parse the query: '")) + quoted + OLESTR("'.");
    Check(error.empty() || error.compare(0, prefix.size(), prefix) == 0);
  }
  return 0;
}
