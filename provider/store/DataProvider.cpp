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

// Empties a record for reuse, keeping its storage. Most values hold a number, a time or
// lent text: nothing to free, so no call to VariantClear.
void EmptyRecord(ProducedRecord& record) {
  for (StoreValue& value : record) {
    if (CRefCountedDataStoreRow::OwnsNothing(V_VT(&value.Value))) {
      V_VT(&value.Value) = VT_EMPTY;
      value.Kind = StoreValue::kNone;
    } else {
      value.Reset();
    }
  }
}

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
    self->EndStep(SUCCEEDED(hr));
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

template <class Take, class Queued>
HRESULT CDataProvider::WaitAndTake(size_t wanted, size_t held, Take take, Queued queued) {
  for (;;) {
    bool took;
    bool pending;
    HRESULT last;
    {
      CriticalSectionLock lock(m_StateLock);
      const size_t now = take();
      took = now != held;
      held = now;
      last = m_hrLastResult;
      pending = IsDataPending() != 0;
    }
    if (FAILED(last)) {
      // What the worker queued before it failed was read well: it goes out first, and
      // the failure comes with the next fetch, which finds nothing queued.
      if (held != 0) return S_OK;
      return last;
    }
    if (took) OnRowsTaken();
    if (held >= wanted) return S_OK;
    if (!pending) {
      // The worker may have queued its last records between the take and the check.
      CriticalSectionLock lock(m_StateLock);
      if (!queued()) return DB_S_ENDOFROWSET;
      continue;
    }
    WaitForRows(kFetchWaitMs);
  }
}

HRESULT CDataProvider::FetchRows(ProducedRecordList& rows, size_t wanted) {
  return WaitAndTake(
      wanted, rows.size(),
      [&] {
        if (rows.empty()) {
          rows.swap(m_Produced);
        } else {
          for (ProducedRecord& r : m_Produced) rows.push_back(std::move(r));
          m_Produced.clear();
        }
        return rows.size();
      },
      [&] { return !m_Produced.empty(); });
}

bool CDataProvider::SetRowFiller(CRowFiller* filler) {
  if (!m_bFillRows) return false;
  CriticalSectionLock lock(m_StateLock);
  m_pFiller = filler;
  return true;
}

HRESULT CDataProvider::FetchFilledRows(CRefCountedDataStoreRow::Queue& rows, size_t wanted) {
  return WaitAndTake(
      wanted, rows.size(),
      [&] {
        TakeFilled(rows);
        return rows.size();
      },
      [&] { return !m_Produced.empty() || !m_Filled.empty(); });
}

HRESULT CDataProvider::TakeFilled(CRefCountedDataStoreRow::Queue& rows) {
  if (!m_Produced.empty() && m_pFiller) {
    // Queued before the filler was set, so before every filled row.
    CRefCountedDataStoreRow::Queue made;
    const HRESULT hr = m_pFiller->FillRows(m_Produced.data(), m_Produced.size(), made);
    m_Produced.clear();
    if (FAILED(hr)) {
      made.ReleaseAll();
      m_Filled.ReleaseAll();
      m_hrLastResult = hr;
      m_bMoreData = 0;
      if (m_pStopEvent) m_pStopEvent->Set();
      return hr;
    }
    rows.splice(made);
  }
  rows.splice(m_Filled);
  return S_OK;
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

size_t CDataProvider::KeepFiltered(ProducedRecordList& records, HRESULT* failure) {
  size_t kept = 0;
  *failure = S_OK;
  for (size_t i = 0; i < records.size(); ++i) {
    bool keep = false;
    *failure = m_pFilter->Keep(records[i], &keep);
    if (FAILED(*failure)) break;
    if (!keep) continue;
    if (kept != i) records[kept].swap(records[i]);
    ++kept;
  }
  return kept;
}

void CDataProvider::DropFiltered(ProducedRecordList& records, size_t kept) {
  if (m_bReuseRecords && kept < records.size()) {
    for (size_t i = kept; i < records.size(); ++i) EmptyRecord(records[i]);
    CriticalSectionLock lock(m_StateLock);
    for (size_t i = kept; i < records.size(); ++i) m_Spare.push_back(std::move(records[i]));
  }
  records.resize(kept);
}

bool CDataProvider::Filter(ProducedRecordList& records) {
  HRESULT hr;
  DropFiltered(records, KeepFiltered(records, &hr));
  if (FAILED(hr)) SetFailure(hr, m_pFilter->Message());
  return SUCCEEDED(hr);
}

void CDataProvider::AppendRecord(ProducedRecord&& record) {
  if (m_pFilter || m_bFillRows) {
    ProducedRecordList one;
    one.push_back(std::move(record));
    AppendRecords(std::move(one));
    return;
  }
  {
    CriticalSectionLock lock(m_StateLock);
    m_Produced.push_back(std::move(record));
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

void CDataProvider::AppendRecords(ProducedRecordList&& records) {
  if (m_pFilter) {
    if (FAILED(LastResult())) {
      records.clear();  // the reading already ended with the filter's failure
      return;
    }
    Filter(records);
  }
  if (records.empty()) return;
  CRowFiller* filler;
  {
    CriticalSectionLock lock(m_StateLock);
    filler = m_pFiller;
    if (!filler) {
      if (m_Produced.empty()) {
        m_Produced.swap(records);
      } else {
        for (ProducedRecord& r : records) m_Produced.push_back(std::move(r));
      }
    }
  }
  if (filler) {
    CRefCountedDataStoreRow::Queue rows;
    const HRESULT hr = filler->FillRows(records.data(), records.size(), rows);
    {
      CriticalSectionLock lock(m_StateLock);
      m_Filled.splice(rows);
    }
    if (FAILED(hr)) SetFailure(hr, corvane::WString());
  }
  records.clear();
  SignalRows();
}

void CDataProvider::QueueRecords(ProducedRecordList& records) {
  if (t_pStepping != this) {
    AppendRecords(std::move(records));
    records.clear();
    return;
  }
  CRowFiller* filler;
  HRESULT last;
  {
    CriticalSectionLock lock(m_StateLock);
    filler = m_pFiller;
    last = m_hrLastResult;
  }
  if (FAILED(last) || FAILED(m_StepFailure)) {
    records.clear();  // the reading already ended; nothing produced later is queued
    return;
  }
  // A failure found here becomes the reading's outcome only together with the rows
  // before it (EndStep): a fetch must never see it while those rows are still held.
  HRESULT failure = S_OK;
  const size_t kept = m_pFilter ? KeepFiltered(records, &failure) : records.size();
  if (FAILED(failure)) m_StepFailureMessage = m_pFilter->Message();
  if (!filler) {
    DropFiltered(records, kept);
    for (ProducedRecord& r : records) m_StepRecords.push_back(std::move(r));
    records.clear();
  } else {
    // Written into rows here, while the records are fresh in this thread's cache, and
    // emptied for the step's next portion, those the filter dropped too: no record
    // crosses to the consumer's thread.
    const HRESULT hr = kept ? filler->FillRows(records.data(), kept, m_StepRows) : S_OK;
    for (ProducedRecord& record : records) EmptyRecord(record);
    if (SUCCEEDED(failure)) failure = hr;
  }
  m_StepFailure = failure;
}

void CDataProvider::EndStep(bool succeeded) {
  const HRESULT failure = m_StepFailure;
  m_StepFailure = S_OK;
  if (!succeeded) {
    // A failed step queues nothing, as if it had stopped before its first record.
    m_StepRows.ReleaseAll();
    m_StepRecords.clear();
    if (FAILED(failure)) SetFailure(failure, std::move(m_StepFailureMessage));
    return;
  }
  if (m_StepRows.empty() && m_StepRecords.empty() && SUCCEEDED(failure)) return;
  {
    CriticalSectionLock lock(m_StateLock);
    m_Filled.splice(m_StepRows);
    if (m_Produced.empty()) {
      m_Produced.swap(m_StepRecords);
    } else {
      for (ProducedRecord& r : m_StepRecords) m_Produced.push_back(std::move(r));
    }
    if (FAILED(failure)) {
      m_hrLastResult = failure;
      m_FailureMessage = std::move(m_StepFailureMessage);
      m_bMoreData = 0;
    }
  }
  m_StepRecords.clear();
  m_StepFailureMessage.clear();
  if (FAILED(failure)) RequestStop();
  m_bRowsHeld = true;
}

void CDataProvider::RecycleRecords(ProducedRecordList& used) {
  if (!m_bReuseRecords) {
    used.clear();
    return;
  }
  // Values are dropped on the caller's thread, outside the lock the worker needs.
  for (ProducedRecord& record : used) EmptyRecord(record);
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
  // The step's own portions count too: they are queued as soon as it returns.
  const size_t held = t_pStepping == this ? m_StepRows.size() + m_StepRecords.size() : 0;
  CriticalSectionLock lock(m_StateLock);
  return held + m_Produced.size() + m_Filled.size();
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
