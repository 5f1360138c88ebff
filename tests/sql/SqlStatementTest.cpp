// Each statement kind's accepted forms and the query model it yields, WHERE trees (precedence, the exclusive BETWEEN,
// parentheses) and the numbering of `?`: one row per statement, the model compared whole.
#include <gtest/gtest.h>

#include "SqlTestSupport.h"

namespace {

using sqltest::Describe;

class SqlStatements : public corvane::test::LeakCheckedTest {};

TEST_F(SqlStatements, EachTextYieldsItsModel) {
  const std::pair<const char*, const char*> cases[] = {
      // TOP and LIMIT share one row limit; the later one wins.
      {"SELECT TOP 3 a FROM t LIMIT 7", "SELECT limit=0,7 cols=a from=CAT.SCH.t"},
      // Column names come from the item; an aggregate anywhere marks the statement.
      {"SELECT 5, 'x', r.VALUE v, TAGNAME AS \"Tag Name\", COUNT(VALUE), NOW() n, q.* FROM RAWDATA r",
       "SELECT aggregate cols=5, 'x':x, r.VALUE:VALUE@r as v, TAGNAME as Tag Name, COUNT(VALUE):COUNT, NOW():NOW as n, "
       "q.*:*@q from=CAT.SCH.RAWDATA r"},
      {"SELECT NOW(), max_value FROM t", "SELECT cols=NOW():NOW, max_value from=CAT.SCH.t"},
      {"SELECT a FROM c.s.t1, s2.t2 AS x, t3;", "SELECT cols=a from=c.s.t1, CAT.s2.t2 x, CAT.SCH.t3"},
      // A procedure as a table; a bare DATEADD unit is kept as text, like DATEADD('hh', ...).
      {"SELECT * FROM s.GET_VALUES('tag', DATEADD(hh, -1, NOW()), ?) WHERE VALUE > ?",
       "SELECT cols=* from=CAT.s.GET_VALUES('tag' DATEADD('hh',-1,NOW()) ?1) where=GT(VALUE,?2)"},
      {"SELECT a FROM t ORDER BY TIMESTAMP DESC, r.b ASC, c",
       "SELECT cols=a from=CAT.SCH.t order=TIMESTAMP DESC, r.b, c"},
      {"INSERT INTO RAWDATA (TAGNAME, VALUE, TIMESTAMP) VALUES ('a', 1.5, NOW());",
       "INSERT from=CAT.SCH.RAWDATA set=TAGNAME='a', VALUE=R8:1.500000, TIMESTAMP=NOW()"},
      {"DELETE FROM RAWDATA WHERE TAGNAME = 'a' AND TIMESTAMP = '2020-01-01' LIMIT 3",
       "DELETE limit=0,3 from=CAT.SCH.RAWDATA where=AND(EQ(TAGNAME,'a'),EQ(TIMESTAMP,'2020-01-01'))"},
      // Procedure calls; "? = EXEC" goes the CALL way (the word after "=" is not looked at)
      // and its return value takes `?` number 1.
      {"{CALL GET_VALUES('tag', ?, ?)}", "EXEC from=CAT.SCH.GET_VALUES('tag' ?1 ?2)"},
      {"? = EXEC p(?)", "EXEC from=CAT.SCH.p(?2)"},
      // WHERE trees: AND binds tighter than OR, both group to the left; a parenthesis must
      // be followed by a comparison, and a parenthesised right side is kept whole as the
      // comparison's right child; `?` are numbered from 1 in order of appearance.
      {"SELECT a FROM t WHERE a = 1 AND b > 2 AND c < 3 AND d >= 4 AND e <= 5 AND f <> 6",
       "SELECT cols=a from=CAT.SCH.t where=AND(AND(AND(AND(AND(EQ(a,1),GT(b,2)),LT(c,3)),GE(d,4)),LE(e,5)),NE(f,6))"},
      {"SELECT a FROM t WHERE x = -2.5", "SELECT cols=a from=CAT.SCH.t where=EQ(x,R8:-2.500000)"},
      {"SELECT a FROM t WHERE (a = 1) = 2", "SELECT cols=a from=CAT.SCH.t where=EQ(a,2)"},
      {"SELECT a FROM t WHERE a = (b = 1 OR c = 2)",
       "SELECT cols=a from=CAT.SCH.t where=EQ(a,null,OR(EQ(b,1),EQ(c,2)))"},
      {"SELECT a FROM t WHERE a = ? AND ? < b OR c BETWEEN ? AND ?",
       "SELECT cols=a from=CAT.SCH.t where=OR(AND(EQ(a,?1),LT(?2,b)),AND(GT(c,?3),LT(c,?4)))"},
  };
  for (const auto& [text, model] : cases) EXPECT_EQ(model, Describe(text)) << "statement: " << text;
}

}  // namespace
