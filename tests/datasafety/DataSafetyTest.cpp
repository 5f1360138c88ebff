// Random DELETE and UPDATE statements against an independent change model; the fixed
// cases of what a change may touch are in tests/cases/datasafety.test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <regex>

#include "SQLParser/SQLParser.h"
#include "SQLParser/TimeConversion.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/datasafety/ChangeModel.h"

namespace corvane::test {

constexpr HRESULT kRefused = static_cast<HRESULT>(0x8004C004L);

using DataSafety = LeakCheckedTest;

// Random statements from the accepted and the refused forms, `?` included. After each one either it failed and the
// historian is unchanged, or the historian holds what the change model computes by evaluating the condition on every
// sample; the plainly accepted forms must succeed and a reversed range must be refused. CORVANE_PROPERTY_SEED=n replays
// the run that printed seed n.
TEST_F(DataSafety, RandomChangesLeaveWhatTheModelComputes) {
  SqlConsumer consumer;
  for (const OLECHAR* name : {OLESTR("A"), OLESTR("B")}) {
    historian::TagDefinition tag;
    tag.name = name;
    ASSERT_EQ(S_OK, consumer.Store().AddTag(tag));
  }
  consumer.Open("Use Timestamps=true;Timestamp Start=2024-01-01 00:00:00;Timestamp End=2024-01-02 00:00:00");
  const char* fixed = std::getenv("CORVANE_PROPERTY_SEED");
  const unsigned seed = fixed ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10)) : std::random_device()();
  std::mt19937 random(seed);
  auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  static const char* const kOps[] = {"=", ">", ">=", "<", "<=", "<>"};
  int accepted = 0;
  for (int round = 0; round < 2000 && !HasFailure(); ++round) {
    // Ten samples a tag, value 10 x the second; every third uncertain, every fifth bad.
    for (const OLECHAR* name : {OLESTR("A"), OLESTR("B")}) {
      consumer.Store().Delete(name, 0, 0x7FFFFFFFFFFFFFFFull);
      ASSERT_EQ(S_OK, consumer.Store().AppendGenerated(name, 10, [](size_t i, historian::SampleInput& s) {
        CalendarToTicks(2024, 1, 1, 0, 0, static_cast<int>(i), 0, &s.time);
        s.number = 10.0 * static_cast<double>(i);
        s.quality = i % 5 == 4 ? 0x80000000u : (i % 3 == 0 ? 0x40000000u : 192);
      }));
    }
    std::vector<std::string> texts;  // the `?` values, in order
    bool mustAccept = true, anyTag = false, anyBound = false, forceRefused = false;
    int low = -1, high = 1000;  // written bounds of the one conjunction, in tenths of a second
    auto term = [&](int slot, bool negated) -> std::string {
      // Mostly a tag first and a time second, as written in practice; anything anywhere.
      const int kind = slot == 0 && pick(10) < 8 ? 0 : slot == 1 && pick(10) < 8 ? 1 : pick(5);
      const bool usual = slot < 2 && pick(10) < 7;
      const int k = pick(10), op = usual ? pick(5) : pick(6);
      const std::string at = "@" + std::to_string(k);
      switch (kind) {
        case 0: {  // tags
          static const char* const kTags[] = {"TAGNAME = 'A'", "TAGNAME = 'b'", "TAGNAME = ?", "TAGNAME <> 'A'",
                                              "TAGNAME = 'Nope'"};
          const int t = usual ? pick(3) : pick(5);
          if (t == 2) texts.push_back(pick(2) ? "A" : "B");
          if (!negated && t < 3) anyTag = true;
          if (!negated && t == 4) mustAccept = false;
          return kTags[t];
        }
        case 1: {  // times
          const int form = usual ? pick(5) : pick(7);
          const int from = pick(10);
          if (form == 5) mustAccept = false;  // the zero timestamp, refused even under NOT
          if (form == 3 && from > k) forceRefused = true;  // a reversed BETWEEN, refused even under NOT
          const int tenths = form == 6 ? 35 : 10 * k;  // bounds in tenths of a second
          if (!negated && form == 3) {
            anyBound = true;
            low = std::max(low, 10 * from);
            high = std::min(high, tenths);
          } else if (!negated && op < 5 && form != 5) {
            anyBound = true;
            const bool lower = form == 1 ? op == 3 || op == 4 : op == 1 || op == 2;  // `@k < TIMESTAMP` mirrors
            if (op == 0 || lower) low = std::max(low, tenths);
            if (op == 0 || !lower) high = std::min(high, tenths);
          }
          if (form == 2) texts.push_back("2024-01-01 00:00:0" + std::to_string(k));
          switch (form) {
            case 0: return std::string("TIMESTAMP ") + kOps[op] + " " + at;
            case 1: return at + " " + kOps[op] + " TIMESTAMP";
            case 2: return std::string("TIMESTAMP ") + kOps[op] + " ?";
            case 3: return "TIMESTAMP BETWEEN @" + std::to_string(from) + " AND " + at;
            case 4: return "TIMESTAMP " + std::string(kOps[op]) + " DATEADD('ss', " + std::to_string(k) + ", @0)";
            case 5: return "TIMESTAMP > DATEADD('hour', 1, @0)";
            default: return "TIMESTAMP " + std::string(kOps[op]) + " '2024-01-01 00:00:03.5'";
          }
        }
        case 2:
          if (pick(3) == 0) {
            texts.push_back(std::to_string(pick(12) * 10 - 5));
            return std::string("VALUE ") + kOps[op] + " ?";
          }
          return pick(4) ? std::string("VALUE ") + kOps[op] + " " + std::to_string(pick(12) * 10 - 5)
                         : "VALUE BETWEEN " + std::to_string(pick(10) * 10) + " AND " + std::to_string(pick(10) * 10);
        case 3: {
          static const char* const kQualities[] = {"0", "192", "1073741824", "2147483648"};
          return std::string("QUALITY ") + kOps[op] + " " + kQualities[pick(4)];
        }
        default:
          return pick(2) ? "IsGood(QUALITY) = " + std::to_string(pick(2)) : "BitMask('&', 192, QUALITY) = 192";
      }
    };
    std::string where;
    const int conjunctions = pick(10) < 7 ? 1 : 2;
    if (conjunctions > 1) mustAccept = false;
    for (int c = 0; c < conjunctions; ++c) {
      const int terms = 1 + pick(4);
      for (int t = 0; t < terms; ++t) {
        const bool negated = pick(5) == 0;
        where += (t ? " AND " : (c ? " OR " : "")) + std::string(negated ? "NOT " : "") + term(t, negated);
      }
    }
    const bool reversed = forceRefused || (conjunctions == 1 && low > high);
    mustAccept = mustAccept && anyTag && anyBound && !reversed;
    std::string sql;
    switch (pick(4)) {
      case 0: sql = "UPDATE RAWDATA SET VALUE = " + std::to_string(pick(100)); break;
      case 1: sql = "UPDATE RAWDATA SET QUALITY = " + std::to_string(pick(300)); break;
      case 2: sql = "UPDATE RAWDATA SET VALUE = -1, QUALITY = 7"; break;
      default: sql = "DELETE FROM RAWDATA"; break;
    }
    // `@5` stands for '2024-01-01 00:00:05'.
    sql = std::regex_replace(sql + " WHERE " + where, std::regex("@([0-9])"), "'2024-01-01 00:00:0$1'");
    std::vector<Parameter> given;
    for (const std::string& text : texts) given.push_back({"", text});
    SCOPED_TRACE("CORVANE_PROPERTY_SEED=" + std::to_string(seed) + ", statement " + std::to_string(round) + ": " + sql);
    const ModelStore before = ReadStore(&consumer.Host());
    const Outcome got = consumer.Run(sql, given);
    const ModelStore after = ReadStore(&consumer.Host());
    if (FAILED(got.hr)) {
      EXPECT_TRUE(before == after) << got.error.description;
      EXPECT_FALSE(mustAccept) << std::hex << got.hr << " " << got.error.description;
    } else {
      ++accepted;
      EXPECT_FALSE(reversed);
      const WString text = FromUtf8(sql);
      std::unique_ptr<CSQLQueryInfo> query;
      ModelStore expected;
      ASSERT_EQ(S_OK, CSQLParser::ParseQuery({OLESTR("plant"), OLESTR("main"), text}, &query));
      if (ApplyChange(*query, texts, before, &expected)) {
        EXPECT_TRUE(expected == after) << "expected\n" << Describe(expected) << "found\n" << Describe(after);
      }
    }
    if (reversed) {
      EXPECT_EQ(kRefused, got.hr) << got.error.description;
    }
  }
  EXPECT_GT(accepted, 250) << "seed " << seed;  // the accepted forms are exercised, not only refusals
  EXPECT_EQ(0u, consumer.Host().OutstandingContinuationPoints());
}

}  // namespace corvane::test
