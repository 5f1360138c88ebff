// Every historian call of a statement failed in turn (a historian code, E_OUTOFMEMORY): the
// consumer gets the failure with a described record, keeps the rows it holds, and nothing
// leaks, no continuation point stays open and no sample is half-written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "SQLParser/TimeConversion.h"
#include "historian/Aggregates.h"
#include "historian/HistorianStore.h"
#include "historian/ReferenceHistorian.h"
#include "tests/session/ConsumerFixture.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"

namespace {

using corvane::test::ConsumerTest;
using corvane::test::LastError;
using Host = corvane::testing::CFaultInjectingHost;
using Op = Host::Op;
using Table = std::vector<std::vector<std::string>>;

constexpr int kOps = static_cast<int>(Op::Count);
// Calls of one operation failed per statement: the first pages are where a read starts,
// turns a page and changes tag; later calls repeat those paths.
constexpr ULONG kMaxCallsPerOp = 6;
// A code of the historian's own that no path of the provider turns into a text.
constexpr HRESULT kHistorianCode = HIST_E_AGGREGATE_NOT_AVAILABLE;

const char* OpName(Op op) {
  static const char* const names[] = {
      "GetTagInfo",  "GetTimeBounds", "BrowseTags",    "GetCapabilities", "ReadRaw", "ReleaseContinuationPoint",
      "InsertValue", "DeleteValues",  "UpdateValue",   "ReadProcessed",   "GetFilteredTagStatistics",
      "GetMostRecentValue", "GetGoodValues", "GetBadValues", "GetAllValues"};
  static_assert(sizeof(names) / sizeof(names[0]) == kOps, "one name per operation");
  return names[static_cast<int>(op)];
}

enum class Answer {
  Fails,   // the failure comes back from Execute or GetNextRows with the host's code
  InText,  // the write procedures answer S_OK with one row naming the code
};

struct Statement {
  const char* name;
  const char* sql;
  Answer answer = Answer::Fails;
  std::vector<Op> readPast = {};  // failures the statement goes on without
  // The worker may read ahead a page the answer does not need: such a read failing may go
  // unreported, provided the answer is whole.
  bool readsAhead = false;
  bool writes = false;  // changes the history when nothing fails
};

void PrintTo(const Statement& s, std::ostream* os) { *os << s.sql; }

// What the consumer saw: the first failure and its records, and every row it holds,
// read through GetData after the last fetch.
struct Outcome {
  HRESULT hr = S_OK;
  bool atExecute = false;
  LastError error;
  Table rows;
};

// The reference historian behind the fault-injecting host, the provider over it with
// one session and one command. Tag "Flow": 0, 10, ..., 90 s with values 1..10 (the one
// at 30 s bad); tag "Level": 5, 15, 25, 35 s. The settings read 2020-01-01 00:00 to
// 01:00 and three values per historian call, so that reads take several pages.
class World {
 public:
  World() {
#ifdef _WIN32
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
#endif
    auto store = std::make_shared<corvane::historian::CHistorianStore>();
    const char* names[] = {"Flow", "Level"};
    for (int t = 0; t < 2; ++t) {
      corvane::historian::TagDefinition tag;
      tag.name = corvane::FromUtf8(names[t]);
      tag.vartype = VT_R8;
      EXPECT_EQ(S_OK, store->AddTag(tag));
      std::vector<corvane::historian::SampleInput> samples;
      for (int i = 0; i < (t == 0 ? 10 : 4); ++i) {
        corvane::historian::SampleInput s;
        s.time = Ticks(t == 0 ? 10 * i : 5 + 10 * i);
        s.number = t == 0 ? i + 1 : 100 + i;
        s.quality = (t == 0 && i == 3) ? OPCUA_BAD : OPCUA_GOOD;
        samples.push_back(s);
      }
      EXPECT_EQ(S_OK, store->AppendSamples(tag.name, samples));
    }
    IAggregates* aggregates = nullptr;
    EXPECT_EQ(S_OK, corvane::historian::CAggregates::CreateInstance(nullptr, IID_IAggregates,
                                                                    reinterpret_cast<void**>(&aggregates)));
    EXPECT_EQ(S_OK, corvane::historian::CReferenceHistorian::Create(store, IID_IRawDataProvider,
                                                                    reinterpret_cast<void**>(&historian_), aggregates));
    if (aggregates) aggregates->Release();
    host_ = Host::Create(historian_);
    corvane::test::OpenProvider(static_cast<IRawDataProvider*>(host_), &dataSource_, &session_);
    IDBCreateCommand* create = session_ ? ConsumerTest::Query<IDBCreateCommand>(session_, IID_IDBCreateCommand) : nullptr;
    if (create) create->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(&command_));
    if (create) create->Release();
    EXPECT_NE(nullptr, command_);
    EXPECT_EQ(S_OK, Run("UPDATE QUERYSETTINGS SET TIMESTAMP_START = '2020-01-01 00:00:00', "
                        "TIMESTAMP_END = '2020-01-01 01:00:00', USE_USER_TIME_RANGE = 1, MAX_ROWS_TO_RETURN = 3")
                        .hr);
  }

  ~World() {
    if (command_) {
      EXPECT_EQ(0u, command_->Release()) << "a rowset kept the command";
    }
    corvane::test::CloseProvider(&dataSource_, &session_);
    EXPECT_EQ(0u, host_->Release()) << "the provider kept a host reference";
    historian_->Release();
#ifdef _WIN32
    CoUninitialize();
#endif
  }

  Host& FaultHost() { return *host_; }

  static ULONGLONG Ticks(int seconds) {
    ULONGLONG base = 0;
    corvane::CalendarToTicks(2020, 1, 1, 0, 0, 0, 0, &base);
    return base + static_cast<ULONGLONG>(seconds) * 10000000ull;
  }

  // Every sample of both tags ("tag time" -> "value quality"), read from the reference
  // historian itself.
  std::map<std::string, std::string> History() {
    std::map<std::string, std::string> samples;
    for (const OLECHAR* name : {OLESTR("Flow"), OLESTR("Level")}) {
      TagIdent tag{const_cast<LPOLESTR>(OLESTR("Plant")), const_cast<LPOLESTR>(OLESTR("Plant")),
                   const_cast<LPOLESTR>(name)};
      void* continuation = nullptr;
      HistoryValueList* list = nullptr;
      EXPECT_EQ(S_OK, historian_->ReadRaw(&tag, corvane::TicksToFileTime(Ticks(-86400)),
                                          corvane::TicksToFileTime(Ticks(86400)), 0, kRawReadIncludeBounds,
                                          &continuation, &list));
      EXPECT_EQ(nullptr, continuation);
      for (ULONG i = 0; list && i < list->count; ++i) {
        const HistoryValue& v = list->values[i];
        VARIANT text;
        VariantInit(&text);
        VariantChangeType(&text, const_cast<VARIANT*>(&v.value), 0, VT_BSTR);
        std::ostringstream key, sample;
        key << corvane::ToUtf8(name) << ' ' << corvane::FileTimeToTicks(v.timestamp);
        sample << (V_VT(&text) == VT_BSTR ? corvane::ToUtf8(V_BSTR(&text)) : std::string("?")) << ' ' << std::hex
               << v.quality;
        samples[key.str()] = sample.str();
        VariantClear(&text);
      }
      FreeHistoryValueList(list);
    }
    return samples;
  }

  // Executes `sql` and fetches two rows at a time, holding every row, until the end or
  // the first failure; then reads every held row as text and releases them.
  Outcome Run(const std::string& sql) {
    Outcome out;
    if (!command_) return out.hr = E_UNEXPECTED, out;
    IUnknown* rowset = nullptr;
    out.hr = command_->SetCommandText(DBGUID_DEFAULT, corvane::FromUtf8(sql).c_str());
    if (SUCCEEDED(out.hr)) out.hr = command_->Execute(nullptr, IID_IRowset, nullptr, nullptr, &rowset);
    if (FAILED(out.hr) || !rowset) {
      out.atExecute = true;
      out.error = ConsumerTest::TakeLastError();
      return out;
    }
    const size_t columns = corvane::test::Columns(rowset).size();
    IAccessor* accessor = ConsumerTest::Query<IAccessor>(rowset, IID_IAccessor);
    IRowset* fetch = ConsumerTest::Query<IRowset>(rowset, IID_IRowset);
    constexpr DBLENGTH kChars = 128;
    struct Cell {
      DBSTATUS status;
      DBLENGTH length;
      OLECHAR text[kChars];
    };
    std::vector<DBBINDING> bindings(columns);
    for (size_t i = 0; i < columns; ++i) {
      DBBINDING& b = bindings[i];
      std::memset(&b, 0, sizeof b);
      b.iOrdinal = i + 1;
      b.obStatus = i * sizeof(Cell) + offsetof(Cell, status);
      b.obLength = i * sizeof(Cell) + offsetof(Cell, length);
      b.obValue = i * sizeof(Cell) + offsetof(Cell, text);
      b.dwPart = DBPART_VALUE | DBPART_LENGTH | DBPART_STATUS;
      b.dwMemOwner = DBMEMOWNER_CLIENTOWNED;
      b.eParamIO = DBPARAMIO_NOTPARAM;
      b.cbMaxLen = sizeof(Cell::text);
      b.wType = DBTYPE_WSTR;
    }
    HACCESSOR handle = DB_NULL_HACCESSOR;
    EXPECT_EQ(S_OK, accessor->CreateAccessor(DBACCESSOR_ROWDATA, columns, bindings.data(), columns * sizeof(Cell),
                                             &handle, nullptr));
    std::vector<HROW> held;
    for (;;) {
      DBCOUNTITEM obtained = 0;
      HROW* handles = nullptr;
      const HRESULT hr = fetch->GetNextRows(DB_NULL_HCHAPTER, 0, 2, &obtained, &handles);
      if (FAILED(hr)) {
        out.hr = hr;
        out.error = ConsumerTest::TakeLastError();
      }
      held.insert(held.end(), handles, handles + obtained);
      CoTaskMemFree(handles);
      if (hr != S_OK || obtained == 0) break;
    }
    std::vector<Cell> buffer(columns);
    for (HROW row : held) {
      EXPECT_EQ(S_OK, fetch->GetData(row, handle, buffer.data())) << "a held row stays readable";
      std::vector<std::string> cells;
      for (const Cell& c : buffer)
        cells.push_back(c.status == DBSTATUS_S_ISNULL ? std::string("<null>") : corvane::ToUtf8(c.text));
      out.rows.push_back(std::move(cells));
    }
    if (!held.empty()) {
      EXPECT_EQ(S_OK, fetch->ReleaseRows(held.size(), held.data(), nullptr, nullptr, nullptr));
    }
    accessor->ReleaseAccessor(handle, nullptr);
    accessor->Release();
    fetch->Release();
    rowset->Release();
    return out;
  }

 private:
  IRawDataProvider* historian_ = nullptr;
  Host* host_ = nullptr;
  IUnknown* dataSource_ = nullptr;
  IOpenRowset* session_ = nullptr;
  ICommandText* command_ = nullptr;
};

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "%X", static_cast<unsigned>(hr));
  return text;
}

class FaultSweep : public corvane::test::LeakCheckedTest, public ::testing::WithParamInterface<Statement> {};

TEST_P(FaultSweep, EveryHostCallFailsInTurn) {
  const Statement& statement = GetParam();
  ULONG made[kOps] = {};
  Outcome clean;
  std::map<std::string, std::string> oldState, newState;
  {
    World world;
    ULONG before[kOps];
    for (int op = 0; op < kOps; ++op) before[op] = world.FaultHost().Calls(static_cast<Op>(op));
    oldState = world.History();
    clean = world.Run(statement.sql);
    ASSERT_EQ(S_OK, clean.hr) << std::hex << clean.hr << " " << clean.error.description;
    EXPECT_EQ(0u, world.FaultHost().OutstandingContinuationPoints());
    for (int op = 0; op < kOps; ++op) made[op] = world.FaultHost().Calls(static_cast<Op>(op)) - before[op];
    newState = world.History();
  }
  EXPECT_EQ(statement.writes, oldState != newState) << "the statement changes the history";

  int points = 0;
  std::ostringstream calls;
  for (int op = 0; op < kOps; ++op) {
    if (made[op]) calls << OpName(static_cast<Op>(op)) << " x" << made[op] << " ";
    for (ULONG n = 1; n <= std::min(made[op], kMaxCallsPerOp); ++n) {
      for (const HRESULT code : {kHistorianCode, E_OUTOFMEMORY}) {
        SCOPED_TRACE(std::string(OpName(static_cast<Op>(op))) + " call " + std::to_string(n) + " fails with " +
                     Hex(code));
        ++points;
        const corvane::platform::AllocCounts baseline = corvane::platform::CurrentAllocCounts();
        {
          World world;
          Host& host = world.FaultHost();
          host.FailCall(static_cast<Op>(op), host.Calls(static_cast<Op>(op)) + n, code);
          const Outcome got = world.Run(statement.sql);
          const bool readPast = std::count(statement.readPast.begin(), statement.readPast.end(),
                                           static_cast<Op>(op)) != 0;
          if (readPast || (statement.readsAhead && got.hr == S_OK)) {
            EXPECT_EQ(S_OK, got.hr) << std::hex << got.hr;
            EXPECT_EQ(clean.rows, got.rows);
          } else if (statement.answer == Answer::InText) {
            EXPECT_EQ(S_OK, got.hr) << std::hex << got.hr;
            ASSERT_EQ(1u, got.rows.size());
            EXPECT_NE(std::string::npos, got.rows[0][0].find("(" + Hex(code) + ")")) << got.rows[0][0];
          } else {
            EXPECT_EQ(code, got.hr) << std::hex << got.hr << (got.atExecute ? " from Execute" : " from GetNextRows");
            EXPECT_GE(got.error.count, 1u) << "an error record describes the failure";
#ifndef _WIN32
            EXPECT_FALSE(got.error.description.empty());
#endif
            // What was delivered before the failure is the start of the full answer.
            ASSERT_LE(got.rows.size(), clean.rows.size());
            for (size_t r = 0; r < got.rows.size(); ++r) EXPECT_EQ(clean.rows[r][0], got.rows[r][0]) << "row " << r;
          }
          // A release the host refused leaves the point the host's, not lost by the provider.
          if (static_cast<Op>(op) != Op::ReleaseContinuationPoint) {
            EXPECT_EQ(0u, world.FaultHost().OutstandingContinuationPoints()) << "a continuation point was left open";
          }
          // Each sample holds its old state or its new one, never anything else.
          std::map<std::string, std::string> state = world.History();
          std::set<std::string> keys;
          for (const auto* m : {&oldState, &newState, &state})
            for (const auto& entry : *m) keys.insert(entry.first);
          for (const std::string& key : keys) {
            auto in = [&key](const std::map<std::string, std::string>& m) {
              auto it = m.find(key);
              return it == m.end() ? std::string("<absent>") : it->second;
            };
            EXPECT_TRUE(in(state) == in(oldState) || in(state) == in(newState))
                << key << " holds " << in(state) << ", was " << in(oldState) << ", would be " << in(newState);
          }
        }
        ExpectNothingOutstandingSince(baseline);
      }
    }
  }
  RecordProperty("fault_points", points);
  std::printf("[ sweep    ] %s: %s-> %d fault points\n", statement.name, calls.str().c_str(), points);
}

INSTANTIATE_TEST_SUITE_P(
    Statements, FaultSweep,
    ::testing::Values(
        Statement{"RawDataEveryTag", "SELECT * FROM RAWDATA"},
        Statement{"RawDataDouble", "SELECT TAGNAME, VALUE FROM RAWDATA_DOUBLE WHERE TAGNAME = 'Flow' AND "
                                   "TIMESTAMP >= '2020-01-01 00:00:20'"},
        Statement{"RawDataTop", "SELECT TOP 2 VALUE FROM RAWDATA WHERE TAGNAME = 'Flow'", Answer::Fails,
                  {Op::ReleaseContinuationPoint}, true},
        Statement{"Tags", "SELECT * FROM TAGS"},
        Statement{"QuerySettings", "SELECT * FROM QUERYSETTINGS"},
        Statement{"GetValues", "EXEC GET_VALUES '2020-01-01 00:00:00', '2020-01-01 00:01:30', 0, 'Flow'"},
        Statement{"MostRecent", "EXEC GET_MOST_RECENT_VALUE 'Level'"},
        Statement{"SpRawData", "EXEC SP_RAWDATA '2020-01-01 00:00:00', '2020-01-01 00:01:30', 'Flow;Level'"},
        Statement{"HdaAnalog", "EXEC HDA_ANALOG '2020-01-01 00:00:00', '2020-01-01 00:01:30', 10000, 'Flow'",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"HdaQuality5", "EXEC HDA_QUALITY_5 '2020-01-01 00:00:00', '2020-01-01 00:01:00', 20000, 'Flow', "
                                 "'Level', '', 'Flow', 'Level'",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"FilteredStatistics",
                  "EXEC GET_FILTERED_TAG_STATISTICS '*', '', '', '2020-01-01 00:00:00', '2020-01-01 00:01:30', 1",
                  Answer::Fails, {Op::GetCapabilities}},
        Statement{"RawDataInsertProcedure", "EXEC RAWDATA_INSERT 'Flow', '2020-01-01 00:00:05', '2.5', 192",
                  Answer::InText, {}, false, true},
        Statement{"RawDataUpdateProcedure", "EXEC RAWDATA_UPDATE 'Flow', '2020-01-01 00:00:10', '7.25', 0",
                  Answer::InText, {}, false, true},
        Statement{"Insert", "INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES "
                            "('Flow', '2020-01-01 00:00:05', 2.5, 192)",
                  Answer::Fails, {}, false, true},
        Statement{"Update", "UPDATE RAWDATA SET VALUE = 42 WHERE TAGNAME = 'Flow' AND "
                            "TIMESTAMP = '2020-01-01 00:00:10'",
                  Answer::Fails, {}, false, true},
        Statement{"Delete", "DELETE FROM RAWDATA WHERE TAGNAME = 'Flow' AND TIMESTAMP >= '2020-01-01 00:00:20' AND "
                            "TIMESTAMP <= '2020-01-01 00:00:40' OR TAGNAME = 'Level' AND VALUE >= 0 AND "
                            "TIMESTAMP >= '2020-01-01 00:00:20' AND TIMESTAMP <= '2020-01-01 00:00:40'",
                  Answer::Fails, {}, false, true}),
    [](const ::testing::TestParamInfo<Statement>& info) { return std::string(info.param.name); });

}  // namespace
