// WHERE trees: operator precedence and associativity, NOT, the exclusive BETWEEN
// rewrite, the comparison every term needs, and how `?` parameters are numbered.
#include <gtest/gtest.h>

#include "SqlTestSupport.h"

namespace {

using sqltest::Parse;
using sqltest::Render;

class SqlConditions : public corvane::test::LeakCheckedTest {};
class SqlParameterNumbering : public corvane::test::LeakCheckedTest {};

std::string Where(const std::string& condition) {
  auto p = Parse("SELECT a FROM t WHERE " + condition);
  if (FAILED(p.hr)) return "FAILED: " + p.error;
  return Render(p.query->Condition());
}

TEST_F(SqlConditions, AndBindsTighterThanOrAndBothGroupToTheLeft) {
  EXPECT_EQ(Where("a = 1 OR b = 2 AND c = 3"), "OR(EQ(a,1),AND(EQ(b,2),EQ(c,3)))");
  EXPECT_EQ(Where("a = 1 AND b = 2 OR c = 3"), "OR(AND(EQ(a,1),EQ(b,2)),EQ(c,3))");
  EXPECT_EQ(Where("a = 1 AND b = 2 AND c = 3"), "AND(AND(EQ(a,1),EQ(b,2)),EQ(c,3))");
  EXPECT_EQ(Where("a = 1 OR b = 2 OR c = 3 AND d = 4 AND e = 5"),
            "OR(OR(EQ(a,1),EQ(b,2)),AND(AND(EQ(c,3),EQ(d,4)),EQ(e,5)))");
}

TEST_F(SqlConditions, ComparisonOperatorsAndOperands) {
  EXPECT_EQ(Where("a = 1 AND b > 2 AND c < 3 AND d >= 4 AND e <= 5 AND f <> 6"),
            "AND(AND(AND(AND(AND(EQ(a,1),GT(b,2)),LT(c,3)),GE(d,4)),LE(e,5)),NE(f,6))");
  EXPECT_EQ(Where("'2020-01-02' < TIMESTAMP"), "LT('2020-01-02',TIMESTAMP)");
  EXPECT_EQ(Where("TIMESTAMP > DATEADD('hh', -1, NOW()) AND r.TAGNAME = b"),
            "AND(GT(TIMESTAMP,DATEADD('hh',-1,NOW())),EQ(r.TAGNAME,b))");
  EXPECT_EQ(Where("x = -2.5"), "EQ(x,R8:-2.500000)");
}

TEST_F(SqlConditions, NotWrapsOneComparison) {
  EXPECT_EQ(Where("NOT a = 1 AND b = 2"), "AND(NOT(EQ(a,1)),EQ(b,2))");
  EXPECT_EQ(Where("a = 1 OR NOT b > 2"), "OR(EQ(a,1),NOT(GT(b,2)))");
}

TEST_F(SqlConditions, BetweenIsExclusiveAndCopiesTheColumn) {
  auto p = Parse("SELECT a FROM t WHERE x BETWEEN 1 AND 5 AND y = 2");
  ASSERT_EQ(p.hr, S_OK) << p.error;
  EXPECT_EQ(Render(p.query->Condition()), "AND(AND(GT(x,1),LT(x,5)),EQ(y,2))");
  const CSQLConditionNode* between = p.query->Condition()->Left();
  EXPECT_NE(between->Left()->FirstOperand(), between->Right()->FirstOperand());
  EXPECT_EQ(Where("TIMESTAMP BETWEEN '2020-01-01' AND NOW()"), "AND(GT(TIMESTAMP,'2020-01-01'),LT(TIMESTAMP,NOW()))");
  EXPECT_EQ(Where("q.x BETWEEN ? AND ?"), "AND(GT(q.x,?1),LT(q.x,?2))");
}

TEST_F(SqlConditions, ParenthesesMustBeFollowedByAComparison) {
  EXPECT_EQ(Where("(a = 1) = 2"), "EQ(a,2)");
  // A parenthesised right side is kept whole as the comparison's right child.
  EXPECT_EQ(Where("a = (b = 1 OR c = 2)"), "EQ(a,null,OR(EQ(b,1),EQ(c,2)))");
}

TEST_F(SqlParameterNumbering, NumberedFromOneInOrderOfAppearance) {
  EXPECT_EQ(Where("a = ? AND ? < b OR c BETWEEN ? AND ?"), "OR(AND(EQ(a,?1),LT(?2,b)),AND(GT(c,?3),LT(c,?4)))");
  auto sp = Parse("SELECT * FROM p(?, 'x', ?) WHERE v > ?");
  ASSERT_EQ(sp.hr, S_OK) << sp.error;
  auto& item = static_cast<const CSQLSelectItemSP&>(*sp.query->FromItems()[0]);
  EXPECT_EQ(Render(item.Parameters()[0].get()), "?1");
  EXPECT_EQ(Render(item.Parameters()[2].get()), "?2");
  EXPECT_EQ(Render(sp.query->Condition()), "GT(v,?3)");
  // The return value of "? = CALL" takes number 1.
  auto ret = Parse("? = CALL p(?, 1, ?)");
  ASSERT_EQ(ret.hr, S_OK) << ret.error;
  auto& call = static_cast<const CSQLSelectItemSP&>(*ret.query->FromItems()[0]);
  EXPECT_EQ(Render(call.Parameters()[0].get()), "?2");
  EXPECT_EQ(Render(call.Parameters()[2].get()), "?3");
  // Each parse starts again at 1.
  auto again = Parse("EXEC p ?");
  ASSERT_EQ(again.hr, S_OK);
  EXPECT_EQ(Render(static_cast<const CSQLSelectItemSP&>(*again.query->FromItems()[0]).Parameters()[0].get()), "?1");
}

}  // namespace
