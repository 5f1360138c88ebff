// The one-row answer of a data-changing statement: a DESCRIPTION column holding the
// statement's success text. CTableInsert, CTableUpdate and CTableDelete fix the texts.
#pragma once
#include "provider/tables/BaseTable.h"

class CTableResult : public CBaseTable {
 public:
  ~CTableResult() override;
  HRESULT Prepare() override;

 protected:
  CTableResult(const OLECHAR* name, const OLECHAR* message);

 private:
  const OLECHAR* m_Message;
};
