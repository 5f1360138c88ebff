#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

// What the value procedures and TAGS show of the values by quality and of the browse is in tests/cases/history.test.
using TagBrowse = HistorianFixture;

TEST_F(TagBrowse, WildcardsMatchWholeNames) {
  const WString nearMiss(5000, 'a');  // many stars against a long near-miss must finish at once
  const struct {
    const OLECHAR *filter, *name;
    bool matches;
  } cases[] = {{OLESTR("a*b*c"), OLESTR("aXXbYYc"), true}, {OLESTR("a*b*c"), OLESTR("aXXbYYcd"), false},
               {OLESTR("*c"), OLESTR("abcbc"), true},      {OLESTR("???"), OLESTR("ab"), false},
               {OLESTR("?*"), OLESTR("x"), true},          {OLESTR("?*"), OLESTR(""), false},
               {OLESTR("**"), OLESTR(""), true},           {OLESTR("\u00c9T*"), OLESTR("\u00e9tat"), true},  // Latin-1 folds
               {OLESTR("*a*a*a*a*a*a*a*a*b"), nearMiss.c_str(), false}};
  for (const auto& c : cases) EXPECT_EQ(c.matches, TagFilterMatches(c.filter, c.name)) << ToUtf8(c.filter);
}

TEST_F(TagBrowse, TaskTagIdentIsAllOrNothing) {
  TagIdent* tag = reinterpret_cast<TagIdent*>(1);
  EXPECT_EQ(E_INVALIDARG, MakeTaskTagIdent(OLESTR("c"), OLESTR(""), OLESTR("t"), &tag));
  EXPECT_EQ(nullptr, tag);
  EXPECT_EQ(E_INVALIDARG, MakeTaskTagIdent(OLESTR("c"), OLESTR("s"), nullptr, &tag));
  ASSERT_EQ(S_OK, MakeTaskTagIdent(OLESTR("c"), OLESTR("s"), OLESTR("Reactor1.Pressure"), &tag));
  EXPECT_EQ(WString(OLESTR("Reactor1.Pressure")), WString(tag->tagName));
  FreeTagIdent(tag);  // the fixture checks that all four blocks went back
}

}  // namespace
}  // namespace corvane::historian::test
