#include "provider/store/DataProvider.h"

#include <cstring>
#include <new>

#include "base/Trace.h"
#include "platform/System.h"
#include "provider/store/RefCountedDataStoreRow.h"

using corvane::platform::CriticalSectionLock;
using corvane::platform::Event;

namespace {

// The provider whose step the current thread is running, if any.
thread_local CDataProvider* t_pStepping = nullptr;

uint64_t NowNanoseconds() {
  const int64_t ticks = corvane::platform::PerformanceCounter();
  const int64_t freq = corvane::platform::PerformanceFrequency();
  return static_cast<uint64_t>(ticks / freq) * 1000000000ull +
         static_cast<uint64_t>((ticks % freq) * 1000000000ll / freq);
}

}  // namespace

CDataProvider::CDataProvider(size_t pendingItemSize) : m_cbPendingItem(pendingItemSize) {}

CDataProvider::~CDataProvider() {
  StopWorker();
  uint64_t elapsed;
  {
    CriticalSectionLock lock(m_TimeLock);
    elapsed = m_ElapsedTime;
  }
  const uint64_t ms = elapsed / 1000000;
  if (ms != 0) CVTRACE(TRACE_INFO, OLESTR("[DATA PROVIDER] -> Elapsed time = %d ms."), static_cast<int>(ms));
}

HRESULT CDataProvider::StartWorker() {
  {
    CriticalSectionLock lock(m_StateLock);
    if (m_Thread.Joinable() && m_bRunning) {
      // One worker per object: a second start while it runs would pull its events away.
      CVTRACE(TRACE_ERROR, OLESTR("[DATA PROVIDER] -> Failed to initialaze the thread worker, error: %d."), 0);
      return E_FAIL;
    }
  }
  if (m_Thread.Joinable()) m_Thread.Join();  // a worker that already ended
  CloseEvents();

  {
    CriticalSectionLock lock(m_StateLock);
    m_dwPeriod = 0;  // the periodic mode is never entered from here; kept as it is
    m_pStopEvent = std::make_unique<Event>(Event::Mode::ManualReset, false);
    m_pWorkEvent = std::make_unique<Event>(Event::Mode::AutoReset, false);
    // Marked running before the thread exists so that a step failing at once cannot
    // be overwritten by a late "running" mark.
    m_bRunning = 1;
  }
  if (!m_Thread.Start([this] { WorkerLoop(this); }, true)) {
    const int error = corvane::platform::LastSystemError();
    {
      CriticalSectionLock lock(m_StateLock);
      m_bRunning = 0;
    }
    CloseEvents();
    CVTRACE(TRACE_ERROR, OLESTR("[DATA PROVIDER] -> Failed to initialaze the thread worker, error: %d."), error);
    return E_FAIL;
  }
  CVTRACE(TRACE_INFO, OLESTR("[DATA PROVIDER] -> Thread worker initialized."));
  return S_OK;
}

void CDataProvider::SignalWorker() {
  CriticalSectionLock lock(m_StateLock);
  if (m_bRunning && m_dwPeriod == 0 && m_pWorkEvent) m_pWorkEvent->Set();
}

void CDataProvider::RequestStop() {
  CriticalSectionLock lock(m_StateLock);
  if (m_pStopEvent) m_pStopEvent->Set();
}

void CDataProvider::StopWorker() {
  if (m_Thread.Joinable()) {
    {
      CriticalSectionLock lock(m_StateLock);
      if (m_pStopEvent) m_pStopEvent->Set();
    }
    m_Thread.Join();
  }
  CloseEvents();
}

void CDataProvider::CloseEvents() {
  CriticalSectionLock lock(m_StateLock);
  m_pStopEvent.reset();
  m_pWorkEvent.reset();
}

DWORD CDataProvider::WorkerLoop(CDataProvider* self) {
  Event& stop = *self->m_pStopEvent;
  Event& work = *self->m_pWorkEvent;
  auto runStep = [self]() -> bool {
    const uint64_t start = NowNanoseconds();
    t_pStepping = self;
    const HRESULT hr = self->ExecuteStep();
    t_pStepping = nullptr;
    if (self->m_bRowsHeld) {
      // One wake-up for all the records of the step, not one per record.
      self->m_bRowsHeld = false;
      self->m_RowsEvent.Set();
    }
    const uint64_t spent = NowNanoseconds() - start;
    {
      CriticalSectionLock lock(self->m_TimeLock);
      self->m_ElapsedTime += spent;
    }
    if (FAILED(hr)) {
      CriticalSectionLock lock(self->m_StateLock);
      self->m_hrLastResult = hr;
      return false;
    }
    return true;
  };

  if (self->m_dwPeriod != 0) {
    CVTRACE(TRACE_INFO, OLESTR("[DATA PROVIDER] -> Thread worker started (periodic)."));
    while (!stop.Wait(self->m_dwPeriod)) {
      if (!runStep()) break;
    }
  } else {
    CVTRACE(TRACE_INFO, OLESTR("[DATA PROVIDER] -> Thread worker started (event driven)."));
    for (;;) {
      const int which = Event::WaitEither(stop, work);
      if (which != 1) break;  // the stop event wins when both are set
      if (!runStep()) break;
    }
  }

  {
    CriticalSectionLock lock(self->m_StateLock);
    self->m_bRunning = 0;
  }
  CVTRACE(TRACE_INFO, OLESTR("[DATA PROVIDER] -> Thread worker finished."));
  self->m_RowsEvent.Set();  // a fetch waiting for rows learns that none will come
  return 0;
}

BOOL CDataProvider::IsDataPending() {
  CriticalSectionLock lock(m_StateLock);
  if (m_bMoreData) return 1;
  if (m_bRunning) return 1;
  return m_PendingItems.empty() ? 0 : 1;
}

HRESULT CDataProvider::Execute() {
  const HRESULT hr = StartWorker();
  if (FAILED(hr)) return hr;
  SignalWorker();
  return S_OK;
}

HRESULT CDataProvider::ExecuteStep() { return E_NOTIMPL; }

HRESULT CDataProvider::FetchRows(ProducedRecordList& rows, size_t wanted) {
  for (;;) {
    bool took = false;
    bool pending;
    HRESULT last;
    RecordBatchList batches;
    {
      CriticalSectionLock lock(m_StateLock);
      if (!m_Produced.empty()) {
        took = true;
        if (rows.empty()) {
          rows.swap(m_Produced);
        } else {
          for (ProducedRecord& r : m_Produced) rows.push_back(std::move(r));
          m_Produced.clear();
        }
      }
      if (!m_Batches.empty()) {
        took = true;
        batches.swap(m_Batches);
        if (m_bAcceptBatches) m_TakenRecords += m_BatchRecords;
        m_BatchRecords = 0;
      }
      last = m_hrLastResult;
      pending = IsDataPending() != 0;
    }
    if (!batches.empty()) {
      if (m_bAcceptBatches) {
        for (auto& batch : batches) m_Taken.push_back(std::move(batch));
      } else {
        const HRESULT made = MakeRecords(batches, rows);
        if (FAILED(made)) {
          SetFailure(made, corvane::WString());
          last = made;
        }
      }
    }
    if (FAILED(last)) {
      // What the worker queued before it failed was read well: it goes out first, and
      // the failure comes with the next fetch, which finds nothing queued.
      if (!rows.empty() || m_TakenRecords != 0) return S_OK;
      return last;
    }
    if (took) OnRowsTaken();
    if (rows.size() + m_TakenRecords >= wanted) return S_OK;
    if (!pending) {
      // The worker may have queued its last records between the take and the check.
      CriticalSectionLock lock(m_StateLock);
      if (m_Produced.empty() && m_Batches.empty()) return DB_S_ENDOFROWSET;
      continue;
    }
    WaitForRows(kFetchWaitMs);
  }
}

void CDataProvider::TakeBatches(RecordBatchList& batches) {
  for (auto& batch : m_Taken) batches.push_back(std::move(batch));
  m_Taken.clear();
  m_TakenRecords = 0;
}

void CDataProvider::OnRowsTaken() {
  if (MoreData()) SignalWorker();
}

HRESULT CDataProvider::LastResult() {
  CriticalSectionLock lock(m_StateLock);
  return m_hrLastResult;
}

uint64_t CDataProvider::ElapsedNanoseconds() {
  CriticalSectionLock lock(m_TimeLock);
  return m_ElapsedTime;
}

bool CDataProvider::IsWorkerRunning() {
  CriticalSectionLock lock(m_StateLock);
  return m_bRunning != 0;
}

void CDataProvider::SetMoreData(bool more) {
  CriticalSectionLock lock(m_StateLock);
  m_bMoreData = more ? 1 : 0;
}

bool CDataProvider::MoreData() {
  CriticalSectionLock lock(m_StateLock);
  return m_bMoreData != 0;
}

void CDataProvider::SetRecordFilter(std::unique_ptr<CRecordFilter> filter) { m_pFilter = std::move(filter); }

corvane::WString CDataProvider::FailureMessage() {
  CriticalSectionLock lock(m_StateLock);
  return m_FailureMessage;
}

void CDataProvider::SetFailure(HRESULT hr, corvane::WString message) {
  {
    CriticalSectionLock lock(m_StateLock);
    m_hrLastResult = hr;
    m_FailureMessage = std::move(message);
    m_bMoreData = 0;
  }
  RequestStop();
}

HRESULT CDataProvider::Filter(ProducedRecordList& records) {
  size_t kept = 0;
  HRESULT hr = S_OK;
  for (size_t i = 0; i < records.size(); ++i) {
    bool keep = false;
    hr = m_pFilter->Keep(records[i], &keep);
    if (FAILED(hr)) break;
    if (!keep) continue;
    if (kept != i) records[kept].swap(records[i]);
    ++kept;
  }
  if (m_bReuseRecords && kept < records.size()) {
    for (size_t i = kept; i < records.size(); ++i)
      for (StoreValue& value : records[i]) value.Reset();
    CriticalSectionLock lock(m_StateLock);
    for (size_t i = kept; i < records.size(); ++i) m_Spare.push_back(std::move(records[i]));
  }
  records.resize(kept);
  return hr;
}

namespace {
// Records queued behind a batch: they wait in the batches' queue, as a batch too.
class CRecordListBatch : public CRecordBatch {
 public:
  explicit CRecordListBatch(ProducedRecordList&& records) : m_Records(std::move(records)) {}
  size_t Count() const override { return m_Records.size(); }
  HRESULT Make(size_t i, ProducedRecord& record) override {
    record.swap(m_Records[i]);
    return S_OK;
  }

 private:
  ProducedRecordList m_Records;
};
}  // namespace

void CDataProvider::AppendRecord(ProducedRecord&& record) {
  if (m_pFilter) {
    ProducedRecordList one;
    one.push_back(std::move(record));
    AppendRecords(std::move(one));
    return;
  }
  {
    CriticalSectionLock lock(m_StateLock);
    if (m_Batches.empty()) {
      m_Produced.push_back(std::move(record));
    } else {
      ProducedRecordList one;
      one.push_back(std::move(record));
      m_BatchRecords += 1;
      m_Batches.push_back(std::make_unique<CRecordListBatch>(std::move(one)));
    }
  }
  SignalRows();
}

void CDataProvider::SignalRows() {
  // Inside a step the worker signals once when the step ends: a fetch woken for every
  // record takes one and waits again, a thread switch per record.
  if (t_pStepping == this) {
    m_bRowsHeld = true;
  } else {
    m_RowsEvent.Set();
  }
}

HRESULT CDataProvider::MakeRecords(RecordBatchList& batches, ProducedRecordList& records) {
  size_t count = 0;
  for (const auto& batch : batches) count += batch->Count();
  ProducedRecordList spare = TakeSpareRecords(count);
  HRESULT hr = S_OK;
  try {
    records.reserve(records.size() + count);
    for (const auto& batch : batches) {
      for (size_t i = 0; i < batch->Count() && SUCCEEDED(hr); ++i) {
        if (spare.empty()) {
          records.emplace_back();
        } else {
          records.push_back(std::move(spare.back()));
          spare.pop_back();
        }
        hr = batch->Make(i, records.back());
        if (FAILED(hr)) records.pop_back();
      }
    }
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  batches.clear();
  return hr;
}

void CDataProvider::AppendBatch(std::unique_ptr<CRecordBatch> batch) {
  if (!batch || batch->Count() == 0) return;
  if (m_pFilter) {
    // The filter tests records: the batch's are made here, and those it keeps are queued.
    RecordBatchList one;
    one.push_back(std::move(batch));
    ProducedRecordList records;
    const HRESULT hr = MakeRecords(one, records);
    AppendRecords(std::move(records));
    if (FAILED(hr)) SetFailure(hr, corvane::WString());
    return;
  }
  {
    CriticalSectionLock lock(m_StateLock);
    m_BatchRecords += batch->Count();
    m_Batches.push_back(std::move(batch));
  }
  SignalRows();
}

void CDataProvider::AppendRecords(ProducedRecordList&& records) {
  HRESULT failed = S_OK;
  if (m_pFilter) {
    if (FAILED(LastResult())) {
      records.clear();  // the reading already ended with the filter's failure
      return;
    }
    failed = Filter(records);
  }
  const bool queued = !records.empty();
  if (queued) {
    CriticalSectionLock lock(m_StateLock);
    if (!m_Batches.empty()) {
      // Behind a batch not yet taken: in the batches' queue, so that the order holds.
      m_BatchRecords += records.size();
      m_Batches.push_back(std::make_unique<CRecordListBatch>(std::move(records)));
    } else if (m_Produced.empty()) {
      m_Produced.swap(records);
    } else {
      for (ProducedRecord& r : records) m_Produced.push_back(std::move(r));
    }
  }
  // The failure is made known only after the records before it are queued: a fetch that
  // saw it first would end the rowset without them.
  if (FAILED(failed)) SetFailure(failed, m_pFilter->Message());
  if (!queued) return;
  records.clear();
  SignalRows();
}

void CDataProvider::RecycleRecords(ProducedRecordList& used, bool emptied) {
  if (!m_bReuseRecords) {
    used.clear();
    return;
  }
  // Values are dropped on the caller's thread, outside the lock the worker needs. Most
  // hold a number, a time or lent text: nothing to free, so no call to VariantClear; and
  // records the store emptied while reading them are not looked at again.
  if (!emptied) {
    for (ProducedRecord& record : used) {
      for (StoreValue& value : record) {
        if (CRefCountedDataStoreRow::OwnsNothing(V_VT(&value.Value))) {
          V_VT(&value.Value) = VT_EMPTY;
          value.Kind = StoreValue::kNone;
        } else {
          value.Reset();
        }
      }
    }
  }
  {
    // Every emptied record is kept, not only one batch: a worker that has not yet taken
    // the last batch would otherwise make new records while these are freed. The spare
    // records are never more than the worker's read-ahead, which is bounded.
    CriticalSectionLock lock(m_StateLock);
    if (m_Spare.empty()) {
      m_Spare.swap(used);
    } else {
      try {
        m_Spare.reserve(m_Spare.size() + used.size());
        for (ProducedRecord& record : used) m_Spare.push_back(std::move(record));
      } catch (const std::bad_alloc&) {
        // Not kept: they are freed below.
      }
    }
  }
  used.clear();
}

ProducedRecordList CDataProvider::TakeSpareRecords(size_t most) {
  ProducedRecordList spare;
  CriticalSectionLock lock(m_StateLock);
  if (m_Spare.size() <= most) {
    spare.swap(m_Spare);
    return spare;
  }
  // The rest stay for the next step: a step that dropped them would free records only
  // to make them again one page later.
  try {
    spare.reserve(most);
    const size_t keep = m_Spare.size() - most;
    for (size_t i = keep; i < m_Spare.size(); ++i) spare.push_back(std::move(m_Spare[i]));
    m_Spare.resize(keep);
  } catch (const std::bad_alloc&) {
    spare.clear();  // the step makes its own records
  }
  return spare;
}

size_t CDataProvider::QueuedRecordCount() {
  CriticalSectionLock lock(m_StateLock);
  return m_Produced.size() + m_BatchRecords;
}

void CDataProvider::PushPendingItem(const void* item) {
  const BYTE* bytes = static_cast<const BYTE*>(item);
  CriticalSectionLock lock(m_StateLock);
  m_PendingItems.emplace_back(bytes, bytes + m_cbPendingItem);
}

bool CDataProvider::PopPendingItem(void* item) {
  CriticalSectionLock lock(m_StateLock);
  if (m_PendingItems.empty()) return false;
  if (m_cbPendingItem != 0) std::memcpy(item, m_PendingItems.front().data(), m_cbPendingItem);
  m_PendingItems.pop_front();
  return true;
}

size_t CDataProvider::PendingItemCount() {
  CriticalSectionLock lock(m_StateLock);
  return m_PendingItems.size();
}

void CDataProvider::NotifyRowsAvailable() { m_RowsEvent.Set(); }

bool CDataProvider::WaitForRows(uint32_t timeoutMs) { return m_RowsEvent.Wait(timeoutMs); }
