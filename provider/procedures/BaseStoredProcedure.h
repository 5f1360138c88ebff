// The base of every stored procedure: checks and evaluates the call's arguments
// against the catalog, turns the time arguments into a queue of time ranges (chunked so
// that one read never asks for more intervals than the page size), builds tag
// identities, and serves the fetch while the worker reads one range per step.
#pragma once
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLQueryInfo.h"
#include "platform/Platform.h"
#include "platform/Sync.h"
#include "platform/WideString.h"
#include "base/ComPtr.h"
#include "base/HistorianInterfaces.h"
#include "provider/IProviderDataSource.h"
#include "base/Trace.h"
#include "provider/procedures/ProcedureCatalog.h"
#include "provider/store/DataProvider.h"

// A trace line that names the procedure's own source file, so that shared code in a
// base class still reports under the procedure that runs it.
#define SPTRACE(source, level, ...)                                                             \
  do {                                                                                          \
    if ((level) >= ::corvane::detail::g_traceThreshold.load(std::memory_order_relaxed) &&       \
        OTraceMsg::BeginTrace(::corvane::ModuleTrace(), (level), (source), __LINE__))           \
      OTraceMsg::TraceMsg(__VA_ARGS__);                                                         \
  } while (0)

// Returned when a procedure needs the historian's stored-values interface and the host
// has none (the Win32 "element not found" code).
constexpr HRESULT kValuesProviderMissing = static_cast<HRESULT>(0x80070490L);

// An argument after evaluation and conversion to its parameter's type.
struct ParamValue {
  enum : int { kNone = 0, kTimestamp = 1, kText = 2, kVariantText = 3, kDouble = 4, kInteger = 6 };
  int Kind = kNone;
  DBTIMESTAMP Timestamp{};
  corvane::WString Text;
  double Double = 0;
  ULONG Integer = 0;

  bool IsText() const { return Kind == kText || Kind == kVariantText; }
};

struct TimeRangeChunk {
  FILETIME Start;
  FILETIME End;
  double PeriodMs;
};

class CBaseStoredProcedure : public CDataProvider {
 public:
  // What the procedure is made from; the arguments are bound (and `?` values copied)
  // here, so nothing of the query is read later.
  CBaseStoredProcedure(const char* traceSource, const CSQLQueryInfo* query, const CSQLSelectItemSP* item,
                       const SQLBindContext& context, IProviderDataSource* dataSource, corvane::WString catalog,
                       corvane::WString schema);
  ~CBaseStoredProcedure() override;

  // Runs the checks and the start of the reading once (Initialize); later calls return
  // the first outcome.
  HRESULT Execute() override;
  // Initializes on the first call, then takes the rows produced so far and waits for
  // more (at most kFetchWaitMs per round, woken by new rows) while the procedure runs
  // and fewer than `wanted` were taken.
  HRESULT FetchRows(ProducedRecordList& rows, size_t wanted) override;
  HRESULT GetColumns(std::vector<ColumnRecord>& columns) override;

  // True while no step failed and the worker runs or time ranges remain.
  virtual bool IsRunning();
  // Checks the arguments and either starts the worker or does all the work.
  virtual HRESULT Initialize() = 0;
  HRESULT ExecuteStep() override { return E_NOTIMPL; }

  HRESULT ProcessParameters(size_t expectedCount, const std::vector<ProcedureParameterInfo>& table);
  HRESULT BuildTimeRanges(long startPosition, long endPosition, long periodPosition);
  HRESULT ParseTagParameter(TagIdent** ident);
  HRESULT MakeTagIdent(const corvane::WString& text, TagIdent* ident);
  HRESULT ParseWriteValue(HistoryValue* value);
  HRESULT PopTimeRange(FILETIME* start, FILETIME* end);

  size_t ParameterCount() const { return m_Parameters.size(); }
  const ParamValue* Parameter(long position) const;
  size_t TimeRangeCount();
  // The procedure's catalog entry, given by the factory that made it from that entry.
  void SetCatalogEntry(const ProcedureInfo* info);
  const ProcedureInfo& Info() const;
  const corvane::WString& Name() const { return m_Name; }

 protected:
  // The text of a parameter of a text kind, else empty.
  corvane::WString TextParameter(long position) const;
  // The FILETIME of a timestamp parameter, else 1900-01-01 00:00:00.
  FILETIME TimeParameter(long position) const;
  // Every position 1..count holds a value and exactly `count` are stored.
  bool HasAllParameters(size_t count) const;
  // Frees the three strings of a TagIdent made by MakeTagIdent (the block stays).
  static void ClearTagIdent(TagIdent* ident);
  // Frees a block made by ParseTagParameter and nulls the pointer.
  static void FreeTagBlock(TagIdent** ident);

  // Fills the request from the front time range; see the aggregate procedures.
  HRESULT PrepareProcessedRequest(bool consume, ProcessedReadRequest* request);
  // Ends the reading: no more data, the worker stops after this step.
  void SetDone();
  // Wakes the worker for another step unless the consumer has plenty to read already.
  void ContinueReading();
  void AppendRow(ProducedRecord&& row) { AppendRecord(std::move(row)); }
  // Rows queued beyond which a step waits for the consumer before reading on.
  static constexpr size_t kReadAheadRows = 2000;

  static StoreValue TimeCell(const FILETIME& time) { return StoreValue::FromTime(time); }
  static StoreValue UnsignedCell(ULONG value);
  static StoreValue TextCell(const OLECHAR* text);
  static HRESULT CopyCell(const VARIANT& value, StoreValue* cell);

  const char* m_szTraceSource;
  corvane::WString m_Catalog;
  corvane::WString m_Schema;
  corvane::ComPtr<IProviderDataSource> m_pDataSource;
  corvane::ComPtr<IRawDataProvider> m_pRaw;
  corvane::ComPtr<IProcessedDataProvider> m_pProcessed;
  corvane::ComPtr<IValuesProvider> m_pValues;
  corvane::platform::CriticalSection m_FetchLock;

 private:
  HRESULT ConvertParameter(SQLEvaluationResult& result, DBTYPE type, ParamValue* value);

  const ProcedureInfo* m_pInfo = nullptr;  // the catalog's own entry: it lives as long as the process
  corvane::WString m_Name;                  // the entry's name, or the item's while there is none
  bool m_bSingleProcedure = false;
  bool m_bItemMissing = false;
  // The arguments bound at construction, with the outcome of binding each.
  std::vector<std::unique_ptr<CSQLCalcItem>> m_BoundArguments;
  std::vector<HRESULT> m_BindResults;

  std::map<long, ParamValue> m_Parameters;
  // The chunks still to read, made one at a time as they are taken: a long range at a
  // short period would otherwise queue millions of them before the first row.
  struct PendingRanges {
    bool any = false;
    FILETIME start{}, end{};  // the whole range when it is read at once (step 0)
    ULONG64 next = 0, last = 0, step = 0;
    double periodMs = 0;
    bool Front(TimeRangeChunk* chunk) const;
    void Pop();
    size_t Count() const;
  };
  PendingRanges m_TimeRanges;

  bool m_bFirstRun = true;
  HRESULT m_hrInitialize = S_OK;
};
