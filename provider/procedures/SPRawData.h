// SP_RAWDATA: the raw samples of several tags (a ";"-separated list) over one time
// range, one page of one tag per worker step, tags one after another.
#pragma once
#include <vector>

#include "provider/procedures/BaseStoredProcedure.h"

class CSPRawData : public CBaseStoredProcedure {
 public:
  CSPRawData(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
             IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  ~CSPRawData() override;

  HRESULT Initialize() override;
  HRESULT ExecuteStep() override;
  bool IsRunning() override;

  // The tag names in the order read (for inspection).
  std::vector<corvane::WString> TagNames();

 private:
  HRESULT ParseTagList(const corvane::WString& text);
  void ClearTags();
  void ReleaseContinuation();

  FILETIME m_Start{};
  FILETIME m_End{};
  ULONG m_MaxValues = 0;
  size_t m_CurrentTag = 0;
  std::vector<TagIdent> m_Tags;
  void* m_pContinuation = nullptr;
};
