#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>

#include "historian/CsvLoader.h"
#include "historian/DemoPlant.h"
#include "tests/historian/HistorianTestUtil.h"

namespace corvane::historian::test {
namespace {

using namespace std::string_literals;

const HRESULT kInvalidData = static_cast<HRESULT>(0x8007000DL);

using CsvAccepted = HistorianFixture;
using CsvRejected = HistorianFixture;

TEST_F(CsvAccepted, QuotingTypesTimestampsAndQualities) {
  const char text[] =
      "\xEF\xBB\xBFTag, Timestamp ,VALUE,quality,vartype\r\n"
      "Flow,2024-01-01 00:00:00,1.5,,\r\n"
      "Flow,2024-01-01T00:00:01.25Z,-2e3,0x40000000,\r\n"
      "\r\n"
      "\"Note, free\",2024-01-01T00:00:02,\"He said \"\"hi\"\"\r\nsecond line\",192,\n"
      "Count,2024-01-01 00:00:03.1234567,7,0,VT_I4\n"
      "Count,2024-01-01 00:00:04,+8,0,\n"
      "Flag,2024-01-01 00:00:05,TRUE,0,vt_bool\n"
      "Label,2024-01-01 00:00:06,12,0,VT_BSTR\n"
      "Existing,2024-01-01 00:00:07, 5 ,3,";
  TagDefinition existing;
  existing.name = OLESTR("Existing");
  existing.vartype = VT_I2;
  ASSERT_EQ(S_OK, store_->AddTag(existing));
  CsvLoadReport report;
  ASSERT_EQ(S_OK, CCsvLoader::LoadText(*store_, text, OLESTR("plant.csv"), &report)) << ToUtf8(report.error);
  EXPECT_EQ(8u, report.samples);
  EXPECT_EQ(5u, report.newTags);

  // Each tag's samples as "TYPE@seconds=value/quality" ('text' for texts); a number on a
  // tag's first line makes it R8, a later line keeps the first line's type.
  const std::pair<const OLECHAR*, const char*> expected[] = {
      {OLESTR("flow"), "5@0=1.5/0 5@1.25=-2000/40000000"},
      {OLESTR("Note, free"), "8@2='He said \"hi\"\r\nsecond line'/C0"},
      {OLESTR("Count"), "3@3.1234567=7/0 3@4=8/0"},
      {OLESTR("Flag"), "11@5=-1/0"},
      {OLESTR("Label"), "8@6='12'/0"},
      {OLESTR("Existing"), "2@7=5/3"}};
  for (const auto& [tag, samples] : expected) {
    std::string got;
    for (const Sample& s : Dump(*store_, tag)) {
      char text[64];
      std::snprintf(text, sizeof text, "%u@%.8g=%g/%X", unsigned(s.vt), double(s.time - kT0) / kSecond, s.value,
                    unsigned(s.quality));
      std::string one = text;
      if (s.vt == VT_BSTR) one.replace(one.find('=') + 1, one.find('/') - one.find('=') - 1, "'" + ToUtf8(s.text) + "'");
      got += (got.empty() ? "" : " ") + one;
    }
    EXPECT_EQ(samples, got) << ToUtf8(tag);
  }
}

TEST_F(CsvAccepted, TimestampForms) {
  ULONGLONG t = 0;
  // 2024-02-29 is day 31 + 28 = 59 after 2024-01-01.
  ASSERT_TRUE(CCsvLoader::ParseTimestamp("2024-02-29 12:34:56.789", &t));
  EXPECT_EQ(kT0 + (59 * 86400ull + 12 * 3600 + 34 * 60 + 56) * kSecond + 7890000, t);
  ASSERT_TRUE(CCsvLoader::ParseTimestamp("1601-01-01T00:00:00Z", &t));
  EXPECT_EQ(0u, t);
  ASSERT_TRUE(CCsvLoader::ParseTimestamp("2000-02-29T23:59:59.9999999", &t));
  for (const char* bad : {"2023-02-29 00:00:00", "1900-02-29 00:00:00", "1600-12-31 23:59:59", "2024-01-01 00:00",
                          "2024-01-01 24:00:00", "2024-01-01 00:00:60", "2024-1-01 00:00:00", "2024-01-01 00:00:00.",
                          "2024-01-01 00:00:00Z", "2024-01-01T00:00:00+01:00", "2024-01-01T00:00:00.12345678",
                          "2024-04-31T00:00:00"})
    EXPECT_FALSE(CCsvLoader::ParseTimestamp(bad, &t)) << bad;
}

TEST_F(CsvRejected, EachProblemWithItsLineAndNothingLoaded) {
  TagDefinition existing;
  existing.name = OLESTR("Existing");
  existing.vartype = VT_I2;
  ASSERT_EQ(S_OK, store_->AddTag(existing));
  ASSERT_EQ(S_OK, store_->AppendSamples(OLESTR("Existing"), {SampleInput{kT0, 0, 0, 1, {}}}));
  const std::string head = "tag,timestamp,value,quality\nA,2024-01-01 00:00:00,1,0\n";
  const std::string head5 = "tag,timestamp,value,quality,vartype\nA,2024-01-01 00:00:00,1,0,\n";
  struct Case { std::string text; size_t line; const char* reason; } cases[] = {
      {"", 0, "no header line"},
      {"tag,time,value,quality\nA,2024-01-01 00:00:00,1,0\n", 1, "header"},
      {head + "A,2024-01-01 00:00:01,1\n", 3, "expected 4 fields, found 3"},
      {head + "A,2024-01-01 00:00:01,1,0xZZ\n", 3, "invalid quality '0xZZ'"},
      {head + "Existing,2024-01-01 00:00:01,abc,0\n", 3, "value 'abc' is not a VT_I2"},
      {head + "Existing,2024-01-01 00:00:01,40000,0\n", 3, "out of range for VT_I2"},
      {head5 + "A,2024-01-01 00:00:01,1,0,VT_I4\n", 3, "tag 'A' is VT_R8, not VT_I4"},
      {head + "A,2024-01-01 00:00:01,\"abc,0\nB,2024-01-01 00:00:01,1,0\n", 3, "unterminated quoted field"},
      {head + "\"multi\nline\",2024-01-01 00:00:01,x,0\nA,2024-13-01 00:00:00,1,0\n", 5, "invalid timestamp"},
      {head + "Existing,2024-01-01 00:00:00,2,0\n", 3, "already has a sample"},
      {head + ",2024-01-01 00:00:01,1,0\n", 3, "empty tag name"},
      {head + "A,2024-01-01 00:00:01,ab\"c,0\n", 3, "quote inside an unquoted field"},
      {head + "A,2024-01-01 00:00:01,\"x\"y,0\n", 3, "after a closing quote"},
      {head + "B,2024-01-01 00:00:01,\xC3\x28,0\n", 3, "invalid UTF-8"},
      // A NUL would cut the field short; invisible characters are named in messages.
      {"tag,time\0stamp,value,quality\n"s, 1, "NUL byte in field 2"},
      {head + "\"multi\nline\",2024-01-01 00:00:01,\"a\0b\",0\n"s, 3, "NUL byte in field 3"},
      {head + "A,2024-01-01 00:00:01,1,1\xFF\r", 3, "invalid quality '1\\xFF\\r'"},
      {head + "A,\xEF\xBB\xBF" "2024-01-01\t00:00:01,1,0\n", 3, "invalid timestamp '\\uFEFF2024-01-01\\t00:00:01'"},
      {head5 + "A,2024-01-01 00:00:01,1,0,VT_R8\xC2\xA0\x01\n", 3, "unknown vartype 'VT_R8\\u00A0\\x01'"},
      {head + "A,2024-01-01 00:00:01,1\xE2\x80\x8B\xF0\x9F\x98\x80,0\n", 3, "value '1\\u200B\xF0\x9F\x98\x80' is not"},
  };
  const size_t samples = store_->SampleCount(), tags = store_->TagCount();
  for (const Case& c : cases) {
    CsvLoadReport report;
    EXPECT_EQ(kInvalidData, CCsvLoader::LoadText(*store_, c.text, OLESTR("bad.csv"), &report)) << c.reason;
    EXPECT_EQ(c.line, report.errorLine) << c.reason;
    const std::string message = ToUtf8(report.error);
    const std::string where = c.line ? "bad.csv:" + std::to_string(c.line) + ": " : "bad.csv: ";
    EXPECT_EQ(0u, message.find(where)) << message;
    EXPECT_NE(std::string::npos, message.find(c.reason)) << message;
    EXPECT_EQ(samples, store_->SampleCount()) << c.reason;
    EXPECT_EQ(tags, store_->TagCount()) << c.reason;
  }
}


// A file is read a block at a time: records that straddle blocks (a quoted text with line breaks, a CRLF split in two,
// a long tag name) load as from memory, a refused sample is named by its line when the file has to be read again to
// find it, and a missing file is named in the error.
TEST_F(CsvAccepted, AFileLoadsInBlocksAsTextLoadsWhole) {
  std::string text = "tag,timestamp,value,quality\r\n";
  const std::string longName(300, 'L');
  for (int i = 0; i < 60000; ++i) {
    char time[32];
    std::snprintf(time, sizeof time, "2024-01-01 %02d:%02d:%02d", i / 3600, i / 60 % 60, i % 60);
    text += std::string("Flow,") + time + "," + std::to_string(i) + ".5,192\r\n";
    if (i % 7 == 0) text += std::string("\"Note\",") + time + ",\"line " + std::to_string(i) + "\r\nnext, \"\"quoted\"\"\",0\n";
    if (i % 1000 == 0) text += longName + "," + time + ",1,0\n";
  }
  ASSERT_GT(text.size(), 2u << 20);  // three blocks and more
  // A name of this run's own: builds in other checkouts run this test at the same time.
  const std::string path = ::testing::TempDir() + "corvane_csv_blocks_" +
                           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ".csv";
  auto write = [&](const std::string& contents) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    std::fwrite(contents.data(), 1, contents.size(), f);
    std::fclose(f);
  };
  write(text);
  CHistorianStore fromText;
  CsvLoadReport report;
  ASSERT_EQ(S_OK, CCsvLoader::LoadText(fromText, text, OLESTR("blocks.csv"), &report)) << ToUtf8(report.error);
  ASSERT_EQ(S_OK, CCsvLoader::LoadFile(*store_, path, &report)) << ToUtf8(report.error);
  EXPECT_EQ(60000u + 60000 / 7 + 1 + 60000 / 1000, report.samples);
  for (const WString& tag : {WString(OLESTR("Flow")), WString(OLESTR("Note")), FromUtf8(longName)})
    EXPECT_TRUE(Dump(fromText, tag) == Dump(*store_, tag)) << ToUtf8(tag);
  EXPECT_EQ(WString(OLESTR("line 7\r\nnext, \"quoted\"")), Dump(*store_, OLESTR("Note"))[1].text);

  write(text + "Flow,2024-01-01 10:00:00,1,0\n");
  const size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  CHistorianStore fresh;
  EXPECT_EQ(kInvalidData, CCsvLoader::LoadFile(fresh, path, &report));
  EXPECT_EQ(lines, report.errorLine);
  EXPECT_NE(std::string::npos, ToUtf8(report.error).find("tag 'Flow' already has a sample at that time"));
  EXPECT_EQ(0u, fresh.SampleCount());
  std::remove(path.c_str());
  EXPECT_EQ(static_cast<HRESULT>(0x80070002L), CCsvLoader::LoadFile(fresh, path, &report));
  EXPECT_NE(WString::npos, report.error.find(FromUtf8(path)));
}

using DemoPlant = HistorianFixture;

// A seeded week of every type and quality with gaps, the same for the same seed.
TEST_F(DemoPlant, SeededWeekOfEveryTypeQualityAndGaps) {
  DemoPlantOptions options;
  options.now = kT0 + 123456 * kSecond / 10;  // not on any sample period
  options.seed = 7;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(*store_, options));
  CHistorianStore again, other;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(again, options));
  EXPECT_EQ(static_cast<HRESULT>(0x800700B7L), CDemoPlant::Populate(again, options));
  options.seed = 8;
  ASSERT_EQ(S_OK, CDemoPlant::Populate(other, options));
  const auto& tags = CDemoPlant::Tags();
  EXPECT_EQ(tags.size(), store_->TagCount());
  size_t differing = 0;
  std::set<VARTYPE> types;
  bool uncertain = false, bad = false, gap = false;
  for (const auto& tag : tags) {
    const std::vector<Sample> points = Dump(*store_, tag.definition.name);
    ASSERT_FALSE(points.empty());
    EXPECT_TRUE(points == Dump(again, tag.definition.name)) << ToUtf8(tag.definition.name);
    differing += !(points == Dump(other, tag.definition.name));
    types.insert(tag.definition.vartype);
    EXPECT_GE(points.front().time, options.now - 7 * 86400 * kSecond) << ToUtf8(tag.definition.name);
    EXPECT_LE(points.back().time, options.now);
    EXPECT_GT(points.back().time, options.now - tag.periodSeconds * kSecond);
    for (size_t i = 0; i < points.size(); ++i) {
      EXPECT_EQ(tag.definition.vartype, points[i].vt);
      uncertain |= (points[i].quality >> 30) == 1;
      bad |= (points[i].quality >> 30) == 2;
      if (i) gap |= points[i].time - points[i - 1].time >= 3600 * kSecond;
    }
  }
  EXPECT_GE(differing, tags.size() - 1) << "only the shift roster does not depend on the seed";
  EXPECT_EQ((std::set<VARTYPE>{VT_R8, VT_R4, VT_I1, VT_I2, VT_I4, VT_I8, VT_UI1, VT_UI2, VT_UI4, VT_UI8, VT_BOOL,
                               VT_BSTR}),
            types);
  EXPECT_TRUE(uncertain && bad && gap);
}

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
