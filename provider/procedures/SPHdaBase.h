// The shared reading of the aggregate procedures: one processed read per time chunk
// (one-tag forms) or per tag and chunk (five-tag forms), one row per interval with the
// family's columns. The eight procedure classes only choose the family and the form.
#pragma once
#include <deque>
#include <utility>
#include <vector>

#include "provider/procedures/BaseStoredProcedure.h"
#include "provider/procedures/HdaFamilies.h"

class CSPHdaBase : public CBaseStoredProcedure {
 public:
  struct Messages {
    const OLECHAR* invalidInput;
    const OLECHAR* aggregates;  // with a code in the one-tag forms only
    const OLECHAR* read;
    const OLECHAR* output;
    const OLECHAR* done;
    const OLECHAR* tagName;  // five-tag forms
  };

  CSPHdaBase(const char* traceSource, HdaKind kind, bool fiveTags, const Messages& messages,
             const CSQLQueryInfo* query, const CSQLSelectItemSP* item, const SQLBindContext& context,
             IProviderDataSource* dataSource, corvane::WString catalog, corvane::WString schema);
  ~CSPHdaBase() override;

  HRESULT Initialize() override;
  HRESULT ExecuteStep() override;

 private:
  HRESULT StepOneTag();
  HRESULT StepFiveTags();
  // Appends the columns of `layout` for interval i of `result` to `row`.
  HRESULT AddTagColumns(const ProcessedResult* result, ULONG i, const std::vector<HdaColumn>& layout,
                        ProducedRecord* row);
  // The cell of QualityToStr2 of `quality`. A read's rows repeat a few status words, so
  // each text is made once and lent to the store, which keeps one copy for all its
  // rows; past kRemembered words each cell carries its own text.
  StoreValue StatusTextCell(ULONG quality);
  static constexpr size_t kRemembered = 256;

  const HdaFamily& m_Family;
  bool m_bFiveTags;
  const Messages& m_Messages;
  TagIdent* m_pTag = nullptr;
  // Never shrinks: lent texts must outlive the records that carry them, which live no
  // longer than this procedure.
  std::deque<std::pair<ULONG, corvane::WString>> m_StatusTexts;
};
