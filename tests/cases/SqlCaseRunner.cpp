// Runs the plain-text SQL case files of this directory (*.test, described in README.md
// here) through OLE DB as a consumer does. Each case is one test, named after its file
// and line; the cases of a file run in order against one historian and one connection,
// which are checked for leaks when the file's last case ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/cases/SqlConsumer.h"

namespace corvane::test {
namespace {

struct Line {
  int number = 0;
  std::string text;
};

struct Case {
  std::string path;
  int line = 0;
  std::vector<Line> setup;  // directives that come before the statement, in order
  std::vector<std::string> header;
  std::vector<Line> parameters;
  std::string sql;
  std::vector<Line> expected;
  std::vector<std::pair<Line, std::vector<Line>>> checks;  // after it, with their block
};

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::string Trim(const std::string& s) {
  const size_t a = s.find_first_not_of(" \t\r");
  return a == std::string::npos ? std::string() : s.substr(a, s.find_last_not_of(" \t\r") - a + 1);
}

// The text after the first `n` words.
std::string After(const std::string& text, size_t n) {
  size_t at = 0;
  for (size_t i = 0; i < n; ++i) {
    at = text.find_first_not_of(" \t", at);
    at = at == std::string::npos ? text.size() : text.find_first_of(" \t", at);
    if (at == std::string::npos) return {};
  }
  return Trim(text.substr(at));
}

std::vector<std::string> Cells(const std::string& line, char separator) {
  std::vector<std::string> cells;
  std::string cell;
  bool quoted = false;
  for (char c : line) {
    if (c == '"' && separator == ',') {
      quoted = !quoted;
    } else if (c == separator && !quoted) {
      cells.push_back(Trim(cell));
      cell.clear();
    } else {
      cell += c;
    }
  }
  cells.push_back(Trim(cell));
  for (auto& c : cells)
    if (c == "<empty>") c.clear();
  return cells;
}

Rows Table(const std::vector<Line>& lines, size_t from = 0) {
  Rows rows;
  for (size_t i = from; i < lines.size(); ++i) rows.push_back(Cells(lines[i].text, '|'));
  return rows;
}

std::string Show(const Rows& rows) {
  std::string text;
  for (size_t i = 0; i < rows.size() && i < 60; ++i) {
    text += "    ";
    for (size_t c = 0; c < rows[i].size(); ++c) text += (c ? " | " : "") + (rows[i][c].empty() ? "<empty>" : rows[i][c]);
    text += "\n";
  }
  if (rows.size() > 60) text += "    ... " + std::to_string(rows.size() - 60) + " more\n";
  return text;
}

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(hr));
  return text;
}

bool ParseHex(const std::string& text, HRESULT* hr) {
  char* end = nullptr;
  const unsigned long value = std::strtoul(text.c_str(), &end, 16);
  *hr = static_cast<HRESULT>(value);
  return !text.empty() && end && *end == '\0';
}

const std::pair<const char*, DBTYPE> kTypes[] = {
    {"I2", DBTYPE_I2},     {"I4", DBTYPE_I4},       {"R4", DBTYPE_R4},          {"R8", DBTYPE_R8},
    {"BSTR", DBTYPE_BSTR}, {"BOOL", DBTYPE_BOOL},   {"VARIANT", DBTYPE_VARIANT}, {"I1", DBTYPE_I1},
    {"UI1", DBTYPE_UI1},   {"UI2", DBTYPE_UI2},     {"UI4", DBTYPE_UI4},         {"I8", DBTYPE_I8},
    {"UI8", DBTYPE_UI8},   {"WSTR", DBTYPE_WSTR},   {"STR", DBTYPE_STR},         {"DATE", DBTYPE_DATE},
    {"DBTIMESTAMP", DBTYPE_DBTIMESTAMP}};

std::string TypeName(DBTYPE type) {
  for (const auto& t : kTypes)
    if (t.second == type) return t.first;
  return std::to_string(type);
}

const std::pair<const char*, VARTYPE> kTagTypes[] = {
    {"R8", VT_R8}, {"R4", VT_R4},   {"I1", VT_I1},   {"I2", VT_I2},     {"I4", VT_I4},     {"I8", VT_I8},
    {"UI1", VT_UI1}, {"UI2", VT_UI2}, {"UI4", VT_UI4}, {"UI8", VT_UI8}, {"BOOL", VT_BOOL}, {"BSTR", VT_BSTR}};

// Sample times are seconds after this moment.
ULONGLONG BaseTicks() {
  const SYSTEMTIME base{2020, 1, 3, 1, 0, 0, 0, 0};
  FILETIME ft{};
  SystemTimeToFileTime(&base, &ft);
  return FileTimeToU64(ft);
}

// Reads a case file into its cases; a line it cannot place is reported in `error`.
std::vector<Case> ParseFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  std::vector<Line> lines;
  int number = 0;
  for (std::string text; std::getline(in, text);) {
    ++number;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (Trim(text).rfind("#", 0) == 0) continue;
    lines.push_back({number, text});
  }
  if (!in.eof() && lines.empty()) *error = "cannot read " + path;
  std::vector<Case> cases;
  std::vector<Line> setup;
  // The lines up to the next blank one, or up to the next check after a statement.
  size_t i = 0;
  auto block = [&lines, &i](bool toCheck) {
    std::vector<Line> out;
    for (++i; i < lines.size() && !Trim(lines[i].text).empty(); ++i) {
      const std::vector<std::string> words = Words(lines[i].text);
      if (toCheck && (words[0] == "calls" || words[0] == "trace" || words[0] == "notrace" || words[0] == "contents"))
        break;
      out.push_back(lines[i]);
    }
    return out;
  };
  while (i < lines.size() && error->empty()) {
    const Line& line = lines[i];
    const std::vector<std::string> words = Words(line.text);
    if (words.empty()) {
      ++i;
    } else if (words[0] == "tag" || words[0] == "provider" || words[0] == "host" || words[0] == "fail") {
      setup.push_back(line);
      ++i;
    } else if (words[0] == "samples") {
      for (Line& sample : block(false)) setup.push_back({sample.number, "sample " + sample.text});
    } else if (words[0] == "statement" || words[0] == "query") {
      Case c;
      c.path = path;
      c.line = line.number;
      c.setup.swap(setup);
      c.header = words;
      bool result = false;
      for (Line& body : block(true)) {
        if (result) {
          c.expected.push_back(body);
        } else if (Trim(body.text) == "----") {
          result = true;
        } else if (Trim(body.text).rfind("? ", 0) == 0) {
          c.parameters.push_back(body);
        } else {
          c.sql += (c.sql.empty() ? "" : "\n") + body.text;
        }
      }
      if (c.sql.empty()) *error = path + ":" + std::to_string(line.number) + ": no statement";
      cases.push_back(std::move(c));
    } else if ((words[0] == "calls" || words[0] == "trace" || words[0] == "notrace" || words[0] == "contents") &&
               !cases.empty() && setup.empty()) {
      std::vector<Line> contents = words[0] == "contents" ? block(false) : std::vector<Line>();
      if (words[0] != "contents") ++i;
      cases.back().checks.emplace_back(line, contents);
    } else {
      *error = path + ":" + std::to_string(line.number) + ": cannot place '" + line.text + "'";
    }
  }
  if (!setup.empty() && error->empty())
    *error = path + ":" + std::to_string(setup[0].number) + ": directives after the last statement";
  return cases;
}

// One file's historian and connection, shared by its cases in order.
struct FileRun {
  std::unique_ptr<SqlConsumer> consumer;
#ifndef CORVANE_CONSUMER_OF_DLL
  std::unique_ptr<TraceCapture> trace;
#endif
  platform::AllocCounts baseline{};
  std::string providerString;
  size_t next = 0;  // the case to run next

  void Start() {
    baseline = platform::CurrentAllocCounts();
    consumer = std::make_unique<SqlConsumer>();
#ifndef CORVANE_CONSUMER_OF_DLL
    trace = std::make_unique<TraceCapture>(TRACE_DETAIL);
#endif
  }
  void Finish() {
    EXPECT_EQ(0u, consumer->Host().OutstandingContinuationPoints()) << "a continuation point was left open";
    consumer.reset();
#ifndef CORVANE_CONSUMER_OF_DLL
    trace.reset();
#endif
    providerString.clear();
    next = 0;
    LeakCheckedTest::ExpectNothingOutstandingSince(baseline);
  }
};

std::map<std::string, FileRun>& Runs() {
  static std::map<std::string, FileRun> runs;
  return runs;
}

class CaseTest : public ::testing::Test {
 public:
  CaseTest(const std::vector<Case>* cases, size_t index) : cases_(cases), index_(index) {}

  void TestBody() override {
    FileRun& run = Runs()[(*cases_)[index_].path];
    if (run.next > index_) run.Finish();
    if (!run.consumer) run.Start();
    // Cases left out by a filter still set the scene for this one.
    for (; run.next < index_; ++run.next) Execute((*cases_)[run.next], run, false);
    Execute((*cases_)[index_], run, true);
    ++run.next;
    if (index_ + 1 == cases_->size()) run.Finish();
  }

 private:
  void Execute(const Case& c, FileRun& run, bool check) {
    const std::string at = c.path + ":" + std::to_string(c.line);
    for (const Line& line : c.setup) Apply(c.path, line, run);
    if (!run.consumer->IsOpen()) run.consumer->Open(run.providerString);
    std::vector<Parameter> parameters;
    for (const Line& p : c.parameters) {
      const std::vector<std::string> words = Words(p.text);
      Parameter parameter;
      if (words.size() >= 3 && words[1].rfind("DBTYPE_", 0) == 0) parameter.type = words[1];
      parameter.value = After(p.text, parameter.type.empty() ? 1 : 2);
      parameter.null = parameter.value == "<null>";
      parameters.push_back(parameter);
    }
    // Header options: "query [columns] [count] [batch N] [error HR [description]]".
    bool columns = false, count = false;
    DBROWCOUNT batch = 7;
    HRESULT expectedHr = S_OK;
    std::string description;
    bool describedError = false;
    for (size_t w = 1; w < c.header.size(); ++w) {
      const std::string& word = c.header[w];
      if (word == "columns") {
        columns = true;
      } else if (word == "count") {
        count = true;
      } else if (word == "batch" && w + 1 < c.header.size()) {
        batch = std::atoi(c.header[++w].c_str());
      } else if (word == "error" && w + 1 < c.header.size() && ParseHex(c.header[w + 1], &expectedHr)) {
        description = After(Join(c.header), w + 2);
        describedError = !description.empty();
        break;
      } else if (word != "ok") {
        ADD_FAILURE_AT(c.path.c_str(), c.line) << "unknown word '" << word << "' in the case header";
        return;
      }
    }
    ULONG callsBefore[static_cast<int>(HostOp::Count)];
    for (int op = 0; op < static_cast<int>(HostOp::Count); ++op)
      callsBefore[op] = run.consumer->Host().Calls(static_cast<HostOp>(op));
#ifndef CORVANE_CONSUMER_OF_DLL
    run.trace->Clear();
#endif
    const Outcome got = run.consumer->Run(c.sql, parameters, batch);
    if (!check) return;
    const std::string statement = "\n  statement: " + c.sql + "\n";
    if (got.hr != expectedHr) {
      ADD_FAILURE_AT(c.path.c_str(), c.line) << statement << "  expected " << Hex(expectedHr) << ", got "
                                             << Hex(got.hr) << (got.atExecute ? " from Execute" : " from a fetch")
                                             << ": " << got.error.description << "\n  rows:\n" << Show(got.rows);
      return;
    }
    if (describedError && got.error.description != description) {
      ADD_FAILURE_AT(c.path.c_str(), c.line) << statement << "  expected the description: " << description
                                             << "\n  got: " << got.error.description;
    }
    if (c.header[0] == "query") CompareRows(c, statement, got, columns, count);
    for (const auto& [line, block] : c.checks) Check(c, line, block, run, got, callsBefore);
  }

  static std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& w : words) text += (text.empty() ? "" : " ") + w;
    return text;
  }

  void CompareRows(const Case& c, const std::string& statement, const Outcome& got, bool columns, bool count) {
    const char* file = c.path.c_str();
    size_t first = 0;
    if (columns) {
      const std::vector<std::string> names = c.expected.empty() ? std::vector<std::string>()
                                                                 : Cells(c.expected[0].text, '|');
      std::vector<std::string> actual;
      for (size_t i = 0; i < got.columns.size(); ++i) {
        const bool typed = i < names.size() && names[i].find(':') != std::string::npos;
        actual.push_back(got.columns[i].first + (typed ? ":" + TypeName(got.columns[i].second) : ""));
      }
      if (actual != names) ADD_FAILURE_AT(file, c.line) << statement << "  columns: " << Show({actual});
      first = 1;
    }
    if (count) {
      const std::string expected = c.expected.size() > first ? Trim(c.expected[first].text) : "";
      if (std::to_string(got.rows.size()) != expected)
        ADD_FAILURE_AT(file, c.line) << statement << "  expected " << expected << " rows, got " << got.rows.size();
      return;
    }
    const Rows expected = Table(c.expected, first);
    if (got.rows != expected)
      ADD_FAILURE_AT(file, c.line) << statement << "  expected " << expected.size() << " rows:\n"
                                   << Show(expected) << "  got " << got.rows.size() << ":\n" << Show(got.rows);
  }

  void Check(const Case& c, const Line& line, const std::vector<Line>& block, FileRun& run, const Outcome&,
             const ULONG* callsBefore) {
    const char* file = c.path.c_str();
    const std::vector<std::string> words = Words(line.text);
    if (words[0] == "calls") {
      HostOp op;
      if (words.size() != 3 || !HostOpNamed(words[1], &op)) {
        ADD_FAILURE_AT(file, line.number) << "calls OPERATION COUNT";
        return;
      }
      const ULONG made = run.consumer->Host().Calls(op) - callsBefore[static_cast<int>(op)];
      if (std::to_string(made) != words[2])
        ADD_FAILURE_AT(file, line.number) << "the statement of line " << c.line << " made " << made << " "
                                          << words[1] << " call(s), not " << words[2];
    } else if (words[0] == "trace" || words[0] == "notrace") {
#ifndef CORVANE_CONSUMER_OF_DLL  // the DLL traces into its own facility
      const std::string text = After(line.text, 1);
      if (run.trace->Contains(text) != (words[0] == "trace"))
        ADD_FAILURE_AT(file, line.number) << "the statement of line " << c.line << (words[0] == "trace" ? " did not trace: " : " traced: ") << text;
#endif
    } else {
      const Rows expected = Table(block);
      const Rows actual = run.consumer->Contents();
      if (actual != expected)
        ADD_FAILURE_AT(file, line.number) << "the historian holds " << actual.size() << " samples:\n"
                                          << Show(actual) << "  expected " << expected.size() << ":\n"
                                          << Show(expected);
    }
  }

  static void Apply(const std::string& path, const Line& line, FileRun& run) {
    const char* file = path.c_str();
    const std::vector<std::string> words = Words(line.text);
    SqlConsumer& consumer = *run.consumer;
    if (words[0] == "tag" && words.size() >= 2) {
      // tag NAME [TYPE] [stepped] [readonly] [description...]
      historian::TagDefinition tag;
      tag.name = FromUtf8(words[1]);
      size_t w = 2;
      for (const auto& t : kTagTypes)
        if (w < words.size() && words[w] == t.first) tag.vartype = t.second, ++w;
      for (; w < words.size() && (words[w] == "stepped" || words[w] == "readonly"); ++w) {
        if (words[w] == "stepped") tag.stepped = true;
        if (words[w] == "readonly") tag.accessRights = kTagAccessRead;
      }
      tag.description = FromUtf8(After(line.text, w));
      if (consumer.Store().AddTag(tag) != S_OK) ADD_FAILURE_AT(file, line.number) << "tag not added";
    } else if (words[0] == "sample") {
      // NAME, seconds, value [, quality in hex]
      const std::vector<std::string> cells = Cells(After(line.text, 1), ',');
      historian::TagDefinition tag;
      historian::SampleInput s;
      HRESULT quality = 0;
      if (cells.size() < 3 || consumer.Store().GetTag(FromUtf8(cells[0]), &tag) != S_OK ||
          (cells.size() > 3 && !ParseHex(cells[3], &quality))) {
        ADD_FAILURE_AT(file, line.number) << "NAME, SECONDS, VALUE [, QUALITY]: " << line.text;
        return;
      }
      s.time = BaseTicks() + static_cast<ULONGLONG>(std::llround(std::atof(cells[1].c_str()) * 1e7));
      s.quality = static_cast<DWORD>(quality);
      if (tag.vartype == VT_BSTR) s.text = FromUtf8(cells[2]);
      s.number = std::atof(cells[2].c_str());
      s.integer = std::atoll(cells[2].c_str());
      if (consumer.Store().AppendSamples(tag.name, {s}) != S_OK)
        ADD_FAILURE_AT(file, line.number) << "sample not added: " << line.text;
    } else if (words[0] == "provider") {
      run.providerString = After(line.text, 1);
    } else if (words[0] == "host" && words.size() == 3 && words[1] == "omit") {
      consumer.Host().Omit(words[2] == "values" ? IID_IValuesProvider : IID_IProcessedDataProvider);
    } else if (words[0] == "host" && words.size() == 3 && words[1] == "page") {
      consumer.Host().ForcePageSize(static_cast<ULONG>(std::atol(words[2].c_str())));
    } else if (HostOp op; words[0] == "fail" && words.size() == 4 && HostOpNamed(words[1], &op)) {
      // fail OPERATION N HRESULT: the Nth call from now fails; N = 0: every call from now.
      HRESULT hr = S_OK;
      const ULONG n = static_cast<ULONG>(std::atol(words[2].c_str()));
      if (!ParseHex(words[3], &hr)) ADD_FAILURE_AT(file, line.number) << "not a code: " << words[3];
      consumer.Host().FailCall(op, n ? consumer.Host().Calls(op) + n : 0, hr);
    } else {
      ADD_FAILURE_AT(file, line.number) << "cannot apply '" << line.text << "'";
    }
  }

  const std::vector<Case>* cases_;
  size_t index_;
};

// Registers the cases of every file before main runs, as TEST does.
const bool kRegistered = [] {
  std::string directory = CORVANE_CASE_DIR;
#ifdef _WIN32
  if (!directory.empty() && directory[0] == '/') directory = "Z:" + directory;
#endif
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    if (entry.path().extension() == ".test") paths.push_back(entry.path().generic_string());
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    std::string error;
    auto* cases = new std::vector<Case>(ParseFile(path, &error));  // lives as long as the tests
    const std::string suite = std::filesystem::path(path).stem().string();
    if (!error.empty()) {
      ::testing::RegisterTest(suite.c_str(), "parse", nullptr, nullptr, path.c_str(), 1,
                              [error]() -> ::testing::Test* {
                                struct Broken : ::testing::Test {
                                  std::string why;
                                  void TestBody() override { ADD_FAILURE() << why; }
                                };
                                auto* t = new Broken;
                                t->why = error;
                                return t;
                              });
      continue;
    }
    for (size_t i = 0; i < cases->size(); ++i) {
      const std::string name = "line" + std::to_string((*cases)[i].line);
      ::testing::RegisterTest(suite.c_str(), name.c_str(), nullptr, nullptr, path.c_str(), (*cases)[i].line,
                              [cases, i]() -> ::testing::Test* { return new CaseTest(cases, i); });
    }
  }
  return true;
}();

}  // namespace
}  // namespace corvane::test
