// The SQL dialect's lexer and recursive-descent syntax parser. One CSQLSyntaxParser
// parses one statement: it holds the text, the read position, the one current token,
// the query being built and the last clause-level error message. Use CSQLParser::
// ParseQuery rather than this class directly.
//
// Nesting limits. Parentheses in WHERE and function calls inside function arguments
// recurse; at most kMaxNestingDepth of them may be open at once. Measured at that depth:
// about 480 KB of stack in the ASan+UBSan debug build (function calls, the costlier
// path; parentheses take about 300 KB) and about 80 KB in the optimised build, so it
// fits a 1 MB Windows thread stack with room for the caller. A WHERE tree is never
// higher than kMaxConditionDepth nodes (a chain of n comparisons joined by AND/OR is n
// high), so code that walks a condition recursively has a known bound. Deeper input
// fails with the clause's usual message.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLQueryInfo.h"

enum SQLTokenKind : int {
  SQL_TOKEN_UNKNOWN = 0,
  SQL_TOKEN_END = 1,
  SQL_TOKEN_KEYWORD = 2,
  SQL_TOKEN_STRING = 3,
  SQL_TOKEN_INTEGER = 4,
  SQL_TOKEN_DOUBLE = 5,
  SQL_TOKEN_IDENTIFIER = 6,
  SQL_TOKEN_GREATER = 7,
  SQL_TOKEN_LESS = 8,
  SQL_TOKEN_EQUAL = 9,
  SQL_TOKEN_GREATER_OR_EQUAL = 10,
  SQL_TOKEN_LESS_OR_EQUAL = 11,
  SQL_TOKEN_NOT_EQUAL = 12,
  SQL_TOKEN_LEFT_PARENTHESIS = 13,
  SQL_TOKEN_RIGHT_PARENTHESIS = 14,
  SQL_TOKEN_AND = 15,
  SQL_TOKEN_OR = 16,
  SQL_TOKEN_NOT = 17,
  SQL_TOKEN_DOT = 18,
  SQL_TOKEN_ASTERISK = 19,
  SQL_TOKEN_COMMA = 20,
  SQL_TOKEN_PARAMETER = 21,
  SQL_TOKEN_RESERVED = 22,  // never produced
  SQL_TOKEN_TERMINATOR = 23,
};

enum SQLKeyword : int {
  SQL_KEYWORD_INSERT = 0,
  SQL_KEYWORD_INTO = 1,
  SQL_KEYWORD_VALUES = 2,
  SQL_KEYWORD_SELECT = 3,
  SQL_KEYWORD_AS = 4,
  SQL_KEYWORD_FROM = 5,
  SQL_KEYWORD_WHERE = 6,
  SQL_KEYWORD_ORDER = 7,
  SQL_KEYWORD_BY = 8,
  SQL_KEYWORD_ASC = 9,
  SQL_KEYWORD_DESC = 10,
  SQL_KEYWORD_GROUP = 11,
  SQL_KEYWORD_LIMIT = 12,
  SQL_KEYWORD_TOP = 13,
  SQL_KEYWORD_DELETE = 14,
  SQL_KEYWORD_UPDATE = 15,
  SQL_KEYWORD_SET = 16,
  SQL_KEYWORD_HAVING = 17,
  SQL_KEYWORD_NONE = 18,
  SQL_KEYWORD_EXEC = 19,
  SQL_KEYWORD_CALL = 20,
  SQL_KEYWORD_BETWEEN = 21,
};

class CSQLToken {
 public:
  void Reset() {
    kind = SQL_TOKEN_UNKNOWN;
    keyword = SQL_KEYWORD_NONE;
    text.clear();
    doubleValue = 0;
    integerValue = 0;
  }

  int kind = SQL_TOKEN_UNKNOWN;
  int keyword = SQL_KEYWORD_NONE;
  corvane::WString text;  // as collected: no sign, no quotes, escapes resolved
  double doubleValue = 0;
  LONG64 integerValue = 0;
};

struct SQLLexerState {
  corvane::WStringView text;  // the statement, which outlives the reading
  int32_t position = 0;       // index of the next character to examine
};

class CSQLSyntaxParser {
 public:
  static constexpr int kMaxNestingDepth = 256;
  static constexpr int kMaxConditionDepth = 1024;
  // Error messages quote at most this many characters of the statement, then "...".
  static constexpr size_t kMaxQuotedStatement = 500;

  // The strings are read in place: they must outlive the parser (the query it builds
  // holds copies of what it needs).
  CSQLSyntaxParser(corvane::WStringView defaultCatalog, corvane::WStringView defaultSchema,
                   corvane::WStringView queryText);
  CSQLSyntaxParser(const CSQLSyntaxParser&) = delete;
  CSQLSyntaxParser& operator=(const CSQLSyntaxParser&) = delete;

  // Parses the whole statement. On success TakeQuery hands over the query. May throw
  // std::bad_alloc; whatever was built is then freed with the parser.
  HRESULT Start();
  std::unique_ptr<CSQLQueryInfo> TakeQuery() { return std::move(query_); }
  const corvane::WString& ErrorInfo() const { return errorInfo_; }

  // Reads the next token from `state` into `token`. S_OK with the token (End at the end
  // of the text), or a failure with kind Unknown: E_FAIL for an unterminated quoted
  // name or a malformed exponent, the conversion's code for an integer that does not
  // convert, E_INVALIDARG when the read would start outside the text or a sign is
  // the last character.
  static HRESULT ReadToken(SQLLexerState& state, CSQLToken& token);
  // Applies the keyword table to a bare word.
  static void ClassifyWord(CSQLToken& token);

 private:
  using ItemList = std::vector<std::unique_ptr<CSQLCalcItem>>;
  using ItemPtr = std::unique_ptr<CSQLCalcItem>;
  class NestingGuard;

  HRESULT Consume();
  bool IsKeyword(int keyword) const { return token_.kind == SQL_TOKEN_KEYWORD && token_.keyword == keyword; }
  // Sets the error info to the common prefix with the query and `text` and returns E_FAIL.
  HRESULT Error(const OLECHAR* text);
  // A clause rule failed: its message is replaced by the statement's, its code kept.
  HRESULT ClauseError(HRESULT hr, const OLECHAR* text);

  HRESULT SelectQuery();
  HRESULT InsertQuery();
  HRESULT UpdateQuery();
  HRESULT DeleteQuery();
  HRESULT StoredProcedureExec();
  HRESULT StoredProcedureCall();
  HRESULT EndOfQuery();

  HRESULT TopSpecify();
  HRESULT LimitSpecify();
  HRESULT ColumnsListSpecify(ItemList& items);
  HRESULT NextColumnItem(ItemList& items);
  HRESULT ColumnItem(ItemPtr& item);
  HRESULT StarColumn(ItemPtr& item);
  HRESULT NamedItem(ItemPtr& item);
  HRESULT ColumnItemSpecify(corvane::WString& name, ItemPtr& item);
  HRESULT FunctionCall(corvane::WString& name, ItemPtr& item);
  HRESULT FunctionArguments(CSQLCalcItemFunction& function);
  HRESULT FunctionAlias(CSQLCalcItemFunction& function);
  HRESULT ColumnAlias(CSQLCalcItemTableColumn& column);
  HRESULT QualifiedColumn(const corvane::WString& qualifier, ItemPtr& item);
  HRESULT OptionalAlias(corvane::WString& alias);
  HRESULT ConstantItem(ItemPtr& item);
  HRESULT FromList();
  HRESULT TableName(std::unique_ptr<CSQLSelectItemTable>& table);
  HRESULT ProcedureName(std::unique_ptr<CSQLSelectItemSP>& procedure);
  HRESULT QualifiedName(corvane::WString& catalog, corvane::WString& schema, corvane::WString& name);
  HRESULT ParameterList(ItemList& items);
  HRESULT Parameter(ItemPtr& item);
  HRESULT InsertColumns();
  HRESULT ValuesSpecify();
  HRESULT UpdateColumns();
  HRESULT WhereSpecify();
  HRESULT Condition(CSQLConditionNode& node);
  HRESULT ConditionTerm(CSQLConditionNode& node);
  HRESULT Comparison(CSQLConditionNode& node);
  HRESULT Between(CSQLConditionNode& node);
  HRESULT RightOperand(CSQLConditionNode& comparison);
  HRESULT AndTail(CSQLConditionNode& node);
  HRESULT OrTail(CSQLConditionNode& node);
  HRESULT Operand(CSQLConditionNode& node);
  HRESULT OrderBySpecify();
  HRESULT OrderItem();

  corvane::WString errorInfo_;
  SQLLexerState lexer_;
  CSQLToken token_;
  std::unique_ptr<CSQLQueryInfo> query_;
  corvane::WStringView defaultCatalog_;
  corvane::WStringView defaultSchema_;
  int parameterCounter_ = 1;
  int nesting_ = 0;
};
