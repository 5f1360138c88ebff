// The rowset core shared by the command and table rowsets: forward-only fetching from a
// data store with row handles, reading rows through accessors, column and property
// description. The command and table rowset classes derive from it and add their own
// interfaces through QueryOtherInterface.
#pragma once
#include <atomic>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/Platform.h"
#include "provider/store/DataStore.h"
#include "provider/store/Stopwatch.h"

class CProviderIRowset : public IRowset,
                         public IAccessor,
                         public IColumnsInfo,
                         public IRowsetInfo,
                         public IConvertType,
                         public IRowsetIdentity,
                         public ISupportErrorInfo {
 public:
  // Which property table the rowset answers with.
  enum class RowsetKind { Command, Table };

  // `store` is initialised (columns and producer). `creator` is the command or
  // session that made the rowset (may be null); it is held until the rowset goes.
  CProviderIRowset(std::unique_ptr<CDataStore> store, RowsetKind kind, IUnknown* creator);
  // Creates a rowset and returns the interface `riid` of it.
  static HRESULT Create(std::unique_ptr<CDataStore> store, RowsetKind kind, IUnknown* creator, REFIID riid,
                        void** ppv);

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IRowset
  HRESULT STDMETHODCALLTYPE AddRefRows(DBCOUNTITEM cRows, const HROW rghRows[], DBREFCOUNT rgRefCounts[],
                                       DBROWSTATUS rgRowStatus[]) override;
  HRESULT STDMETHODCALLTYPE GetData(HROW hRow, HACCESSOR hAccessor, void* pData) override;
  HRESULT STDMETHODCALLTYPE GetNextRows(HCHAPTER hReserved, DBROWOFFSET lRowsOffset, DBROWCOUNT cRows,
                                        DBCOUNTITEM* pcRowsObtained, HROW** prghRows) override;
  HRESULT STDMETHODCALLTYPE ReleaseRows(DBCOUNTITEM cRows, const HROW rghRows[], DBROWOPTIONS rgRowOptions[],
                                        DBREFCOUNT rgRefCounts[], DBROWSTATUS rgRowStatus[]) override;
  // Rows come from a live producer and the store never rewinds, so there is no going
  // back: before the first fetch the position already is the start (S_OK); after it
  // the answer is DB_E_CANNOTRESTART.
  HRESULT STDMETHODCALLTYPE RestartPosition(HCHAPTER hReserved) override;

  // IAccessor
  HRESULT STDMETHODCALLTYPE AddRefAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) override;
  HRESULT STDMETHODCALLTYPE CreateAccessor(DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                                           const DBBINDING rgBindings[], DBLENGTH cbRowSize, HACCESSOR* phAccessor,
                                           DBBINDSTATUS rgStatus[]) override;
  HRESULT STDMETHODCALLTYPE GetBindings(HACCESSOR hAccessor, DBACCESSORFLAGS* pdwAccessorFlags,
                                        DBCOUNTITEM* pcBindings, DBBINDING** prgBindings) override;
  HRESULT STDMETHODCALLTYPE ReleaseAccessor(HACCESSOR hAccessor, DBREFCOUNT* pcRefCount) override;

  // IColumnsInfo
  HRESULT STDMETHODCALLTYPE GetColumnInfo(DBORDINAL* pcColumns, DBCOLUMNINFO** prgInfo,
                                          OLECHAR** ppStringsBuffer) override;
  HRESULT STDMETHODCALLTYPE MapColumnIDs(DBORDINAL cColumnIDs, const DBID rgColumnIDs[],
                                         DBORDINAL rgColumns[]) override;

  // IRowsetInfo
  HRESULT STDMETHODCALLTYPE GetProperties(const ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[],
                                          ULONG* pcPropertySets, DBPROPSET** prgPropertySets) override;
  HRESULT STDMETHODCALLTYPE GetReferencedRowset(DBORDINAL iOrdinal, REFIID riid,
                                                IUnknown** ppReferencedRowset) override;
  HRESULT STDMETHODCALLTYPE GetSpecification(REFIID riid, IUnknown** ppSpecification) override;

  // IConvertType
  HRESULT STDMETHODCALLTYPE CanConvert(DBTYPE wFromType, DBTYPE wToType, DBCONVERTFLAGS dwConvertFlags) override;

  // IRowsetIdentity
  HRESULT STDMETHODCALLTYPE IsSameRow(HROW hThisRow, HROW hThatRow) override;

  // ISupportErrorInfo: a failed fetch leaves an error record for the consumer.
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override;

  // For the creator: sets a writable rowset property before the rowset is handed out.
  // DB_E_NOTSUPPORTED for a property this kind of rowset does not offer,
  // DB_E_READONLY for one it does not let change, DB_E_BADTYPE for a value of the wrong type.
  HRESULT SetRowsetProperty(DBPROPID id, const VARIANT& value);

  // For the command that made the rowset: its row accessor `hAccessor` becomes the
  // rowset's under the same handle, checked against the rowset's columns as
  // CreateAccessor checks. Later handles of the rowset's own come after it.
  HRESULT InheritAccessor(HACCESSOR hAccessor, DBACCESSORFLAGS dwAccessorFlags, DBCOUNTITEM cBindings,
                          const DBBINDING rgBindings[]);

  CDataStore* Store() const { return m_pStore.get(); }
  RowsetKind Kind() const { return m_Kind; }
  // Elapsed time inside GetNextRows and between its calls, in nanoseconds.
  uint64_t InTimeNanoseconds() { return m_InTime.TotalNanoseconds(); }
  uint64_t OutTimeNanoseconds() { return m_OutTime.TotalNanoseconds(); }

 protected:
  virtual ~CProviderIRowset();
  // Interfaces a derived rowset adds; E_NOINTERFACE here.
  virtual HRESULT QueryOtherInterface(REFIID riid, void** ppv);

 private:
  // Row handle -> held row. A handle names a slot of the rowset's array of held rows
  // and the slot's generation, (generation << 32) | (slot + 1), so that a lookup is an
  // index and one compare. Releasing a row moves its slot to the next generation, which
  // refuses the old handle; a slot whose generation would wrap is retired, so no handle
  // is ever given twice. Free slots are reused newest first: a consumer that releases a
  // batch and fetches the next one gets the same few cache lines back. Slots live in
  // blocks that never move, block k holding kFirstBlock << k of them.
  //
  // GetData looks a handle up without the rowset's lock (Peek). That is safe because
  // (1) a handle is never given twice, so a slot read as holding `handle` before and
  // after its row pointer was read held that row in between (a slot's handle is cleared
  // before its row changes); (2) blocks are kept until the rowset goes; and (3) the row
  // behind a handle lives until that handle is released, which a consumer cannot do
  // while it still reads through it. Everything else happens under the lock.
  class RowHandleTable {
   public:
    struct Slot {
      std::atomic<HROW> handle{0};  // 0: a free slot
      std::atomic<CRefCountedDataStoreRow*> row{nullptr};
      DBREFCOUNT refs = 0;
    };
    RowHandleTable() = default;
    RowHandleTable(const RowHandleTable&) = delete;
    RowHandleTable& operator=(const RowHandleTable&) = delete;

    // Without the lock: the row held under `handle`, or null.
    CRefCountedDataStoreRow* Peek(HROW handle) const;
    Slot* Find(HROW handle) const;
    // Makes room for `more` handles. Throws std::bad_alloc and then leaves the table as
    // it was.
    void Reserve(size_t more);
    // The handle of `row`, held once; Reserve made room for it.
    HROW Insert(CRefCountedDataStoreRow* row);
    void Erase(Slot* held);
    // Every held row, in no particular order.
    template <typename F>
    void ForEach(F f) {
      for (uint32_t i = 0; i < m_Used; ++i) {
        Slot& slot = At(i);
        if (slot.handle.load(std::memory_order_relaxed)) f(slot);
      }
    }

   private:
    static constexpr unsigned kFirstBits = 10;
    static constexpr uint64_t kFirstBlock = uint64_t{1} << kFirstBits;
    static constexpr size_t kBlocks = 33 - kFirstBits;  // enough for 2^32 - 1 slots
    static size_t BlockOf(uint64_t index, uint64_t* offset) {
      const uint64_t j = index + kFirstBlock;
      const unsigned k = static_cast<unsigned>(63 - __builtin_clzll(j)) - kFirstBits;
      *offset = j - (kFirstBlock << k);
      return k;
    }
    Slot& At(uint32_t index) const {
      // A rowset rarely holds more handles than the first block has: no bit scan then.
      if (index < kFirstBlock) return m_Blocks[0].load(std::memory_order_relaxed)[index];
      uint64_t offset;
      const size_t k = BlockOf(index, &offset);
      return m_Blocks[k].load(std::memory_order_relaxed)[offset];
    }

    std::atomic<Slot*> m_Blocks[kBlocks] = {};
    std::unique_ptr<Slot[]> m_Owned[kBlocks];
    uint64_t m_Made = 0;     // slots in the blocks made
    uint32_t m_Used = 0;     // slots ever handed out; those after are fresh
    // The free slots, newest last, each as the next handle it gives. An array rather
    // than a list through the slots: a fetch of a thousand rows would otherwise wait for
    // each slot's line in turn; and it holds the handle, so that Insert only writes the
    // slot. Its room is every slot made, so that Erase never allocates or checks.
    std::unique_ptr<HROW[]> m_Free;
    size_t m_cFree = 0;
  };
  struct Accessor {
    // 0 once released: the object is kept for the next accessor, never freed while a
    // GetData without the lock might still look at it.
    std::atomic<HACCESSOR> handle{0};
    DBACCESSORFLAGS flags = 0;
    std::vector<DBBINDING> bindings;
    std::vector<std::unique_ptr<DBOBJECT>> objects;  // copies behind bindings' pObject
    DBREFCOUNT refs = 1;
    // How the store copies each binding, for the store's layout of generation
    // planGeneration; planned under the lock, read by GetData without it.
    std::vector<CDataStore::BindingStep> plan;
    uint64_t planGeneration = ~0ull;
  };
  struct PropertyValue {
    DBPROPID id;
    VARIANT value;
    bool writable;
  };

  DBBINDSTATUS ValidateBinding(const DBBINDING& binding);
  // Under the lock: the accessor's plan for the store's layout of now.
  void PlanAccessor(Accessor& accessor);
  // Takes the lock: every call the lock-free path in GetData does not answer.
  HRESULT GetDataWithLock(HROW hRow, HACCESSOR hAccessor, void* pData);
  HRESULT ConversionService(IDataConvert** convert);
  HRESULT FillPropertySet(const DBPROPIDSET* request, DBPROPSET* out, ULONG* okCount, ULONG* errorCount);
  HRESULT GetNextRowsLocked(DBROWOFFSET lRowsOffset, DBROWCOUNT cRows, DBCOUNTITEM* pcRowsObtained,
                            HROW** prghRows);

  std::atomic<ULONG> m_cRef{1};
  corvane::platform::CriticalSection m_Lock;
  std::unique_ptr<CDataStore> m_pStore;
  RowsetKind m_Kind;
  IUnknown* m_pCreator;
  IDataConvert* m_pConvert = nullptr;

  RowHandleTable m_Rows;
  bool m_bFetched = false;
  std::vector<CRefCountedDataStoreRow*> m_Batch;

  std::unordered_map<HACCESSOR, std::unique_ptr<Accessor>> m_Accessors;
  std::vector<std::unique_ptr<Accessor>> m_FreeAccessors;  // released, for reuse
  HACCESSOR m_AccessorGenerator = 0;
  // The accessor GetData used last, since a consumer reads every row with the same one.
  std::atomic<Accessor*> m_pLastAccessor{nullptr};

  std::vector<PropertyValue> m_Properties;

  CStopwatch m_InTime;
  CStopwatch m_OutTime;
};
