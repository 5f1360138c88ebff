#include "historian/Aggregates.h"
#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

// Good: top two bits 00 (0, 3, 5, 8, 9). Everything else is bad here, uncertain too.
DWORD MixedQuality(size_t i) {
  static const DWORD q[] = {0, 0x40000000, 0x80000000, 0x00A50000, 0xC0000000,
                            0, 0x808C0000, 0x40930000, 0, 0};
  return q[i];
}

using ValuesByQuality = HistorianFixture;
using TagBrowse = HistorianFixture;
using ProcessedExposure = HistorianFixture;

TEST_F(ValuesByQuality, GoodBadAndAllSplitTheRange) {
  AddSeries(OLESTR("Q"), 10, kSecond, MixedQuality);
  TagIdent t = Ident(OLESTR("Q"));
  const FILETIME from = Ft(kT0 + kSecond), to = Ft(kT0 + 8 * kSecond);
  HistoryValueList* list = nullptr;
  ASSERT_EQ(S_OK, values_->GetGoodValues(&t, from, to, 0, &list));
  EXPECT_EQ((std::vector<double>{3, 5, 8}), ValuesOf(Take(list)));
  ASSERT_EQ(S_OK, values_->GetBadValues(&t, from, to, 0, &list));
  EXPECT_EQ((std::vector<double>{1, 2, 4, 6, 7}), ValuesOf(Take(list)));
  ASSERT_EQ(S_OK, values_->GetAllValues(&t, from, to, 0, &list));
  EXPECT_EQ(8u, Take(list).size());
  // A count limits the answer; a reversed range counts from the newest end.
  ASSERT_EQ(S_OK, values_->GetGoodValues(&t, from, to, 2, &list));
  EXPECT_EQ((std::vector<double>{3, 5}), ValuesOf(Take(list)));
  ASSERT_EQ(S_OK, values_->GetBadValues(&t, to, from, 2, &list));
  EXPECT_EQ((std::vector<double>{7, 6}), ValuesOf(Take(list)));
  ASSERT_EQ(S_OK, values_->GetAllValues(&t, Ft(kT0 + 50 * kSecond), Ft(kT0 + 60 * kSecond), 0, &list));
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(0u, list->count);
  FreeHistoryValueList(list);
  TagIdent missing = Ident(OLESTR("Nope"));
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, values_->GetAllValues(&missing, from, to, 0, &list));
  EXPECT_EQ(nullptr, list);
}

TEST_F(ValuesByQuality, MostRecentIsTheNewestOfAnyQuality) {
  AddSeries(OLESTR("Q"), 7, kSecond, MixedQuality);  // the newest (6) is bad
  TagDefinition empty;
  empty.name = OLESTR("Empty");
  ASSERT_EQ(S_OK, store_->AddTag(empty));
  TagIdent t = Ident(OLESTR("q")), e = Ident(OLESTR("Empty"));
  HistoryValue* hv = nullptr;
  ASSERT_EQ(S_OK, values_->GetMostRecentValue(&t, &hv));
  ASSERT_NE(nullptr, hv);
  EXPECT_EQ(kT0 + 6 * kSecond, FileTimeToU64(hv->timestamp));
  EXPECT_EQ(0x808C0000u, hv->quality);
  EXPECT_EQ(6.0, hv->value.dblVal);
  FreeHistoryValue(hv);
  hv = reinterpret_cast<HistoryValue*>(1);
  EXPECT_EQ(S_OK, values_->GetMostRecentValue(&e, &hv));
  EXPECT_EQ(nullptr, hv);
}

TEST_F(TagBrowse, FiltersByNameAndDescriptionIgnoringCase) {
  struct {
    const OLECHAR* name;
    const OLECHAR* description;
    VARTYPE vt;
  } tags[] = {{OLESTR("Reactor1.Temperature"), OLESTR("Core temperature"), VT_R8},
              {OLESTR("Reactor1.Pressure"), OLESTR("Pressure"), VT_R4},
              {OLESTR("reactor2.temperature"), OLESTR("Spare temperature"), VT_I4},
              {OLESTR("Pump1.Flow"), OLESTR("Flow"), VT_BOOL}};
  for (auto& t : tags) {
    TagDefinition def;
    def.name = t.name;
    def.description = t.description;
    def.vartype = t.vt;
    def.stepped = t.vt == VT_BOOL;
    def.accessRights = t.vt == VT_BOOL ? kTagAccessRead : kTagAccessRead | kTagAccessWrite;
    ASSERT_EQ(S_OK, store_->AddTag(def));
  }
  auto browse = [&](const OLECHAR* name, const OLECHAR* description) {
    ULONG count = 99;
    TagRecord* records = nullptr;
    BOOL truncated = TRUE;
    EXPECT_EQ(S_OK, raw_->BrowseTags(name, description, &count, &records, &truncated));
    EXPECT_FALSE(truncated);
    std::vector<WString> names;
    for (ULONG i = 0; i < count; ++i) names.push_back(records[i].name);
    if (count == 4) {
      EXPECT_EQ(VT_BOOL, records[3].vartype);
      EXPECT_TRUE(records[3].stepped);
      EXPECT_EQ(static_cast<DWORD>(kTagAccessRead), records[3].accessRights);
      EXPECT_EQ(WString(OLESTR("Spare temperature")), WString(records[2].description));
    }
    if (!count) {
      EXPECT_EQ(nullptr, records);
    }
    FreeTagRecords(records, count);
    return names;
  };
  EXPECT_EQ(4u, browse(nullptr, nullptr).size());
  EXPECT_EQ(4u, browse(OLESTR(""), OLESTR("*")).size());
  EXPECT_EQ((std::vector<WString>{OLESTR("Reactor1.Temperature"), OLESTR("reactor2.temperature")}),
            browse(OLESTR("REACTOR?.temp*"), nullptr));
  EXPECT_EQ((std::vector<WString>{OLESTR("Reactor1.Pressure")}), browse(OLESTR("*"), OLESTR("*PRESSURE")));
  EXPECT_EQ((std::vector<WString>{OLESTR("reactor2.temperature")}), browse(OLESTR("r*"), OLESTR("spare*")));
  EXPECT_TRUE(browse(OLESTR("Pump?"), nullptr).empty());
}

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
