// DELETE and UPDATE on RAWDATA: they change exactly the samples their WHERE clause
// describes, or fail before anything changes.
//
// The WHERE tree gives a finite set of candidate tags (TAGNAME = text or `?`; AND keeps
// the tags both sides allow, OR joins them; anything else allows every tag, which is
// refused) and a bounding time range (TIMESTAMP comparisons with their true meaning,
// strict bounds one tick inside; AND intersects, OR spans; anything else is unbounded).
// Without a finite tag set, or without a written bound on TIMESTAMP, the statement is
// refused: history is never removed or rewritten over an implicit range. A reversed
// range, a bound that is not a time or is the zero timestamp, and an unknown tag are
// refused too. Every candidate tag is then checked with the historian, its samples in
// the bounding range are read page by page, and the whole condition is evaluated on
// each of them: a DELETE removes each run of consecutive matching samples with one
// inclusive delete, an UPDATE rewrites each matching sample (SET VALUE alone keeps the
// sample's quality, SET QUALITY alone keeps its value; both may read the sample's own
// columns). Changes start only after every sample was read and evaluated.
#pragma once
#include <vector>

#include "SQLParser/SQLExpression.h"
#include "SQLParser/SQLQueryInfo.h"
#include "platform/WideString.h"
#include "provider/IProviderDataSource.h"

struct TableInfo;

// A tag's name as a message about a data change quotes it: whole when short; a long one
// would turn every error record into a copy of it, so only its beginning is shown.
corvane::WString TagInMessage(const corvane::WString& name);

class CRawDataChange {
 public:
  enum class Kind { kDelete, kUpdate };

  // `table` is the statement's catalog entry, as its plan found it (RAWDATA).
  CRawDataChange(Kind kind, IProviderDataSource* dataSource, const CSQLQueryInfo& statement, const TableInfo& table,
                 const SQLBindContext& context);
  ~CRawDataChange();
  CRawDataChange(const CRawDataChange&) = delete;
  CRawDataChange& operator=(const CRawDataChange&) = delete;

  // Carries the statement out. *changed: the number of samples deleted or updated (0
  // when nothing matched, which is a success). 0x8004C004 with a description in
  // *message for a condition that cannot be honoured; a function's or the historian's
  // own failure with its message. When the historian fails part-way through the
  // changes, *message names the tags that were already changed.
  HRESULT Run(ULONG64* changed, corvane::WString* message);

 private:
  struct Plan;
  struct TagChanges;

  HRESULT Analyse(Plan* plan, corvane::WString* message);
  // Every tag is known to the historian (its value type noted), or nothing changes.
  HRESULT CheckTags(IRawDataProvider* raw, const Plan& plan, std::vector<TagChanges>& tags, corvane::WString* message);
  HRESULT Collect(IRawDataProvider* raw, Plan& plan, TagChanges& tag, corvane::WString* message);
  HRESULT Apply(IRawDataProvider* raw, const Plan& plan, std::vector<TagChanges>& tags, corvane::WString* message);
  const OLECHAR* Verb() const { return kind_ == Kind::kDelete ? OLESTR("deleted") : OLESTR("updated"); }

  Kind kind_;
  IProviderDataSource* dataSource_;
  const CSQLQueryInfo& statement_;
  const TableInfo& table_;
  const SQLBindContext& context_;
};
