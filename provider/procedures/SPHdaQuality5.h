// HDA_QUALITY_5: the family's aggregates of up to five tags side by side, one row per resampling interval.
#pragma once
#include "provider/procedures/SPHdaBase.h"

class CSPHdaQuality5 : public CSPHdaBase {
 public:
  CSPHdaQuality5(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
      IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
};
