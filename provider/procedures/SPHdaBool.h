// HDA_BOOL: the family's aggregates of one tag, one row per resampling interval.
#pragma once
#include "provider/procedures/SPHdaBase.h"

class CSPHdaBool : public CSPHdaBase {
 public:
  CSPHdaBool(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
      IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
};
