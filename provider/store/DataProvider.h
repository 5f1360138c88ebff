// The base of every virtual table and stored procedure: one worker thread per object
// that reads history step by step and queues produced records, while the consumer's
// fetch takes them into the data store. It also answers whether more rows may come.
//
// Derived classes implement ExecuteStep (one unit of work on the worker thread) and
// GetColumns (the fields of every record they produce), queue records with
// AppendRecords, and when everything is delivered clear the more-data flag and call
// RequestStop from their last step. Their destructor must call StopWorker before their
// own members go away: the worker may be inside ExecuteStep until then.
#pragma once
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/store/RefCountedDataStoreRow.h"
#include "provider/store/StoreValue.h"

// A test that every record passes before it is queued for the fetch, made by execution
// from a WHERE clause. Called on the producing thread only.
class CRecordFilter {
 public:
  virtual ~CRecordFilter() = default;
  // S_OK and whether the record is kept; a failure ends the read with it and Message().
  virtual HRESULT Keep(const ProducedRecord& record, bool* keep) = 0;
  virtual const corvane::WString& Message() const = 0;
};

// Records a producer hands over in a compact form of its own (a page of history as the
// historian gave it, say) rather than one record at a time: what crosses from the
// worker's thread to the fetch's is the compact form (32 bytes a sample against a
// record's 256), and nothing goes back. A store writes the rows' cells from where Layout
// says the fields lie, and asks Make for a record only where it cannot.
class CRecordBatch {
 public:
  // Where a field of the batch's records lies, for a store that reads it there rather than
  // asking for the record: one value for every record, or record i's at base + i * stride.
  struct Field {
    enum Form : uint8_t {
      kElsewhere,  // only Make gives it
      kShared,     // `shared`, the same value in every record
      kTime,       // a FILETIME
      kUI4,        // a 4-byte unsigned number
      kVariant,    // a VARIANT, lent: it stays the batch's
      kText        // a StoredText of characters none of which is zero; a null text: only Make gives it
    };
    Form form = kElsewhere;
    const BYTE* base = nullptr;
    size_t stride = 0;
    const StoreValue* shared = nullptr;
  };

  virtual ~CRecordBatch() = default;
  virtual size_t Count() const = 0;
  // Makes `record` (emptied, or new) the i-th record; each is made at most once.
  virtual HRESULT Make(size_t i, ProducedRecord& record) = 0;
  // Where each field lies, in record order; empty (the default) when only Make gives them.
  virtual std::vector<Field> Layout() const { return {}; }
};
using RecordBatchList = std::vector<std::unique_ptr<CRecordBatch>>;

class CDataProvider {
 public:
  // A fetch waits for the worker at most this long per round; it wakes earlier as soon
  // as records arrive or the worker ends.
  static constexpr uint32_t kFetchWaitMs = 100;

  // `pendingItemSize`: the size in bytes of the work records the derived class queues
  // for its worker (0 when it queues none).
  explicit CDataProvider(size_t pendingItemSize = 0);
  virtual ~CDataProvider();
  CDataProvider(const CDataProvider&) = delete;
  CDataProvider& operator=(const CDataProvider&) = delete;

  // The data store's producer entry: moves the records produced so far into `rows`,
  // waiting for the worker while fewer than `wanted` have been taken and more may come.
  // S_OK when at least `wanted` were taken, DB_S_ENDOFROWSET when the producer has
  // nothing more (with or without rows), or the failure that ended the worker (rows
  // taken in that call are dropped).
  virtual HRESULT FetchRows(ProducedRecordList& rows, size_t wanted);
  // The caller of FetchRows takes batches as they are, with TakeBatches after each
  // FetchRows: FetchRows then counts their records as taken. Without it FetchRows makes
  // the records of a batch itself.
  void AcceptBatches() { m_bAcceptBatches = true; }
  // The batches the last FetchRows took, after its records and in the order produced.
  void TakeBatches(RecordBatchList& batches);
  // 1 while the more-data flag is set, the worker runs, or pending items remain.
  virtual BOOL IsDataPending();
  // Configures the reading and starts it: by default StartWorker, then SignalWorker.
  virtual HRESULT Execute();
  // One unit of work, on the worker thread. A failure ends the worker and is kept as
  // the last result.
  virtual HRESULT ExecuteStep();
  // The fields of every produced record, in record order.
  virtual HRESULT GetColumns(std::vector<ColumnRecord>& columns) = 0;

  // Only records that `filter` keeps are queued from now on: set it before the reading
  // starts. A statement without a condition to test sets none and pays nothing.
  void SetRecordFilter(std::unique_ptr<CRecordFilter> filter);
  // What the consumer is told about the failure that ended the reading, when there is
  // more to say than its HRESULT (a function's message); empty otherwise.
  virtual corvane::WString FailureMessage();

  // The store hands back the records it has written. Their values are dropped here;
  // the emptied records are kept for a producer that reuses them (see
  // EnableRecordReuse), so that a long read does not allocate and free every row on two
  // different threads.
  // `emptied`: the caller has already made every value of `used` kNone and VT_EMPTY.
  void RecycleRecords(ProducedRecordList& used, bool emptied = false);

  HRESULT StartWorker();
  void SignalWorker();
  void StopWorker();

  HRESULT LastResult();
  // Time spent inside ExecuteStep, in nanoseconds.
  uint64_t ElapsedNanoseconds();
  bool IsWorkerRunning();

 protected:
  void SetMoreData(bool more);
  bool MoreData();

  // Queues produced records for the fetch and wakes a waiting fetch; within the
  // worker's step, once when the step returns. With a record filter only the records it
  // keeps are queued; when it fails, the records before the failing one are queued, the
  // failure becomes the last result with its message, and the worker ends after the
  // step (nothing produced later is queued).
  void AppendRecord(ProducedRecord&& record);
  void AppendRecords(ProducedRecordList&& records);
  // Queues a batch as AppendRecords queues its records. With a record filter its records
  // are made and tested here, on the producing thread.
  void AppendBatch(std::unique_ptr<CRecordBatch> batch);
  // Records the failure and its message as the outcome of the reading.
  void SetFailure(HRESULT hr, corvane::WString message);
  size_t QueuedRecordCount();

  // Keep recycled records for TakeSpareRecords (off by default: a producer that never
  // takes them would only hold memory).
  void EnableRecordReuse() { m_bReuseRecords = true; }
  // At most `most` emptied records of earlier batches (values kNone, storage kept), or
  // none.
  ProducedRecordList TakeSpareRecords(size_t most);

  // Work records of `pendingItemSize` bytes, first in first out.
  void PushPendingItem(const void* item);
  bool PopPendingItem(void* item);
  size_t PendingItemCount();

  // Ends the worker once the current step returns (callable from the step itself).
  void RequestStop();
  // Wakes a fetch that waits for records.
  void NotifyRowsAvailable();
  // True when woken by new records or the end of the worker within `timeoutMs`.
  bool WaitForRows(uint32_t timeoutMs);
  // Called by the default fetch after it took records: lets the worker produce the next
  // portion while the consumer reads this one.
  virtual void OnRowsTaken();

  corvane::platform::CriticalSection& StateLock() { return m_StateLock; }

 private:
  static DWORD WorkerLoop(CDataProvider* self);
  void CloseEvents();
  void SignalRows();
  // Runs the filter over `records`: the kept ones stay at the front in their order, the
  // rest are dropped (or kept for reuse). The filter's failure, if it failed: the kept
  // records are those before the failing one.
  HRESULT Filter(ProducedRecordList& records);
  // Appends the records of `batches` to `records`, reusing spare records first; on a
  // failure to make one (memory), those before it.
  HRESULT MakeRecords(RecordBatchList& batches, ProducedRecordList& records);

  corvane::platform::CriticalSection m_StateLock;
  DWORD m_bMoreData = 1;
  size_t m_cbPendingItem;
  std::deque<std::vector<BYTE>> m_PendingItems;
  HRESULT m_hrLastResult = S_OK;
  corvane::WString m_FailureMessage;
  std::unique_ptr<CRecordFilter> m_pFilter;
  ProducedRecordList m_Produced;
  // Batches queued, and after the first one every record too (wrapped in a batch), so
  // that m_Produced is always older than m_Batches.
  RecordBatchList m_Batches;
  size_t m_BatchRecords = 0;  // in m_Batches
  bool m_bAcceptBatches = false;
  RecordBatchList m_Taken;  // the consumer's: taken by FetchRows, not yet by TakeBatches
  size_t m_TakenRecords = 0;
  ProducedRecordList m_Spare;  // one batch of emptied records, for reuse
  bool m_bReuseRecords = false;

  corvane::platform::CriticalSection m_TimeLock;
  uint64_t m_ElapsedTime = 0;

  corvane::platform::WorkerThread m_Thread;
  DWORD m_dwPeriod = 0;
  std::unique_ptr<corvane::platform::Event> m_pStopEvent;
  std::unique_ptr<corvane::platform::Event> m_pWorkEvent;
  corvane::platform::Event m_RowsEvent{corvane::platform::Event::Mode::AutoReset};
  bool m_bRowsHeld = false;  // the worker's step queued records and has not signalled yet
  DWORD m_bRunning = 0;
};
