// Runs the plain-text SQL case files of this directory (README.md) through OLE DB as a consumer does:
// each case is one test, named after its file and line; a file's cases share one historian and one
// connection, checked for leaks when its last case ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <sstream>

#include "tests/session/ConsumerFixture.h"
#include "tests/support/Printers.h"

namespace corvane::test {
namespace {

struct Line { int number = 0; std::string text; };

struct Case {
  std::string path;
  int line = 0;
  std::vector<Line> setup;  // directives that come before the statement, in order
  std::vector<std::string> header;
  std::string headerText;
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
  std::istringstream in(text);
  for (std::string w; n && in >> w; --n) {
  }
  std::string rest;
  std::getline(in, rest);
  return Trim(rest);
}

// Cells split at `separator` ("a, b" in quotes is one cell of a sample line).
std::vector<std::string> Cells(const std::string& line, char separator) {
  std::vector<std::string> cells(1);
  bool quoted = false;
  for (char c : line) {
    if (c == '"' && separator == ',') quoted = !quoted;
    else if (c == separator && !quoted) cells.emplace_back();
    else cells.back() += c;
  }
  for (auto& c : cells) c = Trim(c) == "<empty>" ? std::string() : Trim(c);
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
  return rows.size() > 60 ? text + "    ... " + std::to_string(rows.size() - 60) + " more\n" : text;
}

bool ParseHex(const std::string& text, HRESULT* hr) {
  char* end = nullptr;
  *hr = static_cast<HRESULT>(std::strtoul(text.c_str(), &end, 16));
  return !text.empty() && *end == '\0';
}

std::string TypeName(DBTYPE type) {
  static const std::pair<DBTYPE, const char*> kNames[] = {
      {DBTYPE_I2, "I2"},     {DBTYPE_I4, "I4"},      {DBTYPE_R4, "R4"},   {DBTYPE_R8, "R8"},   {DBTYPE_BOOL, "BOOL"},
      {DBTYPE_VARIANT, "VARIANT"}, {DBTYPE_I1, "I1"}, {DBTYPE_UI1, "UI1"}, {DBTYPE_UI2, "UI2"}, {DBTYPE_UI4, "UI4"},
      {DBTYPE_I8, "I8"},     {DBTYPE_UI8, "UI8"},    {DBTYPE_WSTR, "WSTR"}, {DBTYPE_DBTIMESTAMP, "DBTIMESTAMP"},
      {DBTYPE_DATE, "DATE"}};
  for (const auto& [t, name] : kNames)
    if (t == type) return name;
  return std::to_string(type);
}

// FILETIME ticks of `seconds` after 2020-01-01 00:00:00 UTC, the time of a case file's samples.
ULONGLONG SampleTime(double seconds) {
  const SYSTEMTIME base{2020, 1, 3, 1, 0, 0, 0, 0};
  FILETIME ft{};
  SystemTimeToFileTime(&base, &ft);
  return FileTimeToU64(ft) + static_cast<ULONGLONG>(std::llround(seconds * 1e7));
}

bool IsCheck(const std::string& word) {
  return word == "calls" || word == "trace" || word == "notrace" || word == "contents" || word == "unchanged";
}

// Reads a case file into its cases; a line it cannot place is reported in `error`.
std::vector<Case> ParseFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) *error = "cannot read " + path;
  std::vector<Line> lines;
  int number = 0;
  for (std::string text; std::getline(in, text);)
    if (++number, Trim(text).rfind("#", 0) != 0) lines.push_back({number, Trim(text) == "" ? "" : text});
  std::vector<Case> cases;
  std::vector<Line> setup;
  size_t i = 0;
  // The lines up to the next blank one, or, after a statement, up to its first check.
  auto block = [&lines, &i](bool toCheck) {
    std::vector<Line> out;
    for (++i; i < lines.size() && !lines[i].text.empty() && !(toCheck && IsCheck(Words(lines[i].text)[0])); ++i)
      out.push_back(lines[i]);
    return out;
  };
  while (i < lines.size() && error->empty()) {
    const Line line = lines[i];
    const std::vector<std::string> words = Words(line.text);
    const std::string at = path + ":" + std::to_string(line.number) + ": ";
    if (words.empty()) {
      ++i;
    } else if (words[0] == "tag" || words[0] == "provider" || words[0] == "host" || words[0] == "fail" ||
               words[0] == "series") {
      setup.push_back(line);
      ++i;
    } else if (words[0] == "samples") {
      for (const Line& sample : block(false)) setup.push_back({sample.number, "sample " + sample.text});
    } else if (words[0] == "statement" || words[0] == "query") {
      Case c;
      c.path = path, c.line = line.number, c.header = words, c.headerText = line.text;
      c.setup.swap(setup);
      bool result = false;
      for (const Line& body : block(true)) {
        if (result) c.expected.push_back(body);
        else if (Trim(body.text) == "----") result = true;
        else if (Trim(body.text).rfind("? ", 0) == 0) c.parameters.push_back(body);
        else c.sql += (c.sql.empty() ? "" : "\n") + body.text;
      }
      const auto description = std::find(words.begin(), words.end(), "error");
      if (c.sql.empty() != (std::find(words.begin(), description, "execute") != description))
        *error = at + (c.sql.empty() ? "no statement" : "a statement after execute, which runs the prepared one");
      cases.push_back(std::move(c));
    } else if (IsCheck(words[0]) && !cases.empty() && setup.empty()) {
      std::vector<Line> contents;
      if (words[0] == "contents") contents = block(false);
      else ++i;
      cases.back().checks.emplace_back(line, contents);
    } else {
      *error = at + "cannot place '" + line.text + "'";
    }
  }
  if (!setup.empty() && error->empty()) *error = path + ": directives after the last statement";
  return cases;
}

// What a case's header asks for (README.md lists its words).
struct Header {
  bool columns = false, count = false, schema = false, prepare = false, execute = false, open = false;
  DBROWCOUNT batch = 7;
  std::string affected;  // empty: not compared
  HRESULT hr = S_OK;
  std::string description;
  std::string error;  // a word the runner does not know
};

Header ReadHeader(const Case& c) {
  Header h;
  const std::map<std::string, bool*> flags = {{"columns", &h.columns}, {"count", &h.count},
                                              {"schema", &h.schema},   {"prepare", &h.prepare},
                                              {"execute", &h.execute}, {"open", &h.open}};
  for (size_t w = 1; w < c.header.size(); ++w) {
    const std::string& word = c.header[w];
    const bool last = w + 1 == c.header.size();
    if (flags.count(word)) {
      *flags.at(word) = true;
    } else if (word == "batch" && !last) {
      h.batch = std::atoi(c.header[++w].c_str());
    } else if ((word == "affected" || word == "ok") && !last && std::isdigit(c.header[w + 1][0])) {
      h.affected = c.header[++w];
    } else if (word == "error" && !last && ParseHex(c.header[w + 1], &h.hr)) {
      h.description = After(c.headerText, w + 2);
      break;
    } else if (word != "ok") {
      h.error = "unknown word '" + word + "' in the case header";
    }
  }
  return h;
}

// A rowset left open by a case, read when the next case that does not keep its own starts.
struct OpenRowset { const Case* c; Header header; IUnknown* rowset; bool check; };

// One file's historian and connection, shared by its cases in order.
struct FileRun {
  std::unique_ptr<SqlConsumer> consumer;
  std::unique_ptr<TraceCapture> trace;  // sees nothing of the DLL, which traces into its own facility
  platform::AllocCounts baseline{};
  std::string providerString;
  std::vector<OpenRowset> open;
  Rows before;                // the historian's contents before a statement checked with `unchanged`
  size_t next = 0;            // the case to run next

  void Finish();
};

class CaseTest : public ::testing::Test {
 public:
  CaseTest(const std::vector<Case>* cases, size_t index) : cases_(cases), index_(index) {}

  void TestBody() override {
    static std::map<std::string, FileRun> runs;
    FileRun& run = runs[(*cases_)[index_].path];
    if (run.next > index_) run.Finish();
    if (!run.consumer) {
      run.baseline = platform::CurrentAllocCounts();
      run.consumer = std::make_unique<SqlConsumer>();
      run.trace = std::make_unique<TraceCapture>(TRACE_DETAIL);
    }
    // Cases left out by a filter still set the scene for this one.
    for (; run.next < index_; ++run.next) Execute((*cases_)[run.next], run, false);
    Execute((*cases_)[index_], run, true);
    ++run.next;
    if (index_ + 1 == cases_->size()) run.Finish();
  }

  // Reads and checks the rowsets that cases left open, in the order they were opened.
  static void ReadOpen(FileRun& run) {
    for (const OpenRowset& o : run.open) {
      Outcome got;
      SqlConsumer::Read(o.rowset, o.header.batch, &got);
      if (o.check) Verify(*o.c, o.header, got);
    }
    run.open.clear();
  }

 private:
  void Execute(const Case& c, FileRun& run, bool check) {
    const char* file = c.path.c_str();
    const Header header = ReadHeader(c);
    if (!header.error.empty()) return ADD_FAILURE_AT(file, c.line) << header.error;
    if (!header.open) ReadOpen(run);
    for (const Line& line : c.setup) Apply(file, line, run);
    if (!run.consumer->IsOpen()) run.consumer->Open(run.providerString);
    std::vector<Parameter> parameters;
    for (const Line& p : c.parameters) {
      const std::vector<std::string> words = Words(p.text);
      const bool typed = words.size() >= 3 && words[1].rfind("DBTYPE_", 0) == 0;
      parameters.push_back({typed ? words[1] : std::string(), After(p.text, typed ? 2 : 1)});
    }
    ULONG callsBefore[static_cast<int>(HostOp::Count)];
    for (int op = 0; op < static_cast<int>(HostOp::Count); ++op)
      callsBefore[op] = run.consumer->Host().Calls(static_cast<HostOp>(op));
    run.trace->Clear();
    // A statement that fails leaves the historian as it was, unless its case says what it left.
    const bool failing = FAILED(header.hr) && !header.open;
    bool unchanged = failing, listed = false;
    for (const auto& check : c.checks) {
      unchanged = unchanged || Words(check.first.text)[0] == "unchanged";
      listed = listed || Words(check.first.text)[0] == "contents";
    }
    if (unchanged && !listed) run.before = run.consumer->Contents();
    IUnknown* rowset = nullptr;
    const Outcome got = header.schema    ? run.consumer->Schema(Cells(c.sql, '|'), header.batch)
                        : header.prepare ? run.consumer->Prepare(c.sql)
                                         : run.consumer->Run(c.sql, parameters, header.batch,
                                                             header.open ? &rowset : nullptr);
    if (rowset) return run.open.push_back({&c, header, rowset, check});
    if (!check) return;
    if (!Verify(c, header, got)) return;
    for (const auto& [line, block] : c.checks) Check(c, line, block, run, callsBefore);
    if (failing && !listed) Check(c, Line{c.line, "unchanged"}, {}, run, callsBefore);
  }

  static bool Verify(const Case& c, const Header& header, const Outcome& got) {
    const char* file = c.path.c_str();
    const std::string statement = "\n  statement: " + (c.sql.empty() ? "the prepared one" : c.sql) + "\n";
    if (got.hr != header.hr) {
      ADD_FAILURE_AT(file, c.line) << statement << "  expected " << Hex(header.hr) << ", got " << Hex(got.hr)
                                   << (got.atExecute ? " from Execute" : " from a fetch") << ": "
                                   << got.error.description << "\n  rows:\n" << Show(got.rows);
      return false;
    }
    if (!header.description.empty() && got.error.description != header.description)
      ADD_FAILURE_AT(file, c.line) << statement << "  expected the description: " << header.description
                                   << "\n  got: " << got.error.description;
    if (!header.affected.empty() && std::to_string(got.affected) != header.affected)
      ADD_FAILURE_AT(file, c.line) << statement << "  expected " << header.affected << " affected rows, got "
                                   << got.affected;
    if (c.header[0] == "query") CompareRows(c, statement, got, header.columns, header.count);
    return true;
  }

  static void CompareRows(const Case& c, const std::string& statement, const Outcome& got, bool columns, bool count) {
    size_t first = 0;
    if (columns) {
      const std::vector<std::string> names = c.expected.empty() ? std::vector<std::string>()
                                                                 : Cells(c.expected[0].text, '|');
      std::vector<std::string> actual;
      for (size_t i = 0; i < got.columns.size(); ++i) {
        const bool typed = i < names.size() && names[i].find(':') != std::string::npos;
        actual.push_back(got.columns[i].name + (typed ? ":" + TypeName(got.columns[i].type) : ""));
      }
      if (actual != names) ADD_FAILURE_AT(c.path.c_str(), c.line) << statement << "  columns: " << Show({actual});
      first = 1;
    }
    const Rows expected = count ? Rows() : Table(c.expected, first);
    const std::string rows = c.expected.size() > first ? Trim(c.expected[first].text) : "";
    if (count ? std::to_string(got.rows.size()) != rows : got.rows != expected)
      ADD_FAILURE_AT(c.path.c_str(), c.line) << statement << "  expected " << (count ? rows : std::to_string(expected.size()))
                                             << " rows:\n" << Show(expected) << "  got " << got.rows.size() << ":\n"
                                             << Show(got.rows);
  }

  static void Check(const Case& c, const Line& line, const std::vector<Line>& block, FileRun& run,
                    const ULONG* callsBefore) {
    const char* file = c.path.c_str();
    const std::vector<std::string> words = Words(line.text);
    const std::string of = "the statement of line " + std::to_string(c.line);
    HostOp op;
    if (words[0] == "calls" && words.size() == 3 && HostOpNamed(words[1], &op)) {
      const ULONG made = run.consumer->Host().Calls(op) - callsBefore[static_cast<int>(op)];
      if (std::to_string(made) != words[2])
        ADD_FAILURE_AT(file, line.number) << of << " made " << made << " " << words[1] << " call(s), not " << words[2];
    } else if (words[0] == "trace" || words[0] == "notrace") {
#ifndef CORVANE_CONSUMER_OF_DLL  // the DLL traces into its own facility
      if (run.trace->Contains(After(line.text, 1)) != (words[0] == "trace"))
        ADD_FAILURE_AT(file, line.number) << of << (words[0] == "trace" ? " did not trace: " : " traced: ")
                                          << After(line.text, 1);
#endif
    } else if (words[0] == "contents" || words[0] == "unchanged") {
      const Rows actual = Brief(run.consumer->Contents());
      const Rows expected = words[0] == "contents" ? Table(block) : Brief(run.before);
      if (actual != expected)
        ADD_FAILURE_AT(file, line.number) << of << " left the historian holding:\n" << Show(actual) << "  expected:\n"
                                          << Show(expected);
    } else {
      ADD_FAILURE_AT(file, line.number) << "cannot check '" << line.text << "'";
    }
  }

  // One row per tag holding samples: the tag, then each sample as its second, `=VALUE` where the value is not the
  // second and `/QUALITY` where the quality is not 0.
  static Rows Brief(const Rows& contents) {
    Rows tags;
    for (size_t i = 0; i < contents.size(); ++i) {
      const std::vector<std::string>& s = contents[i];
      if (i == 0 || s[0] != contents[i - 1][0]) tags.push_back({s[0]});
      tags.back()[0] += " " + s[1] + (s[2] == s[1] ? "" : "=" + s[2]) + (s[3] == "0" ? "" : "/" + s[3]);
    }
    return tags;
  }

  static void Apply(const char* file, const Line& line, FileRun& run) {
    const std::vector<std::string> words = Words(line.text);
    SqlConsumer& consumer = *run.consumer;
    HostOp op;
    HRESULT hr = S_OK;
    if (words[0] == "tag" && words.size() >= 2) {
      // tag NAME [TYPE] [stepped] [readonly] [description...]
      static const std::pair<const char*, VARTYPE> kTypes[] = {
          {"R8", VT_R8},   {"R4", VT_R4},   {"I1", VT_I1},   {"I2", VT_I2},   {"I4", VT_I4},     {"I8", VT_I8},
          {"UI1", VT_UI1}, {"UI2", VT_UI2}, {"UI4", VT_UI4}, {"UI8", VT_UI8}, {"BOOL", VT_BOOL}, {"BSTR", VT_BSTR}};
      historian::TagDefinition tag;
      tag.name = FromUtf8(words[1]);
      size_t w = 2;
      for (const auto& [name, vt] : kTypes)
        if (w < words.size() && words[w] == name) tag.vartype = vt, ++w;
      for (; w < words.size() && (words[w] == "stepped" || words[w] == "readonly"); ++w) {
        if (words[w] == "stepped") tag.stepped = true;
        else tag.accessRights = kTagAccessRead;
      }
      tag.description = FromUtf8(After(line.text, w));
      if (consumer.Store().AddTag(tag) != S_OK) ADD_FAILURE_AT(file, line.number) << "tag not added";
    } else if (words[0] == "sample") {
      // NAME, SECONDS, VALUE [, QUALITY in hex]
      const std::vector<std::string> cells = Cells(After(line.text, 1), ',');
      historian::TagDefinition tag;
      historian::SampleInput s;
      if (cells.size() < 3 || consumer.Store().GetTag(FromUtf8(cells[0]), &tag) != S_OK ||
          (cells.size() > 3 && !ParseHex(cells[3], &hr))) {
        return ADD_FAILURE_AT(file, line.number) << "NAME, SECONDS, VALUE [, QUALITY]: " << line.text;
      }
      s.time = SampleTime(std::atof(cells[1].c_str()));
      s.quality = static_cast<DWORD>(hr);
      if (tag.vartype == VT_BSTR) s.text = FromUtf8(cells[2]);
      s.number = std::atof(cells[2].c_str());
      s.integer = std::atoll(cells[2].c_str());
      if (consumer.Store().AppendSamples(tag.name, {s}) != S_OK)
        ADD_FAILURE_AT(file, line.number) << "sample not added: " << line.text;
    } else if (words[0] == "series" && (words.size() == 3 || (words.size() == 4 && ParseHex(words[3], &hr)))) {
      // series NAME N [QUALITY hex]: value i at second i, for i below N.
      const size_t n = static_cast<size_t>(std::atol(words[2].c_str()));
      const ULONGLONG start = SampleTime(0);
      if (consumer.Store().AppendGenerated(FromUtf8(words[1]), n, [&](size_t i, historian::SampleInput& s) {
            s.time = start + i * 10000000ull;
            s.number = static_cast<double>(i);
            s.quality = static_cast<DWORD>(hr);
          }) != S_OK)
        ADD_FAILURE_AT(file, line.number) << "series not added: " << line.text;
    } else if (words[0] == "provider") {
      run.providerString = After(line.text, 1);
    } else if (words[0] == "host" && words.size() == 3 && words[1] == "omit") {
      consumer.Host().Omit(words[2] == "values" ? IID_IValuesProvider : IID_IProcessedDataProvider);
    } else if (words[0] == "host" && words.size() == 3 && words[1] == "page") {
      consumer.Host().ForcePageSize(static_cast<ULONG>(std::atol(words[2].c_str())));
    } else if (words[0] == "fail" && words.size() == 4 && HostOpNamed(words[1], &op) && ParseHex(words[3], &hr)) {
      // fail OPERATION N HRESULT: the Nth call from now fails; N = 0: every call from now.
      const ULONG n = static_cast<ULONG>(std::atol(words[2].c_str()));
      consumer.Host().FailCall(op, n ? consumer.Host().Calls(op) + n : 0, hr);
    } else {
      ADD_FAILURE_AT(file, line.number) << "cannot apply '" << line.text << "'";
    }
  }

  const std::vector<Case>* cases_;
  size_t index_;
};

void FileRun::Finish() {
  CaseTest::ReadOpen(*this);
  EXPECT_EQ(0u, consumer->Host().OutstandingContinuationPoints()) << "a continuation point was left open";
  consumer.reset();
  trace.reset();
  providerString.clear();
  next = 0;
  LeakCheckedTest::ExpectNothingOutstandingSince(baseline);
}

// Registers the cases of every file before main runs, as TEST does; a file that does not parse is one failing test.
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
    static std::list<std::vector<Case>> files;  // lives as long as the tests
    auto* cases = &files.emplace_back(ParseFile(path, &error));
    const std::string suite = std::filesystem::path(path).stem().string();
    if (!error.empty()) {
      cases->assign(1, Case());
      cases->back().path = path, cases->back().line = 1, cases->back().header = {"statement", error};
    }
    for (size_t i = 0; i < cases->size(); ++i)
      ::testing::RegisterTest(suite.c_str(), ("line" + std::to_string((*cases)[i].line)).c_str(), nullptr, nullptr,
                              path.c_str(), (*cases)[i].line, [cases, i]() -> ::testing::Test* {
                                return new CaseTest(cases, i);
                              });
  }
  return true;
}();

}  // namespace
}  // namespace corvane::test
