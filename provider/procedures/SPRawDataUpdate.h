// RAWDATA_UPDATE: replaces the value and quality of an existing sample.
#pragma once
#include "provider/procedures/SPRawDataInsert.h"

class CSPRawDataUpdate : public CSPRawDataInsert {
 public:
  CSPRawDataUpdate(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                   IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  corvane::WString ResultText(HRESULT hr) const override;
};
