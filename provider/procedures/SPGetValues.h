// GET_VALUES: every stored sample of one tag over a time range (at most Count when it is
// not 0), read in one worker step. GET_GOOD_VALUES and GET_BAD_VALUES are the same
// procedure asking the historian for another selection.
#pragma once
#include "provider/procedures/BaseStoredProcedure.h"

class CSPGetValues : public CBaseStoredProcedure {
 public:
  CSPGetValues(const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
               IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  ~CSPGetValues() override;

  HRESULT Initialize() override;
  HRESULT ExecuteStep() override;
  ULONG Count() const { return m_Count; }

  struct Messages {
    const OLECHAR* invalidInput;
    const OLECHAR* notInitialized;
    const OLECHAR* tagName;
    const OLECHAR* readFailure;
    const OLECHAR* outputFailure;
    const OLECHAR* done;
    const OLECHAR* timeRange;
    bool timeRangeHasCode;
  };

 protected:
  enum class Selection { All, Good, Bad };
  CSPGetValues(const char* traceSource, Selection selection, const Messages& messages, const CSQLQueryInfo* query,
               const CSQLSelectItemSP* item, const SQLBindContext& context, IProviderDataSource* dataSource,
               corvane::WString catalog, corvane::WString schema);

 private:
  Selection m_Selection;
  const Messages& m_Messages;
  TagIdent* m_pTag = nullptr;
  ULONG m_Count = 0;
};
