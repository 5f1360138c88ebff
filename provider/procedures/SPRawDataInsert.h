// RAWDATA_INSERT: writes one sample and answers with a one-row text saying what
// happened; a refused write is reported in that text, not as an error. RAWDATA_UPDATE
// is the same procedure replacing an existing sample.
#pragma once
#include "provider/procedures/BaseStoredProcedure.h"

class CSPRawDataInsert : public CBaseStoredProcedure {
 public:
  CSPRawDataInsert(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
                   IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  HRESULT Initialize() override;

  // The result text for a write's code.
  virtual corvane::WString ResultText(HRESULT hr) const;

  struct Messages {
    const OLECHAR* invalidInput;
    const OLECHAR* tagName;
    const OLECHAR* value;
    const OLECHAR* writeFailure;
  };

 protected:
  CSPRawDataInsert(const char* traceSource, bool update, const Messages& messages, const CSQLQueryInfo* query,
                   const CSQLSelectItemSP* item, const SQLBindContext& context, IProviderDataSource* dataSource,
                   corvane::WString catalog, corvane::WString schema);

 private:
  bool m_bUpdate;
  const Messages& m_Messages;
};
