// HDA_BOOL_5: the family's aggregates of up to five tags side by side, one row per resampling interval.
#pragma once
#include "provider/procedures/SPHdaBase.h"

class CSPHdaBool5 : public CSPHdaBase {
 public:
  CSPHdaBool5(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
      IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
};
