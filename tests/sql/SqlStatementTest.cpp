// Each statement kind's accepted forms and the query model it yields.
#include <gtest/gtest.h>

#include "SqlTestSupport.h"

namespace {

using sqltest::Parse;
using sqltest::Render;
using sqltest::W8;

class SqlStatements : public corvane::test::LeakCheckedTest {};

const CSQLSelectItemTable& Table(const CSQLQueryInfo& q, size_t i) {
  return static_cast<const CSQLSelectItemTable&>(*q.FromItems().at(i));
}
const CSQLSelectItemSP& Procedure(const CSQLQueryInfo& q) {
  return static_cast<const CSQLSelectItemSP&>(*q.FromItems().at(0));
}
std::string Params(const CSQLSelectItemSP& sp) {
  std::string text;
  for (const auto& p : sp.Parameters()) text += (text.empty() ? "" : " ") + Render(p.get());
  return text;
}

TEST_F(SqlStatements, SelectStarGivesOneColumnAndDefaultCatalogAndSchema) {
  auto p = Parse("SELECT * FROM RAWDATA");
  ASSERT_EQ(p.hr, S_OK) << p.error;
  const CSQLQueryInfo& q = *p.query;
  EXPECT_EQ(q.StatementKind(), SQL_STATEMENT_SELECT);
  ASSERT_EQ(q.SelectColumns().size(), 1u);
  EXPECT_EQ(W8(q.SelectColumns()[0]->ColumnName()), "*");
  EXPECT_EQ(W8(q.SelectColumns()[0]->DisplayName()), "*");
  ASSERT_EQ(q.FromItems().size(), 1u);
  EXPECT_EQ(q.FromItems()[0]->Kind(), SQL_SELECT_ITEM_TABLE);
  EXPECT_EQ(W8(Table(q, 0).TableName()), "RAWDATA");
  EXPECT_EQ(W8(Table(q, 0).Alias()), "RAWDATA");
  EXPECT_EQ(W8(Table(q, 0).Catalog()), "CAT");
  EXPECT_EQ(W8(Table(q, 0).Schema()), "SCH");
  EXPECT_EQ(q.Condition(), nullptr);
  EXPECT_EQ(q.RowLimitEnabled(), 0);
  EXPECT_EQ(static_cast<const CSQLQueryInfoSELECT&>(q).Aggregate(), 0);
}

TEST_F(SqlStatements, TopAndLimitShareOneRowLimit) {
  auto top = Parse("SELECT TOP 10 TAGNAME, VALUE FROM RAWDATA WHERE TAGNAME = 'a' AND TIMESTAMP > NOW()");
  ASSERT_EQ(top.hr, S_OK) << top.error;
  EXPECT_EQ(top.query->RowLimitEnabled(), 1);
  EXPECT_EQ(top.query->RowLimitSkip(), 0);
  EXPECT_EQ(top.query->RowLimitCount(), 10);
  ASSERT_EQ(top.query->SelectColumns().size(), 2u);
  EXPECT_EQ(W8(top.query->SelectColumns()[1]->ColumnName()), "VALUE");
  EXPECT_EQ(Render(top.query->Condition()), "AND(EQ(TAGNAME,'a'),GT(TIMESTAMP,NOW()))");

  auto paged = Parse("SELECT a FROM t LIMIT 5, 10");
  ASSERT_EQ(paged.hr, S_OK);
  EXPECT_EQ(paged.query->RowLimitSkip(), 5);
  EXPECT_EQ(paged.query->RowLimitCount(), 10);

  auto both = Parse("SELECT TOP 3 a FROM t LIMIT 7");
  ASSERT_EQ(both.hr, S_OK);
  EXPECT_EQ(both.query->RowLimitSkip(), 0);
  EXPECT_EQ(both.query->RowLimitCount(), 7);
}

TEST_F(SqlStatements, SelectColumnNamesComeFromTheItem) {
  auto p = Parse("SELECT 5, 'x', r.VALUE v, TAGNAME AS \"Tag Name\", COUNT(VALUE), NOW() n, q.* FROM RAWDATA r");
  ASSERT_EQ(p.hr, S_OK) << p.error;
  const auto& cols = p.query->SelectColumns();
  ASSERT_EQ(cols.size(), 7u);
  EXPECT_EQ(W8(cols[0]->ColumnName()), "5");
  EXPECT_EQ(W8(cols[0]->DisplayName()), "5");
  EXPECT_EQ(W8(cols[1]->ColumnName()), "x");
  EXPECT_EQ(W8(cols[1]->DisplayName()), "x");
  EXPECT_EQ(W8(cols[2]->TableName()), "r");
  EXPECT_EQ(W8(cols[2]->TableAlias()), "r");
  EXPECT_EQ(W8(cols[2]->ColumnName()), "VALUE");
  EXPECT_EQ(W8(cols[2]->DisplayName()), "v");
  EXPECT_EQ(W8(cols[3]->DisplayName()), "Tag Name");
  EXPECT_EQ(W8(cols[4]->ColumnName()), "COUNT");
  EXPECT_EQ(W8(cols[4]->DisplayName()), "COUNT");
  EXPECT_EQ(Render(cols[4]->Item()), "COUNT(VALUE)");
  EXPECT_EQ(W8(cols[5]->DisplayName()), "n");
  EXPECT_EQ(W8(static_cast<const CSQLCalcItemFunction*>(cols[5]->Item())->DisplayName()), "n");
  EXPECT_EQ(Render(cols[6]->Item()), "q.*");
  EXPECT_EQ(W8(Table(*p.query, 0).TableName()), "RAWDATA");
  EXPECT_EQ(W8(Table(*p.query, 0).Alias()), "r");
  EXPECT_EQ(static_cast<const CSQLQueryInfoSELECT&>(*p.query).Aggregate(), 1);

  auto noAggregate = Parse("SELECT NOW(), max_value FROM t");
  ASSERT_EQ(noAggregate.hr, S_OK);
  EXPECT_EQ(static_cast<const CSQLQueryInfoSELECT&>(*noAggregate.query).Aggregate(), 0);
  auto lower = Parse("SELECT avg(VALUE) FROM t");
  ASSERT_EQ(lower.hr, S_OK);
  EXPECT_EQ(static_cast<const CSQLQueryInfoSELECT&>(*lower.query).Aggregate(), 1);
}

TEST_F(SqlStatements, FromListNamesAndProcedureAsTable) {
  auto p = Parse("SELECT a FROM c.s.t1, s2.t2 AS x, t3;");
  ASSERT_EQ(p.hr, S_OK) << p.error;
  ASSERT_EQ(p.query->FromItems().size(), 3u);
  EXPECT_EQ(W8(Table(*p.query, 0).Catalog()), "c");
  EXPECT_EQ(W8(Table(*p.query, 0).Schema()), "s");
  EXPECT_EQ(W8(Table(*p.query, 0).TableName()), "t1");
  EXPECT_EQ(W8(Table(*p.query, 1).Catalog()), "CAT");
  EXPECT_EQ(W8(Table(*p.query, 1).Schema()), "s2");
  EXPECT_EQ(W8(Table(*p.query, 1).Alias()), "x");
  EXPECT_EQ(W8(Table(*p.query, 2).Schema()), "SCH");

  auto sp = Parse("SELECT * FROM s.GET_VALUES('tag', DATEADD(hh, -1, NOW()), ?) WHERE VALUE > ?");
  ASSERT_EQ(sp.hr, S_OK) << sp.error;
  ASSERT_EQ(sp.query->FromItems().size(), 1u);
  EXPECT_EQ(sp.query->FromItems()[0]->Kind(), SQL_SELECT_ITEM_SP);
  EXPECT_EQ(W8(Procedure(*sp.query).ProcedureName()), "GET_VALUES");
  EXPECT_EQ(W8(Procedure(*sp.query).Schema()), "s");
  EXPECT_EQ(W8(Procedure(*sp.query).Catalog()), "CAT");
  // A bare DATEADD unit is kept as text, like DATEADD('hh', ...).
  EXPECT_EQ(Params(Procedure(*sp.query)), "'tag' DATEADD('hh',-1,NOW()) ?1");
  EXPECT_EQ(Render(sp.query->Condition()), "GT(VALUE,?2)");
}

TEST_F(SqlStatements, OrderByKeepsColumnCopiesAndDirections) {
  auto p = Parse("SELECT a FROM t ORDER BY TIMESTAMP DESC, r.b ASC, c");
  ASSERT_EQ(p.hr, S_OK) << p.error;
  const auto& order = p.query->Ordering();
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(W8(order[0].column.ColumnName()), "TIMESTAMP");
  EXPECT_EQ(order[0].descending, 1);
  EXPECT_EQ(W8(order[1].column.TableName()), "r");
  EXPECT_EQ(order[1].descending, 0);
  EXPECT_EQ(W8(order[2].column.ColumnName()), "c");
  EXPECT_EQ(order[2].descending, 0);
}

TEST_F(SqlStatements, InsertUpdateDelete) {
  auto ins = Parse("INSERT INTO RAWDATA (TAGNAME, VALUE, TIMESTAMP) VALUES ('a', 1.5, NOW());");
  ASSERT_EQ(ins.hr, S_OK) << ins.error;
  auto& insert = static_cast<const CSQLQueryInfoINSERT&>(*ins.query);
  EXPECT_EQ(insert.StatementKind(), SQL_STATEMENT_INSERT);
  ASSERT_EQ(insert.Columns().size(), 3u);
  ASSERT_EQ(insert.Values().size(), 3u);
  EXPECT_EQ(Render(insert.Columns()[2].get()), "TIMESTAMP");
  EXPECT_EQ(Render(insert.Values()[0].get()), "'a'");
  EXPECT_EQ(Render(insert.Values()[1].get()), "R8:1.500000");
  EXPECT_EQ(Render(insert.Values()[2].get()), "NOW()");
  EXPECT_EQ(W8(Table(insert, 0).TableName()), "RAWDATA");

  auto upd = Parse("UPDATE t SET a = 1, b = 'x' WHERE c = 3");
  ASSERT_EQ(upd.hr, S_OK) << upd.error;
  auto& update = static_cast<const CSQLQueryInfoUPDATE&>(*upd.query);
  EXPECT_EQ(update.StatementKind(), SQL_STATEMENT_UPDATE);
  ASSERT_EQ(update.Columns().size(), 2u);
  EXPECT_EQ(Render(update.Columns()[1].get()), "b");
  EXPECT_EQ(Render(update.Values()[0].get()), "1");
  EXPECT_EQ(Render(update.Values()[1].get()), "'x'");
  EXPECT_EQ(Render(update.Condition()), "EQ(c,3)");

  auto del = Parse("DELETE FROM RAWDATA WHERE TAGNAME = 'a' AND TIMESTAMP = '2020-01-01' LIMIT 3");
  ASSERT_EQ(del.hr, S_OK) << del.error;
  EXPECT_EQ(del.query->StatementKind(), SQL_STATEMENT_DELETE);
  EXPECT_EQ(del.query->RowLimitCount(), 3);
  EXPECT_EQ(Render(del.query->Condition()), "AND(EQ(TAGNAME,'a'),EQ(TIMESTAMP,'2020-01-01'))");
}

TEST_F(SqlStatements, ProcedureCallForms) {
  auto exec = Parse("EXEC GET_VALUES 'tag', '2020-01-01', NOW()");
  ASSERT_EQ(exec.hr, S_OK) << exec.error;
  EXPECT_EQ(exec.query->StatementKind(), SQL_STATEMENT_SP);
  EXPECT_EQ(Params(Procedure(*exec.query)), "'tag' '2020-01-01' NOW()");

  for (const char* text : {"CALL GET_VALUES('tag', ?, ?)", "{CALL GET_VALUES('tag', ?, ?)}", "call GET_VALUES('tag',?,?);"}) {
    auto call = Parse(text);
    ASSERT_EQ(call.hr, S_OK) << text << " " << call.error;
    EXPECT_EQ(W8(Procedure(*call.query).ProcedureName()), "GET_VALUES");
    EXPECT_EQ(Params(Procedure(*call.query)), "'tag' ?1 ?2") << text;
  }
  // "? = EXEC" goes the CALL way: the word after "=" is not looked at.
  for (const char* text : {"? = CALL p(?)", "? = EXEC p(?)", "{? = CALL c.s.p(?)}"}) {
    auto ret = Parse(text);
    ASSERT_EQ(ret.hr, S_OK) << text << " " << ret.error;
    EXPECT_EQ(Params(Procedure(*ret.query)), "?2") << text;
  }
  auto qualified = Parse("EXEC c.s.HDA_ANALOG 'x', 1, 2.5, ?");
  ASSERT_EQ(qualified.hr, S_OK);
  EXPECT_EQ(W8(Procedure(*qualified.query).Catalog()), "c");
  EXPECT_EQ(Params(Procedure(*qualified.query)), "'x' 1 R8:2.500000 ?1");
}

TEST_F(SqlStatements, EmptyTextSucceedsWithoutAQuery) {
  std::unique_ptr<CSQLQueryInfo> query = std::make_unique<CSQLQueryInfoDELETE>();
  CSQLQueryInfo* before = query.get();
  corvane::WString error = OLESTR("stale");
  EXPECT_EQ(CSQLParser::ParseQuery({OLESTR("c"), OLESTR("s"), corvane::WStringView()}, &query, &error), S_OK);
  EXPECT_EQ(query.get(), before);
  EXPECT_TRUE(error.empty());
}

TEST_F(SqlStatements, ClearEmptiesTheQuery) {
  auto p = Parse("INSERT INTO t (a) VALUES (1)");
  ASSERT_EQ(p.hr, S_OK);
  p.query->Clear();
  auto& insert = static_cast<const CSQLQueryInfoINSERT&>(*p.query);
  EXPECT_EQ(insert.StatementKind(), SQL_STATEMENT_NONE);
  EXPECT_TRUE(insert.FromItems().empty() && insert.Columns().empty() && insert.Values().empty());
}

}  // namespace
