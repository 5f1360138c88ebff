// RAWDATA: the raw history of the query's tags over the execution's time range, one
// row per stored sample, read tag after tag in pages of MAX_ROWS_TO_RETURN through the
// historian's continuation points. The typed RAWDATA_* tables derive from it and only
// convert the value.
#pragma once
#include <vector>

#include "base/HistorianInterfaces.h"
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableFactory.h"

class CTableRawData : public CBaseTable {
 public:
  explicit CTableRawData(const TableCreateArgs& args);
  ~CTableRawData() override;

  bool HasMoreData() override;
  HRESULT Prepare() override;
  // Reads m_StepPages pages, or kStepRecords samples, up to the data's end or a failure.
  HRESULT Step() override;
  // The value and the quality unchanged.
  HRESULT ConvertValue(const VARIANT& value, DWORD quality, VARIANT* outValue, DWORD* outQuality) override;

 protected:
  // What a typed table converts every value to, and what it says when it cannot.
  struct Conversion {
    VARTYPE type;
    const OLECHAR* failureMessage;  // one %X: the conversion's HRESULT
  };
  CTableRawData(const OLECHAR* name, const TableCreateArgs& args, const Conversion& conversion);

 private:
  // Converts `value` in place to the table's type; on failure the type's default with
  // the bad quality 0x80AB0000 (S_FALSE).
  HRESULT ConvertTyped(VARIANT* value, DWORD* quality);
  // One page of the current tag: *read samples queued; *finished when no tag is left.
  HRESULT ReadPage(size_t* read, bool* finished);
  static constexpr size_t kStepRecords = 8192;
  static constexpr size_t kStepPages = 16;
  size_t m_StepPages = 1;  // pages the next step reads at most
  void ReleaseContinuationPoint();
  void FreeRequests();

  IProviderDataSource* m_pDataSource = nullptr;
  IRawDataProvider* m_pRaw = nullptr;
  corvane::WString m_Catalog;
  corvane::WString m_Schema;
  std::vector<corvane::WString> m_TagNames;
  FILETIME m_Start{};
  FILETIME m_End{};
  std::vector<TagIdent*> m_Requests;
  size_t m_CurrentRequest = 0;
  ULONG m_MaxRowsToReturn = 0;
  void* m_pContinuationPoint = nullptr;
  bool m_bTyped = false;
  Conversion m_Conversion{VT_EMPTY, nullptr};
};
