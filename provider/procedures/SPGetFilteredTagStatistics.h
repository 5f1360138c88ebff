// GET_FILTERED_TAG_STATISTICS: minimum, maximum, average and count of every tag whose
// name matches up to three filters, one row per tag, paged by the historian.
#pragma once
#include "provider/procedures/BaseStoredProcedure.h"

class CSPGetFilteredTagStatistics : public CBaseStoredProcedure {
 public:
  CSPGetFilteredTagStatistics(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                              IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  ~CSPGetFilteredTagStatistics() override;

  HRESULT Initialize() override;
  HRESULT ExecuteStep() override;
  bool IsRunning() override;

 private:
  void ReleaseContinuation();
  void FreeRequest();

  ProcessedReadRequest* m_pRequest = nullptr;
  corvane::WString m_Filter1;
  corvane::WString m_Filter2;
  corvane::WString m_Filter3;
  FILETIME m_Start{};
  FILETIME m_End{};
  ULONG m_MaxNames = 0;
  void* m_pContinuation = nullptr;
};
