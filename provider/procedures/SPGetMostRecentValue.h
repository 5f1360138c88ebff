// GET_MOST_RECENT_VALUE: the newest sample of one tag, read at once without a worker.
#pragma once
#include "provider/procedures/BaseStoredProcedure.h"

class CSPGetMostRecentValue : public CBaseStoredProcedure {
 public:
  CSPGetMostRecentValue(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                        IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  HRESULT Initialize() override;
};
