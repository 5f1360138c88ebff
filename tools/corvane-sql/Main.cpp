// corvane-sql: an SQL shell over the provider and the reference historian.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>


#include "platform/AllocCounters.h"
#include "platform/Console.h"
#include "platform/Platform.h"
#include "provider/Module.h"
#include "tools/corvane-sql/Interactive.h"
#include "tools/corvane-sql/Shell.h"

using namespace corvane::shell;

namespace {

const char kUsage[] =
    "usage: corvane-sql [options] [-e SQL]... [FILE.sql]...\n"
    "Runs each -e statement and each file in order; with neither, reads statements from\n"
    "stdin, or prompts when stdin is a terminal. Statements end with ';' at the end of a line.\n"
    "\n"
    "  -e, --execute SQL          run SQL (repeatable)\n"
    "  --data FILE.csv            load samples (tag,timestamp,value,quality[,vartype]); repeatable\n"
    "  --no-demo                  start with an empty historian instead of the demo plant\n"
    "                             (the demo plant is loaded unless --data or --no-demo is given)\n"
    "  --demo                     load the demo plant as well as the --data files\n"
    "  --format table|csv|json|chart  output format (default: table on a terminal, csv\n"
    "                             otherwise); chart draws each result as a text trend\n"
    "  --chart FILE.svg           draw the first statement's result as an SVG trend chart\n"
    "  --param [DBTYPE_X:]VALUE   value of the next '?' (repeatable; DBTYPE_WSTR by default);\n"
    "                             every statement takes its values from the first --param on\n"
    "  --provider-string TEXT     the provider string, e.g. \"Use Timestamps=true\"\n"
    "  --catalog NAME             the initial catalog\n"
    "  --trace LEVEL[:FILE]       trace lines at or above LEVEL (100..800 or detail, info,\n"
    "                             notice, warning, error) to stderr or FILE\n"
    "  --leak-check               at exit, report COM blocks and BSTRs still outstanding\n"
    "  -h, --help                 this text\n"
    "\n"
    "Exit status: 0 all statements succeeded, 1 one or more failed, 2 bad command line or\n"
    "unreadable file, 3 the output could not be written (closed pipe, full disk...), 130 a\n"
    "script stopped by Ctrl-C (at the prompt, Ctrl-C stops only the statement running).\n";

// Distinct from a failed statement: the results did not reach their reader.
constexpr int kOutputFailed = 3;

struct Input {
  bool isFile;
  std::string text;  // SQL, or the file's name until it is read
};

struct CommandLine {
  ConnectionOptions connection;
  bool demoChosen = false, noDemo = false;
  bool formatGiven = false;
  OutputFormat format = OutputFormat::Csv;
  std::vector<Parameter> parameters;
  std::vector<Input> inputs;
  std::string trace;
  std::string chartFile;
  bool leakCheck = false;
  bool help = false;
};

int Usage(const std::string& message) {
  fprintf(stderr, "corvane-sql: %s\nTry 'corvane-sql --help'.\n", message.c_str());
  return 2;
}

// 0 when parsed, else the exit status.
int Parse(int argc, char** argv, CommandLine* cl) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i], value;
    bool inlineValue = false;
    if (arg.compare(0, 2, "--") == 0 && arg.find('=') != std::string::npos) {
      value = arg.substr(arg.find('=') + 1);
      arg = arg.substr(0, arg.find('='));
      inlineValue = true;
    }
    auto needValue = [&](std::string* out) {
      if (inlineValue) return *out = value, true;
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    static const char* const kWithValue[] = {"-e", "--execute", "--data", "--format", "--param",
                                             "--provider-string", "--catalog", "--trace", "--chart"};
    bool takesValue = false;
    for (const char* name : kWithValue) takesValue |= arg == name;
    if (takesValue && !needValue(&value)) return Usage("option " + arg + " needs a value");
    if (!takesValue && inlineValue) return Usage("option " + arg + " takes no value");

    if (arg == "-h" || arg == "--help") {
      cl->help = true;
    } else if (arg == "-e" || arg == "--execute") {
      cl->inputs.push_back({false, value});
    } else if (arg == "--data") {
      cl->connection.csvFiles.push_back(value);
    } else if (arg == "--no-demo") {
      cl->noDemo = true;
    } else if (arg == "--demo") {
      cl->demoChosen = true;
    } else if (arg == "--format") {
      if (!CResultFormatter::ParseFormat(value, &cl->format)) return Usage("unknown format '" + value + "'");
      cl->formatGiven = true;
    } else if (arg == "--param") {
      Parameter p;
      std::string error;
      if (!Parameter::Parse(value, &p, &error)) return Usage(error);
      cl->parameters.push_back(p);
    } else if (arg == "--provider-string") {
      cl->connection.providerString = value;
    } else if (arg == "--catalog") {
      cl->connection.catalog = value;
    } else if (arg == "--trace") {
      cl->trace = value;
    } else if (arg == "--chart") {
      cl->chartFile = value;
    } else if (arg == "--leak-check") {
      cl->leakCheck = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return Usage("unknown option '" + arg + "'");
    } else {
      cl->inputs.push_back({true, arg});
    }
  }
  if (cl->noDemo && cl->demoChosen) return Usage("--demo and --no-demo contradict each other");
  cl->connection.demo = cl->demoChosen || (!cl->noDemo && cl->connection.csvFiles.empty());
  return 0;
}

// Reads a whole file into `text`, or with no `text` only opens it (a pipe must keep its
// bytes for the loader); false with errno set when it cannot (a directory cannot).
bool ReadFile(const std::string& name, std::string* text) {
  FILE* f = fopen(name.c_str(), "rb");
  if (!f) return false;
  struct stat info;
  if (fstat(fileno(f), &info) == 0 && S_ISDIR(info.st_mode)) {
    fclose(f);
    errno = EISDIR;
    return false;
  }
  char buffer[65536];
  size_t n;
  while (text && (n = fread(buffer, 1, sizeof buffer, f)) > 0) text->append(buffer, n);
  const bool failed = ferror(f) != 0;
  const int error = errno;
  fclose(f);
  errno = error;
  return !failed;
}

int Run(const CommandLine& cl, std::vector<Input> inputs, COutput& out) {
  CShellConnection connection;
  Failure failure;
  std::string message;
  bool loadFailed = false;
  if (FAILED(connection.Open(cl.connection, &failure, &message, &loadFailed))) {
    if (loadFailed) return fprintf(stderr, "corvane-sql: %s\n", message.c_str()), 2;
    fprintf(stderr, "corvane-sql: %s\n", message.c_str());
    char code[16];
    snprintf(code, sizeof code, "%08X", static_cast<unsigned>(failure.hr));
    fprintf(stderr, "error 0x%s:", code);
    for (size_t i = 0; i < failure.descriptions.size(); ++i)
      fprintf(stderr, "%s%s", i ? "\n" : " ", failure.descriptions[i].c_str());
    fputs("\n", stderr);
    return 1;
  }
  const bool stdinTerminal = corvane::platform::IsTerminal(0);
  const OutputFormat format = cl.formatGiven ? cl.format : (corvane::platform::IsTerminal(1) ? OutputFormat::Table : OutputFormat::Csv);
  CShell shell(connection, out, format, cl.parameters);
  shell.SetShowProgress(corvane::platform::IsTerminal(2));
  if (!cl.chartFile.empty()) shell.SetChartFile(cl.chartFile);
  const bool interactive = inputs.empty() && stdinTerminal;
  InstallInterruptHandler(interactive);
  if (interactive) {
    RunInteractive(shell);
  } else if (inputs.empty()) {
    std::string line;
    while (!shell.QuitRequested() && std::getline(std::cin, line)) shell.FeedLine(line);
    if (!shell.QuitRequested()) shell.FinishInput();
  } else {
    for (const Input& input : inputs) {
      if (shell.QuitRequested()) break;
      if (!input.isFile) {
        shell.Run(input.text);
        continue;
      }
      std::istringstream lines(input.text);
      std::string line;
      while (!shell.QuitRequested() && std::getline(lines, line)) shell.FeedLine(line);
      if (!shell.QuitRequested()) shell.FinishInput();
    }
  }
  if (shell.OutputFailed()) return kOutputFailed;
  if (shell.Interrupted() && !interactive) return 130;
  // Every statement takes its values from the first --param on, so a value no statement
  // took was most likely meant for a statement that got another one: say so.
  const size_t unused = cl.parameters.size() - shell.ParametersUsed();
  if (!interactive && unused && !shell.QuitRequested()) {
    fprintf(stderr,
            "corvane-sql: %zu --param value(s) from '%s' on were taken by no statement (every statement "
            "takes its values from the first --param on)\n",
            unused, cl.parameters[shell.ParametersUsed()].value.c_str());
    return 1;
  }
  return shell.AnyFailed() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine cl;
  if (const int status = Parse(argc, argv, &cl)) return status;
  COutput out(1);
  if (cl.help) {
    if (out.Write(kUsage) && out.Flush()) return 0;
    fprintf(stderr, "corvane-sql: cannot write the output: %s\n", strerror(out.Error()));
    return kOutputFailed;
  }
  // Every file is read before anything runs, so a typo in a name costs nothing.
  std::vector<Input> inputs = cl.inputs;
  for (Input& input : inputs) {
    if (!input.isFile) continue;
    const std::string name = input.text;
    input.text.clear();
    if (!ReadFile(name, &input.text))
      return fprintf(stderr, "corvane-sql: cannot read '%s': %s\n", name.c_str(), strerror(errno)), 2;
  }
  for (const auto& file : cl.connection.csvFiles) {
    if (!ReadFile(file, nullptr)) return fprintf(stderr, "corvane-sql: cannot read '%s': %s\n", file.c_str(), strerror(errno)), 2;
  }
  if (!cl.trace.empty()) {
    std::string error;
    if (!ApplyTraceSetting(cl.trace, &error)) return Usage(error);
  }
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (cl.leakCheck) corvane::platform::StartAllocCounting();
  int status = Run(cl, std::move(inputs), out);
  if (cl.leakCheck) {
    // Every live provider object (a rowset not released...) holds a module lock.
    const auto counts = corvane::platform::CurrentAllocCounts();
    const long objects = corvane::module::LockCount();
    if (counts.comBlocks || counts.bstrs || objects) {
      fprintf(stderr, "leak check: %lld COM blocks, %lld BSTRs and %ld provider objects outstanding\n",
              static_cast<long long>(counts.comBlocks), static_cast<long long>(counts.bstrs), objects);
      status = status ? status : 1;
    }
  }
  CoUninitialize();
  return status;
}
