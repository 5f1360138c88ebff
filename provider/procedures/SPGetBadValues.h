// GET_BAD_VALUES: the samples of one tag that the historian does not count as good.
#pragma once
#include "provider/procedures/SPGetValues.h"

class CSPGetBadValues : public CSPGetValues {
 public:
  CSPGetBadValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                  IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
};
