#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

FILETIME At(double seconds) { return Ft(kT0 + ULONGLONG(seconds * kSecond)); }

// A value as the procedures write it: a text the tag converts to its own type.
struct Written {
  HistoryValue hv{};
  Written(const OLECHAR* text, double seconds) {
    hv.value.vt = VT_BSTR;
    hv.value.bstrVal = SysAllocString(text);
    hv.timestamp = At(seconds);
  }
  ~Written() { VariantClear(&hv.value); }
  const HistoryValue* P() const { return &hv; }
};

class RawFixture : public HistorianFixture {
 protected:
  // Every sample of a range, in one read.
  std::vector<Sample> ReadAll(const OLECHAR* name, double from, double to, DWORD flags = kRawReadIncludeBounds) {
    TagIdent tag = Ident(name);
    void* cp = nullptr;
    HistoryValueList* list = nullptr;
    EXPECT_EQ(S_OK, raw_->ReadRaw(&tag, At(from), At(to), 0, flags, &cp, &list));
    EXPECT_EQ(nullptr, cp);
    return Take(list);
  }
};

using RawPaging = RawFixture;
using RawWrites = RawFixture;

// Statements always ask for both ends (tests/cases/execution.test reads them, fetch23.test pages through a tag, the
// soak reads newest first across pages); without the flag a read leaves them out.
TEST_F(RawPaging, WithoutTheBoundsFlagBothEndsAreLeftOut) {
  AddSeries(OLESTR("T"), 10);
  EXPECT_EQ((std::vector<double>{3, 4}), ValuesOf(ReadAll(OLESTR("T"), 2, 5, 0)));
  EXPECT_TRUE(ReadAll(OLESTR("T"), 2, 3, 0).empty());
}

TEST_F(RawPaging, ContinuationPointsAreOwnedAndWritesBetweenPagesNeitherRepeatNorSkip) {
  AddSeries(OLESTR("T"), 250);
  AddSeries(OLESTR("U"), 5);
  TagIdent t = Ident(OLESTR("T")), u = Ident(OLESTR("U"));
  void* cp = nullptr;
  HistoryValueList* list = nullptr;
  ASSERT_EQ(S_OK, raw_->ReadRaw(&t, At(0), At(249), 100, 1, &cp, &list));
  FreeHistoryValueList(list);
  ASSERT_NE(nullptr, cp);
  EXPECT_EQ(1u, store_->OutstandingCursors());
  // Another tag's read cannot borrow it, and the refusal leaves it usable.
  EXPECT_EQ(E_INVALIDARG, raw_->ReadRaw(&u, At(0), At(249), 100, 1, &cp, &list));
  EXPECT_EQ(1u, store_->OutstandingCursors());
  void* stale = cp;
  EXPECT_EQ(S_OK, raw_->ReleaseContinuationPoint(&cp));
  EXPECT_EQ(nullptr, cp);
  EXPECT_EQ(0u, store_->OutstandingCursors());
  EXPECT_EQ(E_INVALIDARG, raw_->ReleaseContinuationPoint(&stale));
  EXPECT_EQ(E_INVALIDARG, raw_->ReadRaw(&t, At(0), At(249), 100, 1, &stale, &list));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(S_FALSE, raw_->ReleaseContinuationPoint(&cp));
  EXPECT_EQ(E_INVALIDARG, raw_->ReleaseContinuationPoint(nullptr));

  // A write before the resume point is not read again; a deleted next sample is gone.
  ASSERT_EQ(S_OK, raw_->ReadRaw(&u, At(0), At(4), 2, 1, &cp, &list));
  EXPECT_EQ((std::vector<double>{0, 1}), ValuesOf(Take(list)));
  ASSERT_EQ(S_OK, raw_->InsertValue(&u, Written(OLESTR("100"), 0.5).P()));
  ASSERT_EQ(S_OK, raw_->DeleteValues(&u, At(2), At(2)));
  std::vector<double> rest;
  while (cp) {
    ASSERT_EQ(S_OK, raw_->ReadRaw(&u, At(0), At(4), 2, 1, &cp, &list));
    for (double v : ValuesOf(Take(list))) rest.push_back(v);
  }
  EXPECT_EQ((std::vector<double>{3, 4}), rest);
}

// What the write procedures answer (inserted, already present, unknown tag, not found, a text the type cannot hold, a
// read-only tag) is in tests/cases/procedures.test and history.test; here is what no statement reaches.
TEST_F(RawWrites, RefusedReadsBoundsAndDeletesWithTheirResultCodes) {
  AddSeries(OLESTR("T"), 10);
  TagIdent t = Ident(OLESTR("T")), missing = Ident(OLESTR("Nope")), noSchema = t;
  void* cp = nullptr;
  HistoryValueList* list = nullptr;
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, raw_->ReadRaw(&missing, At(0), At(1), 0, 1, &cp, &list));
  EXPECT_EQ(E_INVALIDARG, raw_->ReadRaw(&t, At(0), At(1), 0, 3, &cp, &list));
  EXPECT_EQ(E_INVALIDARG, raw_->ReadRaw(&t, At(0), At(1), 0, 1, nullptr, &list));
  OLECHAR empty[] = {0};
  noSchema.schema = empty;
  EXPECT_EQ(E_INVALIDARG, raw_->ReadRaw(&noSchema, At(0), At(1), 0, 1, &cp, &list));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(nullptr, cp);
  VARTYPE vt = VT_EMPTY;
  EXPECT_EQ(S_OK, raw_->GetTagInfo(&t, &vt));
  EXPECT_EQ(VT_R8, vt);
  FILETIME first, last;
  EXPECT_EQ(S_OK, raw_->GetTimeBounds(&t, &first, &last));
  EXPECT_EQ(kT0, FileTimeToU64(first));
  EXPECT_EQ(kT0 + 9 * kSecond, FileTimeToU64(last));
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, raw_->GetTimeBounds(&missing, &first, &last));
  // Both ends of a delete are included; the order of the ends does not matter.
  EXPECT_EQ(S_OK, raw_->DeleteValues(&t, At(3), At(6)));
  EXPECT_EQ(S_FALSE, raw_->DeleteValues(&t, At(3), At(6)));
  EXPECT_EQ(S_OK, raw_->DeleteValues(&t, At(20), At(8)));
  EXPECT_EQ(HIST_E_TAG_NOT_FOUND, raw_->DeleteValues(&missing, At(0), At(0)));
  EXPECT_EQ((std::vector<double>{0, 1, 2, 7}), ValuesOf(ReadAll(OLESTR("T"), 0, 99)));
  TagDefinition ro;
  ro.name = OLESTR("RO");
  ro.accessRights = kTagAccessRead;
  ASSERT_EQ(S_OK, store_->AddTag(ro));
  TagIdent r = Ident(OLESTR("RO")), none{empty, empty, empty};
  EXPECT_EQ(E_ACCESSDENIED, raw_->DeleteValues(&r, Ft(0), At(0)));  // even with nothing to delete
  DWORD caps = 0;
  EXPECT_EQ(S_OK, raw_->GetCapabilities(&r, &caps));
  EXPECT_EQ(0u, caps & kCapabilityInsert);
  EXPECT_EQ(S_OK, raw_->GetCapabilities(&none, &caps));
  EXPECT_NE(0u, caps & kCapabilityInsert);
}

TEST_F(RawWrites, EveryTypeComesBackAsItsOwnVariant) {
  const struct {
    VARTYPE vt;
    const OLECHAR* text;
    double value;
  } cases[] = {{VT_I1, OLESTR("-5"), -5},         {VT_UI1, OLESTR("200"), 200},     {VT_I2, OLESTR("-30000"), -30000},
               {VT_UI2, OLESTR("65000"), 65000},  {VT_I4, OLESTR("-7"), -7},        {VT_UI4, OLESTR("4000000000"), 4e9},
               {VT_I8, OLESTR("-9000000000"), -9e9}, {VT_UI8, OLESTR("9000000000"), 9e9}, {VT_BOOL, OLESTR("-1"), -1},
               {VT_BSTR, OLESTR("caf\u00e9, \"quoted\""), -1}};
  for (const auto& c : cases) {
    TagDefinition def;
    def.name = OLESTR("Tag") + WString(1, static_cast<OLECHAR>('A' + (&c - cases)));
    def.vartype = c.vt;
    ASSERT_EQ(S_OK, store_->AddTag(def));
    TagIdent t = Ident(def.name.c_str());
    EXPECT_EQ(S_OK, raw_->InsertValue(&t, Written(c.text, 0).P())) << c.vt;
    const std::vector<Sample> got = ReadAll(def.name.c_str(), 0, 0);
    ASSERT_EQ(1u, got.size()) << c.vt;
    EXPECT_EQ(c.vt, got[0].vt);
    EXPECT_EQ(c.value, got[0].value) << c.vt;
    HistoryValue* newest = nullptr;
    ASSERT_EQ(S_OK, values_->GetMostRecentValue(&t, &newest));
    EXPECT_EQ(c.vt, newest->value.vt);
    if (c.vt == VT_BSTR) {
      EXPECT_EQ(WString(c.text), WString(newest->value.bstrVal));
    }
    FreeHistoryValue(newest);
  }
}

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
