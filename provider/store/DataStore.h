// The in-memory, forward-only row queue behind every rowset: it lays out rows from the
// column records of a table or procedure, fills them from the records its producer
// hands over, gives them out in batches and copies cells into consumer buffers
// through the data conversion service. Rows leave the queue when handed out; the
// store never rewinds.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"
#include "provider/store/DataProvider.h"
#include "provider/store/RefCountedDataStoreRow.h"
#include "provider/store/Stopwatch.h"
#include "provider/store/StoreValue.h"

class CDataStore {
 public:
  static constexpr size_t kNotFound = static_cast<size_t>(-1);
  static constexpr BYTE kStatusNull = 0;
  static constexpr BYTE kStatusTruncated = 254;
  static constexpr BYTE kStatusValue = 255;

  CDataStore();
  ~CDataStore();
  CDataStore(const CDataStore&) = delete;
  CDataStore& operator=(const CDataStore&) = delete;

  // Lays out the rows for `columns`: the column description, the cell offsets and the
  // row size. E_OUTOFMEMORY (and no columns) when the description cannot be allocated.
  HRESULT BuildColumnInfo(const std::vector<ColumnRecord>& columns);

  // Builds the layout for `columns` and takes `producer` as the source of rows: the
  // store's columns are matched by name and ordinal (FindColumn) to the fields of the
  // producer's records. `maxRows` (0: no limit) ends the rows after that many.
  HRESULT Initialize(std::unique_ptr<CDataProvider> producer, const std::vector<ColumnRecord>& columns,
                     ULONGLONG maxRows = 0);

  // Sets *index to the column named `name` (as ColumnName or ColumnAlias, ignoring
  // case): the first such column with `ordinal`, else the last such column, else
  // kNotFound. E_FAIL for a null name.
  static HRESULT FindColumn(const std::vector<ColumnRecord>& columns, const OLECHAR* name, ULONGLONG ordinal,
                            size_t* index);

  // Stores one cell. False for a value of the wrong type or a column type the store
  // does not hold (the cell is left as it was); true otherwise, also when the cell was
  // marked null.
  bool SetValue(const StoreValue& value, const DataStoreColumnInfo& rColInfo, CRefCountedDataStoreRow* row);

  // Hands out rows: skips `skip` rows (freed), then moves at most `count` rows to
  // `rows` (each with the reference the queue held). S_OK when `count` rows were
  // delivered, DB_S_ENDOFROWSET otherwise, or the producer's failure.
  HRESULT GetNextRows(ULONGLONG skip, ULONGLONG count, std::vector<CRefCountedDataStoreRow*>& rows);

  // What GetData does for one binding, decided once for an accessor from the binding
  // and the column it reads: a plain copy of the cell when the conversion service
  // would only copy it, else the general path. A plain copy still falls back to the
  // general path for a value that needs the service.
  struct BindingStep {
    // The copy's width is part of the kind so that a copy is one switch, not two.
    enum Kind : uint8_t {
      kGeneral,
      kFixed1, kFixed2, kFixed4, kFixed8,  // the cell as it is
      kTimestamp,
      kWideText,
      kVariant,
      kVariant1, kVariant2, kVariant4, kVariant8  // the value of a VARIANT of type `vt`
    };
    Kind kind = kGeneral;
    uint8_t size = 0;       // bytes copied by the fixed and VARIANT-value kinds
    VARTYPE vt = VT_EMPTY;  // the VARIANT type kVariant1..8 copy from
    bool length = false;      // the binding's parts: length
    bool state = false;       // and status
    DBBYTEOFFSET status = 0;  // the column's status byte in the row
    DBBYTEOFFSET value = 0;   // the column's value in the row
    // The binding's offsets and room, so that a copy reads the plan alone.
    DBBYTEOFFSET obValue = 0;
    DBBYTEOFFSET obLength = 0;
    DBBYTEOFFSET obStatus = 0;
    DBLENGTH maxLen = 0;
    // This step and every later one copy without the service and bind length and
    // status: the usual accessor, which CopyPlanned runs without asking per binding.
    bool plainRest = false;
    // On the first step of a plan whose steps are all plain: the bytes of the row's
    // first word that hold the bound columns' statuses. A row whose bound columns all
    // hold values is told by one compare, not one a binding. 0 when a status lies past
    // that word.
    uint64_t valuesMask = 0;
  };
  // The plan for `bindings` against the current layout, one step per binding.
  // LayoutGeneration() changes with the layout, and a plan made before no longer fits.
  std::vector<BindingStep> PlanBindings(const DBBINDING* bindings, DBCOUNTITEM count) const;
  uint64_t LayoutGeneration() const { return m_LayoutGeneration; }

  // Copies the bound cells of `row` into `buffer`. `plan`, when given, was made by
  // PlanBindings for these bindings and this layout generation.
  HRESULT GetData(const DBBINDING* bindings, DBCOUNTITEM count, CRefCountedDataStoreRow* row, BYTE* buffer,
                  const BindingStep* plan = nullptr);
  // GetData of a row whose bindings the plan copies without the conversion service,
  // as it is for nearly every row: true and S_OK's result when every binding was
  // copied. It reads only the row, the plan and the bindings, which do not change
  // while the consumer holds the row and the accessor, so several threads may call it
  // at once and at the same time as the store is filled. False when a binding needs
  // the general path (a text longer than the consumer's buffer, a VARIANT that owns
  // memory, detail tracing): GetData then does the whole call.
  bool CopyPlanned(const DBBINDING* bindings, DBCOUNTITEM count, const BindingStep* plan,
                   const CRefCountedDataStoreRow* row, BYTE* buffer);

  // Drops every queued row and stops the stopwatch.
  void Clear();

  // Appends a row filled from `record`: fields in the producer's order when the store
  // has one, else in column order. For results made without a worker.
  HRESULT AppendRecord(const ProducedRecord& record);
  // Marks the end of the rows: no producer will be asked again.
  void SetEndOfData() { m_bEndOfData = true; }

  const DataStoreColumnInfo* ColumnInfo() const { return m_pColumnInfo; }
  DBORDINAL ColumnCount() const { return m_cColumns; }
  DBLENGTH RowSize() const { return m_cbRowSize; }
  size_t QueuedRowCount() const { return m_ReadRows.size(); }
  bool EndOfData() const { return m_bEndOfData; }
  CDataProvider* Producer() const { return m_pProducer.get(); }
  uint64_t ElapsedNanoseconds();

  static HRESULT FileTimeToDate(const FILETIME& time, VARIANT* date);
  static corvane::WString SystemTimeToText(const SYSTEMTIME& time);

 private:
  // The rows filled and not yet handed out, first in first out. An array of pointers,
  // not a list through the rows: handing out a thousand rows would otherwise wait for
  // each row's line in turn. Its room is kept, so a steady read allocates nothing.
  class RowQueue {
   public:
    size_t size() const { return m_Rows.size() - m_Head; }
    bool empty() const { return m_Head == m_Rows.size(); }
    // Room for `more` rows, so that as many push_back calls cannot fail. Throws
    // std::bad_alloc.
    void Reserve(size_t more);
    void push_back(CRefCountedDataStoreRow* row) { m_Rows.push_back(row); }
    CRefCountedDataStoreRow* pop_front();
    // Appends the first `n` rows (n <= size()) to `out`, which has room for them.
    void MoveFront(size_t n, std::vector<CRefCountedDataStoreRow*>& out);

   private:
    std::vector<CRefCountedDataStoreRow*> m_Rows;
    size_t m_Head = 0;  // the first row not yet handed out
  };
  // How writing one cell ended: written (or marked null), failed after the value was
  // looked at, or refused for its type before anything was touched.
  enum class CellWrite { Written, Failed, Refused };
  // Times a run of cell writes as if each had started and stopped the stopwatch itself.
  class CellRunTimer;

  static bool CopyVerbatim(DBTYPE colType, DBTYPE bindType, const BYTE* source, BYTE* dst, DBLENGTH* length);
  // One binding through the general path: null cells, provider-owned pointers and the
  // conversion service. S_OK or S_FALSE (the binding failed, its status says why), or
  // a failure that ends the whole call.
  HRESULT GetBinding(const DBBINDING& b, const BYTE* rowBuffer, DBLENGTH rowSize, BYTE* buffer);
  void TracePlannedCopy(const DBBINDING& b, DBLENGTH cbCol);
  CellWrite WriteCell(const StoreValue& value, const DataStoreColumnInfo& rColInfo, CRefCountedDataStoreRow* row);
  // WriteCell for the common cells of history rows; false (nothing written) otherwise.
  bool WriteCommonCell(const StoreValue& value, const DataStoreColumnInfo& col, CRefCountedDataStoreRow* row);
  // The cell of `length` characters of `text` (already cut to the column's size): up to
  // its first zero, shared for lent text when the row's pool has room, else in the
  // row's own buffer. A null text pointer when memory runs out.
  StoredText PlaceWideText(const StoreValue& value, const OLECHAR* text, size_t length,
                           const DataStoreColumnInfo& col, CRefCountedDataStoreRow* row);
  // The timestamp of `ticks` when it falls on the day of the last one converted. Nearly
  // every timestamp cell of a read takes this path, so it is defined here, to be inlined.
  bool SameDay(ULONGLONG ticks, DBTIMESTAMP* ts) const {
    if (ticks < m_DayStart || ticks >= m_DayEnd) return false;
    // Truncated as FileTimeToSystemTime truncates.
    constexpr ULONGLONG kSecond = 10000000ull;  // FILETIME ticks
    const ULONGLONG rest = ticks - m_DayStart;
    const uint32_t seconds = static_cast<uint32_t>(rest / kSecond);
    const uint32_t minutes = seconds / 60;
    *ts = m_DayDate;
    ts->hour = static_cast<USHORT>(minutes / 60);
    ts->minute = static_cast<USHORT>(minutes % 60);
    ts->second = static_cast<USHORT>(seconds % 60);
    ts->fraction = static_cast<ULONG>(rest - ULONGLONG{seconds} * kSecond) / 10000u * 1000000u;
    return true;
  }
  void FreeColumnInfo();
  CRefCountedDataStoreRow* NewRow();
  // Up to `count` new rows from the pool; fewer only when memory runs out.
  size_t TakeRows(CRefCountedDataStoreRow** rows, size_t count);
  // Fills `row` from `record`; true when every value of the record was a usual cell,
  // one that owns nothing.
  bool FillRow(const ProducedRecord& record, CRefCountedDataStoreRow* row, CellRunTimer& timer);
  HRESULT AppendTimed(const ProducedRecord& record, CellRunTimer& timer);
  HRESULT PullFromProducer(ULONGLONG wanted);
  HRESULT Converter(IDataConvert** convert);

  DataStoreColumnInfo* m_pColumnInfo = nullptr;
  DBORDINAL m_cColumns = 0;
  DBLENGTH m_cbRowSize = 0;
  uint64_t m_LayoutGeneration = 0;

  RowQueue m_ReadRows;
  CRefCountedDataStoreRow::Pool* m_pPool = nullptr;

  std::unique_ptr<CDataProvider> m_pProducer;
  std::vector<size_t> m_ColumnSource;  // column record behind each description entry
  std::vector<size_t> m_FieldOfColumn;  // producer field feeding each store column
  // How FillRow writes each column when its value is of the usual kind for the
  // column's type; anything else goes through WriteCommonCell and WriteCell.
  struct FillStep {
    enum Kind : uint8_t { kOther, kWide, kTime, kVariant, kFixed1, kFixed2, kFixed4, kFixed8 };
    size_t field;  // in the producer's records
    DBORDINAL column;
    Kind kind;
    VARTYPE vt;             // kFixed1..8: the value's VARIANT type, numbered as the column's type
    DBBYTEOFFSET cell;      // the column's value and status byte in the row, so that the
    DBBYTEOFFSET status;    // usual cells never read the column description
  };
  std::vector<FillStep> m_FillSteps;
  // The fixed-size value at `bits` into `cell`, `kind` being one of kFixed1..kFixed8.
  static void CopyFixed(FillStep::Kind kind, BYTE* cell, const void* bits);
  // The status bytes of a row whose cells all hold values, as one word in memory order
  // (0: the layout has no such word), and the fields a record needs for it.
  uint64_t m_FillStatusWord = 0;
  size_t m_FillFields = 0;
  bool m_FillCoversRecord = false;  // the steps read each of a record's fields once
  void PlanFill();
  // The usual value of `step`'s column, in place without its status byte; false (the
  // cell untouched) when the general writers have to take it.
  bool FillUsual(const FillStep& step, const StoreValue& value, CRefCountedDataStoreRow* row, BYTE* buffer);
  void FillOther(const FillStep& step, const StoreValue& value, CRefCountedDataStoreRow* row, CellRunTimer& timer);
  ULONGLONG m_MaxRows = 0;
  ULONGLONG m_RowsQueued = 0;
  bool m_bEndOfData = false;
  bool m_bProducerDone = false;  // the producer said it has nothing more
  // Records taken from the producer; those from m_IncomingNext on are not rows yet.
  ProducedRecordList m_Incoming;
  size_t m_IncomingNext = 0;
  size_t m_IncomingEmptied = 0;  // of m_Incoming, emptied as they were read
  // Batches taken from the producer after m_Incoming, the next record of the first, the
  // records left in all, and the record each of theirs is made into in turn.
  RecordBatchList m_Batches;
  size_t m_BatchNext = 0;
  size_t m_BatchRecordsLeft = 0;
  ProducedRecord m_BatchRecord;
  // How the cells of the first batch's rows are written straight from where its Layout
  // says the fields lie: a FillStep with its field's place. Empty when a cell cannot be
  // (the rows are then made through Make and FillRow).
  struct DirectStep {
    FillStep::Kind kind;
    CRecordBatch::Field::Form form;
    VARTYPE vt;
    DBBYTEOFFSET cell;
    const BYTE* base;
    size_t stride;
    StoredText shared;  // kShared: the cell of the batch's first row
    size_t room;        // kText: the column's size in characters
  };
  std::vector<DirectStep> m_BatchPlan;
  // Plans the cells of `batch`, whose first row was just filled from its first record.
  void PlanBatch(const CRecordBatch& batch);
  // Fills rows[0..n) from the records first.. of the planned batch.
  HRESULT FillDirect(CRecordBatch& batch, size_t first, CRefCountedDataStoreRow** rows, size_t n,
                     CellRunTimer& timer);
  static constexpr size_t kDirectRunMax = 64;
  // Fills `row` from record i of `batch`, through the record.
  HRESULT FillFromRecord(CRecordBatch& batch, size_t i, CRefCountedDataStoreRow* row, CellRunTimer& timer);
  // Fills rows from the first batch's next records, at most `room` of them, and moves
  // on: *run is how many.
  HRESULT FillFromBatch(CRefCountedDataStoreRow** rows, size_t room, CellRunTimer& timer, size_t* run);

  IDataConvert* m_pConvert = nullptr;
  std::vector<uint64_t> m_DstScratch;
  // GetData without the lock reads the clock for one call in kPlannedSample.
  static constexpr uint32_t kPlannedSample = 256;
  std::atomic<uint32_t> m_PlannedCalls{0};

  // The last lent text each column shared: producers lend the same text row after row.
  struct SharedTextHit {
    const OLECHAR* source = nullptr;
    size_t length = 0;
    StoredText cell{nullptr, 0};
  };
  std::vector<SharedTextHit> m_LastShared;

  CStopwatch m_Stopwatch;

  // The calendar date of the last timestamp cell written, by FILETIME day number.
  // The calendar day of the last timestamp converted: [m_DayStart, m_DayEnd) in FILETIME
  // ticks, and its date.
  ULONGLONG m_DayStart = 1;
  ULONGLONG m_DayEnd = 0;
  DBTIMESTAMP m_DayDate{};
};
