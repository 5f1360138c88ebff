// Pieces the benchmark programs share: the machine they run on, process memory and CPU
// time, the historian's paged raw read (the floor of every fetch), one statement end to
// end as a report tool runs it, and summaries of repeated timings.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "base/HistorianInterfaces.h"

namespace corvane::bench {

// "CPU model, N cores" from /proc/cpuinfo and the load average from /proc/loadavg.
std::string CpuDescription();
std::string LoadAverage();

// A field of /proc/self/status in bytes ("VmRSS", "VmHWM"), 0 where unknown.
size_t ProcStatusBytes(const char* field);
// Resets the peak resident size (VmHWM) to the current one; false where the kernel
// does not let the process do that.
bool ResetPeakResident();
// CPU time of the whole process (every thread) in seconds.
double ProcessCpuSeconds();

// Reads [first, last] of `tag` to its end in pages of `page` samples as a provider
// would (each page allocated, filled and freed); returns the samples read, and adds the
// last value of each page to *checksum so that nothing is optimised away.
size_t ReadRawPaged(IRawDataProvider* raw, const OLECHAR* tag, ULONGLONG first, ULONGLONG last, ULONG page,
                    double* checksum);

// One statement end to end on `command`: SetCommandText, Prepare, Execute, an accessor
// over every column as VARIANT, GetNextRows of 100 and GetData of every row, ReleaseRows.
// *rows receives the rows read.
HRESULT RunStatement(ICommandText* command, const OLECHAR* text, size_t* rows);

struct Summary {
  size_t count = 0;
  double mean = 0, median = 0, p99 = 0, min = 0, max = 0;
};
Summary Summarise(std::vector<double> values);

// The statements whose latency is measured, over the one-second series of
// bench/SelectConsumer.h (at least eight days of it), the rows each must read and
// its targets: a mean under `meanMs` and at most `faults` page faults per run (0: none).
struct LatencyCase {
  const char* label;
  const OLECHAR* text;
  size_t rows;
  double meanMs;
  double faults;
};
extern const LatencyCase kLatencyCases[6];

// Milliseconds per RunStatement of `c` over `runs` runs after five untimed ones, and
// the minor page faults of a timed run on average. Fails with the statement's HRESULT,
// or E_FAIL when a run reads another number of rows (*rows then says how many).
HRESULT TimeStatement(ICommandText* command, const LatencyCase& c, int runs, Summary* ms, size_t* rows,
                      double* faultsPerRun = nullptr);
// Minor page faults of the process so far.
long MinorFaults();

}  // namespace corvane::bench
