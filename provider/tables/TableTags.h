// TAGS: the historian's tags as the host's browse lists them, filtered by a TAGNAME and
// a DESCRIPTION pattern (`*` any run, `?` one character; empty matches everything).
#pragma once
#include "provider/tables/BaseTable.h"
#include "provider/tables/TableFactory.h"

class CTableTags final : public CBaseTable {
 public:
  explicit CTableTags(const TableCreateArgs& args);
  ~CTableTags() override;
  HRESULT Prepare() override;

 private:
  IProviderDataSource* m_pDataSource;
  corvane::WString m_NameFilter;
  corvane::WString m_DescriptionFilter;
};
