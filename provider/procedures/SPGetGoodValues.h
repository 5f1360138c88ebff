// GET_GOOD_VALUES: the samples of one tag that the historian counts as good.
#pragma once
#include "provider/procedures/SPGetValues.h"

class CSPGetGoodValues : public CSPGetValues {
 public:
  CSPGetGoodValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                   IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
};
