#include "historian/Aggregates.h"
#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

// What the value procedures and TAGS show of the values by quality and of the browse is in
// tests/cases/history.test.
using TagBrowse = HistorianFixture;
using ProcessedExposure = HistorianFixture;

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

TEST_F(ProcessedExposure, OnlyOnRequestAndWithoutAReferenceCycle) {
  IProcessedDataProvider* processed = nullptr;
  EXPECT_EQ(E_NOINTERFACE, raw_->QueryInterface(IID_IProcessedDataProvider, reinterpret_cast<void**>(&processed)));
  const long aggregatesBefore = AggregatesObjectCount();
  IAggregates* factory = nullptr;
  ASSERT_EQ(S_OK, CAggregates::CreateInstance(nullptr, IID_IAggregates, reinterpret_cast<void**>(&factory)));
  IUnknown* host = nullptr;
  ASSERT_EQ(S_OK, CReferenceHistorian::Create(store_, IID_IUnknown, reinterpret_cast<void**>(&host), factory));
  factory->Release();
  ASSERT_EQ(S_OK, host->QueryInterface(IID_IProcessedDataProvider, reinterpret_cast<void**>(&processed)));
  // The processed side reads this store through the historian's raw interface.
  TagIdent missing = Ident(OLESTR("Nope"));
  ProcessedReadRequest request{};
  request.end = Ft(kT0 + kSecond);
  const AggregateId average = AGG_AVG;
  ProcessedResult* result = nullptr;
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, processed->ReadProcessed(&missing, &request, 1, &average, &result));
  IUnknown* identity = nullptr;
  ASSERT_EQ(S_OK, processed->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
  EXPECT_EQ(host, identity);
  identity->Release();
  processed->Release();
  host->Release();  // the fixture checks that both historian objects are gone
  EXPECT_EQ(aggregatesBefore, AggregatesObjectCount());
}

}  // namespace
}  // namespace corvane::historian::test
