#include "SQLParser/SQLSyntaxParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "SQLParser/SQLCalcItemConst.h"
#include "SQLParser/SQLCalcItemFunction.h"
#include "SQLParser/SQLCalcItemParameter.h"
#include "SQLParser/SQLCalcItemTableColumn.h"
#include "SQLParser/SQLFunction.h"
#include "base/Trace.h"

using corvane::WString;
using corvane::WStringView;

// ---------------------------------------------------------------------------------
// Lexer

namespace {

inline bool IsAsciiLetter(OLECHAR c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
inline bool IsDigit(OLECHAR c) { return c >= '0' && c <= '9'; }
inline bool IsWordChar(OLECHAR c) { return IsAsciiLetter(c) || IsDigit(c) || c == '_'; }
inline OLECHAR AsciiUpper(OLECHAR c) { return (c >= 'a' && c <= 'z') ? static_cast<OLECHAR>(c - 'a' + 'A') : c; }

struct KeywordEntry {
  const char* word;
  int length;
  int kind;
  int keyword;
};

// Searched in this order; the first match wins. The last three are operators, not keywords.
const KeywordEntry kKeywords[] = {
    {"BETWEEN", 7, SQL_TOKEN_KEYWORD, SQL_KEYWORD_BETWEEN}, {"EXEC", 4, SQL_TOKEN_KEYWORD, SQL_KEYWORD_EXEC},
    {"CALL", 4, SQL_TOKEN_KEYWORD, SQL_KEYWORD_CALL},       {"INSERT", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_INSERT},
    {"INTO", 4, SQL_TOKEN_KEYWORD, SQL_KEYWORD_INTO},       {"VALUES", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_VALUES},
    {"SELECT", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_SELECT},   {"AS", 2, SQL_TOKEN_KEYWORD, SQL_KEYWORD_AS},
    {"FROM", 4, SQL_TOKEN_KEYWORD, SQL_KEYWORD_FROM},       {"WHERE", 5, SQL_TOKEN_KEYWORD, SQL_KEYWORD_WHERE},
    {"ORDER", 5, SQL_TOKEN_KEYWORD, SQL_KEYWORD_ORDER},     {"BY", 2, SQL_TOKEN_KEYWORD, SQL_KEYWORD_BY},
    {"ASC", 3, SQL_TOKEN_KEYWORD, SQL_KEYWORD_ASC},         {"DESC", 4, SQL_TOKEN_KEYWORD, SQL_KEYWORD_DESC},
    {"GROUP", 5, SQL_TOKEN_KEYWORD, SQL_KEYWORD_GROUP},     {"LIMIT", 5, SQL_TOKEN_KEYWORD, SQL_KEYWORD_LIMIT},
    {"TOP", 3, SQL_TOKEN_KEYWORD, SQL_KEYWORD_TOP},         {"DELETE", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_DELETE},
    {"UPDATE", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_UPDATE},   {"SET", 3, SQL_TOKEN_KEYWORD, SQL_KEYWORD_SET},
    {"HAVING", 6, SQL_TOKEN_KEYWORD, SQL_KEYWORD_HAVING},   {"AND", 3, SQL_TOKEN_AND, SQL_KEYWORD_NONE},
    {"OR", 2, SQL_TOKEN_OR, SQL_KEYWORD_NONE},              {"NOT", 3, SQL_TOKEN_NOT, SQL_KEYWORD_NONE},
};

// Every keyword is 2 to 7 letters. A word packs into one integer, its length in the top
// byte and a byte a letter in upper case below, so that it is compared with each keyword
// at once rather than letter by letter; a word that cannot be a keyword (too long or
// short, a character beyond ASCII) packs to 0, which no keyword is.
constexpr size_t kLongestKeyword = 7;

constexpr uint64_t PackKeyword(const char* word, int length) {
  uint64_t key = 0;
  for (int i = 0; i < length; ++i) key = (key << 8) | static_cast<unsigned char>(word[i]);
  return key | static_cast<uint64_t>(length) << 56;
}

uint64_t PackWord(const WString& text) {
  if (text.size() < 2 || text.size() > kLongestKeyword) return 0;
  uint64_t key = 0;
  for (OLECHAR c : text) {
    if (c >= 0x80) return 0;
    key = (key << 8) | AsciiUpper(c);
  }
  return key | static_cast<uint64_t>(text.size()) << 56;
}

// Where a decimal number that overflowed or underflowed lies: the power of ten of its
// first significant digit, from the digits and the exponent of the text.
long long DecimalMagnitude(const std::string& text) {
  size_t i = 0;
  long long intDigits = 0, leadingFractionZeros = 0;
  bool seenSignificant = false;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    if (text[i] != '0' || seenSignificant) {
      seenSignificant = true;
      ++intDigits;
    }
    ++i;
  }
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (!seenSignificant && i < text.size() && text[i] == '0') {
      ++leadingFractionZeros;
      ++i;
    }
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
  }
  long long exponent = 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      if (exponent < 100000000) exponent = exponent * 10 + (text[i] - '0');
      ++i;
    }
    if (negative) exponent = -exponent;
  }
  return (intDigits > 0 ? intDigits : -leadingFractionZeros) + exponent;
}

// The C runtime's text-to-double rule: leading blanks, an optional sign, then the
// longest prefix that reads as a decimal number; 0 when there is none. Always with
// '.' as the decimal separator, whatever the process locale.
double TextToDouble(const WString& text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::string narrow;
  narrow.reserve(text.size() - i);
  for (; i < text.size() && text[i] < 0x80; ++i) narrow.push_back(static_cast<char>(text[i]));
  double value = 0;
  auto result = std::from_chars(narrow.data(), narrow.data() + narrow.size(), value, std::chars_format::general);
  if (result.ec == std::errc::result_out_of_range)
    value = DecimalMagnitude(narrow) > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  else if (result.ec != std::errc())
    value = 0;
  return negative ? -value : value;
}

// Cleared on every way out, exceptions included.
struct ScopedVariant {
  VARIANT v;
  ScopedVariant() { VariantInit(&v); }
  ~ScopedVariant() { VariantClear(&v); }
  ScopedVariant(const ScopedVariant&) = delete;
  ScopedVariant& operator=(const ScopedVariant&) = delete;
};

// Integer token text to a 64-bit value by the OLE Automation conversion. Plain digit
// texts short enough not to overflow give the same value without the BSTR round trip.
HRESULT TextToInteger(const WString& text, LONG64* value) {
  if (!text.empty() && text.size() <= 18) {
    LONG64 v = 0;
    bool digits = true;
    for (OLECHAR c : text) {
      if (!IsDigit(c)) {
        digits = false;
        break;
      }
      v = v * 10 + (c - '0');
    }
    if (digits) {
      *value = v;
      return S_OK;
    }
  }
  ScopedVariant source, converted;
  source.v.bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!source.v.bstrVal) return E_OUTOFMEMORY;
  V_VT(&source.v) = VT_BSTR;
  HRESULT hr = VariantChangeType(&converted.v, &source.v, 0, VT_I8);
  if (FAILED(hr)) return hr;
  if (V_VT(&converted.v) != VT_I8) return DISP_E_TYPEMISMATCH;
  *value = V_I8(&converted.v);
  return S_OK;
}

HRESULT FailToken(CSQLToken& token, HRESULT hr) {
  token.kind = SQL_TOKEN_UNKNOWN;
  token.keyword = SQL_KEYWORD_NONE;
  token.doubleValue = 0;
  token.integerValue = 0;
  return hr;
}

}  // namespace

void CSQLSyntaxParser::ClassifyWord(CSQLToken& token) {
  // Sorted by key, so that the many words that are no keyword are turned away after a
  // few comparisons; each keyword appears once, so the table's order decides nothing.
  static const auto kKeys = [] {
    std::array<std::pair<uint64_t, const KeywordEntry*>, std::size(kKeywords)> keys{};
    for (size_t i = 0; i < keys.size(); ++i)
      keys[i] = {PackKeyword(kKeywords[i].word, kKeywords[i].length), &kKeywords[i]};
    std::sort(keys.begin(), keys.end());
    return keys;
  }();
  const uint64_t key = PackWord(token.text);
  if (key == 0) return;
  const auto found = std::lower_bound(kKeys.begin(), kKeys.end(), key,
                                      [](const auto& entry, uint64_t k) { return entry.first < k; });
  if (found == kKeys.end() || found->first != key) return;
  token.kind = found->second->kind;
  token.keyword = found->second->keyword;
}

HRESULT CSQLSyntaxParser::ReadToken(SQLLexerState& state, CSQLToken& token) {
  token.Reset();
  const OLECHAR* s = state.text.data();
  const size_t n = state.text.size();
  if (state.position < 0) return FailToken(token, E_INVALIDARG);
  size_t pos = static_cast<size_t>(state.position);
  struct StorePosition {
    SQLLexerState& state;
    size_t& pos;
    ~StorePosition() { state.position = static_cast<int32_t>(pos); }
  } store{state, pos};

  for (;;) {
    if (pos >= n) {
      token.kind = SQL_TOKEN_END;
      return S_OK;
    }
    const OLECHAR c = s[pos];
    if (IsAsciiLetter(c) || c == '_') {
      const size_t start = pos++;
      while (pos < n && IsWordChar(s[pos])) ++pos;
      token.text.assign(s + start, pos - start);
      token.kind = SQL_TOKEN_IDENTIFIER;
      ClassifyWord(token);
      return S_OK;
    }
    if (IsDigit(c) || c == '-') {
      bool negative = false;
      if (c == '-') {
        negative = true;
        ++pos;
        // The digit after a sign is taken unchecked; at the end there is none to take.
        if (pos >= n) return FailToken(token, E_INVALIDARG);
      }
      size_t start = pos++;
      while (pos < n && IsDigit(s[pos])) ++pos;
      token.text.assign(s + start, pos - start);
      token.kind = SQL_TOKEN_INTEGER;
      if (pos < n && s[pos] == '.') {
        token.kind = SQL_TOKEN_DOUBLE;
        if (pos + 1 < n && IsDigit(s[pos + 1])) {
          start = pos++;
          while (pos < n && IsDigit(s[pos])) ++pos;
          token.text.append(s + start, pos - start);
        } else {
          token.text += OLESTR(".0");
          ++pos;
        }
      }
      if (pos < n && (s[pos] == 'e' || s[pos] == 'E')) {
        const OLECHAR next = pos + 1 < n ? s[pos + 1] : OLECHAR(0);
        const bool sign = next == '-' || next == '+';
        // With a sign the digit must follow it. Without one the digit is still looked
        // for two places past the e, not one: "1e55" reads, "1e5" alone does not.
        // Clients' saved queries depend on it.
        if (pos + 2 >= n || !IsDigit(s[pos + 2])) return FailToken(token, E_FAIL);
        start = pos;
        pos += sign ? 2 : 1;
        while (pos < n && IsDigit(s[pos])) ++pos;
        token.text.append(s + start, pos - start);
        token.kind = SQL_TOKEN_DOUBLE;
      }
      if (token.kind == SQL_TOKEN_INTEGER) {
        LONG64 value = 0;
        HRESULT hr = TextToInteger(token.text, &value);
        if (FAILED(hr)) return FailToken(token, hr);
        // Negated through unsigned arithmetic: "--9223372036854775808" must not overflow.
        token.integerValue = negative ? static_cast<LONG64>(0 - static_cast<ULONG64>(value)) : value;
      } else {
        const double value = TextToDouble(token.text);
        token.doubleValue = negative ? -value : value;
      }
      return S_OK;
    }
    switch (c) {
      case '"': {
        const size_t start = ++pos;
        while (pos < n && s[pos] != '"') ++pos;
        if (pos >= n) return FailToken(token, E_FAIL);
        token.text.assign(s + start, pos - start);
        ++pos;
        token.kind = SQL_TOKEN_IDENTIFIER;  // never a keyword: "SELECT" is a name
        return S_OK;
      }
      case '\'': {
        ++pos;
        while (pos < n) {
          const OLECHAR ch = s[pos];
          if (ch == '\'') {
            ++pos;
            break;
          }
          if (ch == '\\') {
            // A backslash as the very last character has nothing to escape: the
            // literal ends there, as an unterminated one would.
            if (pos + 1 >= n) {
              pos = n;
              break;
            }
            token.text += s[pos + 1];
            pos += 2;
            continue;
          }
          size_t start = pos++;
          while (pos < n && s[pos] != '\'' && s[pos] != '\\') ++pos;
          token.text.append(s + start, pos - start);
        }
        token.kind = SQL_TOKEN_STRING;
        return S_OK;
      }
      case '(': token.kind = SQL_TOKEN_LEFT_PARENTHESIS; break;
      case ')': token.kind = SQL_TOKEN_RIGHT_PARENTHESIS; break;
      case '*': token.kind = SQL_TOKEN_ASTERISK; break;
      case ',': token.kind = SQL_TOKEN_COMMA; break;
      case '.': token.kind = SQL_TOKEN_DOT; break;
      case ';': token.kind = SQL_TOKEN_TERMINATOR; break;
      case '=': token.kind = SQL_TOKEN_EQUAL; break;
      case '?': token.kind = SQL_TOKEN_PARAMETER; break;
      case '>':
        token.text += c;
        ++pos;
        if (pos < n && s[pos] == '=') {
          token.text += s[pos++];
          token.kind = SQL_TOKEN_GREATER_OR_EQUAL;
        } else {
          token.kind = SQL_TOKEN_GREATER;
        }
        return S_OK;
      case '<':
        token.text += c;
        ++pos;
        if (pos < n && s[pos] == '=') {
          token.text += s[pos++];
          token.kind = SQL_TOKEN_LESS_OR_EQUAL;
        } else if (pos < n && s[pos] == '>') {
          token.text += s[pos++];
          token.kind = SQL_TOKEN_NOT_EQUAL;
        } else {
          token.kind = SQL_TOKEN_LESS;
        }
        return S_OK;
      default:
        // Every other character is dropped like a blank: "!=" reads as "=", "[a b]" as
        // two names, "{CALL p}" as "CALL p". Existing client texts rely on this.
        ++pos;
        continue;
    }
    token.text += c;
    ++pos;
    return S_OK;
  }
}

// ---------------------------------------------------------------------------------
// Syntax parser

#define RETURN_IF_FAILED(expr)     \
  do {                             \
    const HRESULT hr_ = (expr);    \
    if (FAILED(hr_)) return hr_;   \
  } while (0)

#define TRACE_RULE(text) CVTRACE(TRACE_DETAIL, OLESTR("SQL parser uses the rule: ") OLESTR(text))

namespace {

constexpr const OLECHAR* kErrorPrefix = OLESTR("Failed to parse the query: '");

// Room made at once for a list of columns, values or parameters: most statements' lists
// fit, so they are not grown an item at a time.
constexpr size_t kListRoom = 8;

// The statement quoted in a message: whole when short; a long one (a generated IN-style
// OR list, a pasted literal) would otherwise turn every error record and trace line
// into a copy of up to megabytes of text, so only its beginning is shown.
void AppendQuoted(corvane::WString& message, WStringView statement) {
  if (statement.size() <= CSQLSyntaxParser::kMaxQuotedStatement) {
    message.append(statement.data(), statement.size());
    return;
  }
  message.append(statement.data(), CSQLSyntaxParser::kMaxQuotedStatement);
  message += OLESTR("...");
}

bool IsAggregateName(const WString& name) {
  const SQLFunctionInfo* function = FindSQLFunction(name);
  return function && function->aggregate;
}

int ComparisonOperator(int tokenKind) {
  switch (tokenKind) {
    case SQL_TOKEN_EQUAL: return SQL_COND_EQUAL;
    case SQL_TOKEN_GREATER: return SQL_COND_GREATER;
    case SQL_TOKEN_LESS: return SQL_COND_LESS;
    case SQL_TOKEN_GREATER_OR_EQUAL: return SQL_COND_GREATER_OR_EQUAL;
    case SQL_TOKEN_LESS_OR_EQUAL: return SQL_COND_LESS_OR_EQUAL;
    case SQL_TOKEN_NOT_EQUAL: return SQL_COND_NOT_EQUAL;
    default: return -1;
  }
}

}  // namespace

class CSQLSyntaxParser::NestingGuard {
 public:
  explicit NestingGuard(int& depth) : depth_(depth) { ++depth_; }
  ~NestingGuard() { --depth_; }
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;
  bool Exceeded() const { return depth_ > kMaxNestingDepth; }

 private:
  int& depth_;
};

CSQLSyntaxParser::CSQLSyntaxParser(WStringView defaultCatalog, WStringView defaultSchema, WStringView queryText)
    : defaultCatalog_(defaultCatalog), defaultSchema_(defaultSchema) {
  lexer_.text = queryText;
  lexer_.position = 0;
}

HRESULT CSQLSyntaxParser::Consume() {
  const HRESULT hr = ReadToken(lexer_, token_);
  if (FAILED(hr)) CVTRACE(TRACE_DETAIL, OLESTR("FAILED to consume token"));
  return hr;
}

HRESULT CSQLSyntaxParser::Error(const OLECHAR* text) {
  WString message(kErrorPrefix);
  AppendQuoted(message, lexer_.text);
  message += OLESTR("'. ");
  message += text;
  errorInfo_ = std::move(message);
  return E_FAIL;
}

HRESULT CSQLSyntaxParser::ClauseError(HRESULT hr, const OLECHAR* text) {
  Error(text);
  return hr;
}

HRESULT CSQLSyntaxParser::Start() {
  RETURN_IF_FAILED(Consume());
  if (token_.kind == SQL_TOKEN_KEYWORD) {
    switch (token_.keyword) {
      case SQL_KEYWORD_INSERT:
        TRACE_RULE("<START> -> <INSERT_QUERY>");
        query_ = std::make_unique<CSQLQueryInfoINSERT>();
        return InsertQuery();
      case SQL_KEYWORD_SELECT:
        TRACE_RULE("<START> -> <SELECT_QUERY>");
        query_ = std::make_unique<CSQLQueryInfoSELECT>();
        return SelectQuery();
      case SQL_KEYWORD_DELETE:
        TRACE_RULE("<START> -> <DELETE_QUERY>");
        query_ = std::make_unique<CSQLQueryInfoDELETE>();
        return DeleteQuery();
      case SQL_KEYWORD_UPDATE:
        TRACE_RULE("<START> -> <UPDATE_QUERY>");
        query_ = std::make_unique<CSQLQueryInfoUPDATE>();
        return UpdateQuery();
      case SQL_KEYWORD_EXEC:
        TRACE_RULE("<START> -> <STORED_PROCEDURE_EXEC>");
        query_ = std::make_unique<CSQLQueryInfoSP>();
        return StoredProcedureExec();
      case SQL_KEYWORD_CALL:
        TRACE_RULE("<START> -> <STORED_PROCEDURE_CALL>");
        query_ = std::make_unique<CSQLQueryInfoSP>();
        return StoredProcedureCall();
      default:
        break;
    }
  } else if (token_.kind == SQL_TOKEN_PARAMETER) {
    // "? = CALL p(...)": the return value is parameter 1, so the call's own start at 2.
    query_ = std::make_unique<CSQLQueryInfoSP>();
    RETURN_IF_FAILED(Consume());
    ++parameterCounter_;
    if (token_.kind == SQL_TOKEN_EQUAL) {
      RETURN_IF_FAILED(Consume());
      return StoredProcedureCall();
    }
    WString message(kErrorPrefix);
    AppendQuoted(message, lexer_.text);
    message += OLESTR("'.\n");
    errorInfo_ = std::move(message);
    return E_FAIL;
  }
  return Error(OLESTR("Query is not supported.\n"));
}

HRESULT CSQLSyntaxParser::SelectQuery() {
  auto& query = static_cast<CSQLQueryInfoSELECT&>(*query_);
  RETURN_IF_FAILED(Consume());
  HRESULT hr = TopSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("TOP clause parse error."));
  ItemList items;
  items.reserve(kListRoom);
  hr = ColumnsListSpecify(items);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Column list parse error."));
  query.ReserveSelectColumns(items.size());
  for (auto& item : items) {
    if (item->Kind() == SQL_CALC_FUNCTION && IsAggregateName(static_cast<CSQLCalcItemFunction&>(*item).Name()))
      query.SetAggregate(1);
    hr = query.AddSelectColumn(std::move(item));
    if (FAILED(hr)) return ClauseError(hr, OLESTR("Column list parse error."));
  }
  if (!IsKeyword(SQL_KEYWORD_FROM)) return Error(OLESTR("FROM is missing."));
  RETURN_IF_FAILED(Consume());
  hr = FromList();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Table/Stored procedure list parse error."));
  hr = WhereSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("WHERE clause parse error."));
  hr = OrderBySpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("ORDER BY clause parse error."));
  hr = LimitSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("LIMIT clause parse error."));
  return EndOfQuery();
}

HRESULT CSQLSyntaxParser::InsertQuery() {
  RETURN_IF_FAILED(Consume());
  if (!IsKeyword(SQL_KEYWORD_INTO)) return Error(OLESTR("INTO clause is missing."));
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLSelectItemTable> table;
  HRESULT hr = TableName(table);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Table parse error."));
  RETURN_IF_FAILED(query_->AddFromItem(std::move(table)));
  hr = InsertColumns();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Columns parse error."));
  hr = ValuesSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Values parse error."));
  return EndOfQuery();
}

HRESULT CSQLSyntaxParser::InsertColumns() {
  auto& query = static_cast<CSQLQueryInfoINSERT&>(*query_);
  if (token_.kind != SQL_TOKEN_LEFT_PARENTHESIS) return Error(OLESTR("( is missing."));
  RETURN_IF_FAILED(Consume());
  ItemList items;
  items.reserve(kListRoom);
  HRESULT hr = ColumnsListSpecify(items);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Column list parse error."));
  query.Reserve(items.size());  // and room for as many values
  for (auto& item : items) RETURN_IF_FAILED(query.AddColumn(std::move(item)));
  if (token_.kind != SQL_TOKEN_RIGHT_PARENTHESIS) return Error(OLESTR(") is missing."));
  return Consume();
}

HRESULT CSQLSyntaxParser::ValuesSpecify() {
  auto& query = static_cast<CSQLQueryInfoINSERT&>(*query_);
  if (!IsKeyword(SQL_KEYWORD_VALUES)) return Error(OLESTR("VALUES clause is missing."));
  RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_LEFT_PARENTHESIS) return Error(OLESTR("( is missing."));
  RETURN_IF_FAILED(Consume());
  for (;;) {
    ItemPtr item;
    HRESULT hr = ColumnItem(item);
    if (FAILED(hr)) return ClauseError(hr, OLESTR("Value list parse error."));
    RETURN_IF_FAILED(query.AddValue(std::move(item)));
    if (token_.kind == SQL_TOKEN_COMMA) {
      RETURN_IF_FAILED(Consume());
      continue;
    }
    if (token_.kind == SQL_TOKEN_RIGHT_PARENTHESIS) return Consume();
    return Error(OLESTR(") is missing."));
  }
}

HRESULT CSQLSyntaxParser::UpdateQuery() {
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLSelectItemTable> table;
  HRESULT hr = TableName(table);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Table parse error."));
  RETURN_IF_FAILED(query_->AddFromItem(std::move(table)));
  if (!IsKeyword(SQL_KEYWORD_SET)) return Error(OLESTR("SET is missing."));
  RETURN_IF_FAILED(Consume());
  hr = UpdateColumns();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Update columns parse error."));
  hr = WhereSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("WHERE clause parse error."));
  return EndOfQuery();
}

HRESULT CSQLSyntaxParser::UpdateColumns() {
  auto& query = static_cast<CSQLQueryInfoUPDATE&>(*query_);
  query.Reserve(kListRoom);
  for (;;) {
    ItemPtr column;
    RETURN_IF_FAILED(ColumnItem(column));
    RETURN_IF_FAILED(query.AddColumn(std::move(column)));
    if (token_.kind != SQL_TOKEN_EQUAL) return Error(OLESTR("Equal operator is missing."));
    RETURN_IF_FAILED(Consume());
    ItemPtr value;
    RETURN_IF_FAILED(ColumnItem(value));
    RETURN_IF_FAILED(query.AddValue(std::move(value)));
    if (token_.kind != SQL_TOKEN_COMMA) return S_OK;
    RETURN_IF_FAILED(Consume());
  }
}

HRESULT CSQLSyntaxParser::DeleteQuery() {
  RETURN_IF_FAILED(Consume());
  if (!IsKeyword(SQL_KEYWORD_FROM)) return Error(OLESTR("FROM is missing."));
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLSelectItemTable> table;
  HRESULT hr = TableName(table);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Table parse error."));
  RETURN_IF_FAILED(query_->AddFromItem(std::move(table)));
  hr = WhereSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("WHERE clause parse error."));
  hr = LimitSpecify();
  if (FAILED(hr)) return ClauseError(hr, OLESTR("LIMIT clause parse error."));
  return EndOfQuery();
}

HRESULT CSQLSyntaxParser::StoredProcedureExec() {
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLSelectItemSP> procedure;
  HRESULT hr = ProcedureName(procedure);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Stored procedure parse error."));
  CSQLSelectItemSP& target = *procedure;
  RETURN_IF_FAILED(query_->AddFromItem(std::move(procedure)));
  ItemList parameters;
  parameters.reserve(kListRoom);
  hr = ParameterList(parameters);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Parameters parse error."));
  RETURN_IF_FAILED(target.SetParameters(parameters));
  if (token_.kind == SQL_TOKEN_TERMINATOR) RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_END) return Error(OLESTR("End of the query was expected."));
  return S_OK;
}

HRESULT CSQLSyntaxParser::StoredProcedureCall() {
  // The token here is CALL, or whatever followed "? =": it is not looked at.
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLSelectItemSP> procedure;
  HRESULT hr = ProcedureName(procedure);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Stored procedure parse error."));
  CSQLSelectItemSP& target = *procedure;
  RETURN_IF_FAILED(query_->AddFromItem(std::move(procedure)));
  if (token_.kind == SQL_TOKEN_TERMINATOR) {
    do {
      RETURN_IF_FAILED(Consume());
      RETURN_IF_FAILED(Consume());
    } while (token_.kind != SQL_TOKEN_LEFT_PARENTHESIS && token_.kind != SQL_TOKEN_END);
  }
  if (token_.kind != SQL_TOKEN_LEFT_PARENTHESIS) return Error(OLESTR("( is missing."));
  RETURN_IF_FAILED(Consume());
  ItemList parameters;
  parameters.reserve(kListRoom);
  hr = ParameterList(parameters);
  if (FAILED(hr)) return ClauseError(hr, OLESTR("Parameters parse error."));
  RETURN_IF_FAILED(target.SetParameters(parameters));
  if (token_.kind != SQL_TOKEN_RIGHT_PARENTHESIS) return Error(OLESTR(") is missing."));
  RETURN_IF_FAILED(Consume());
  return EndOfQuery();
}

HRESULT CSQLSyntaxParser::EndOfQuery() {
  if (token_.kind == SQL_TOKEN_TERMINATOR) RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_END) return Error(OLESTR("End of the query was expected."));
  return S_OK;
}

HRESULT CSQLSyntaxParser::TopSpecify() {
  if (!IsKeyword(SQL_KEYWORD_TOP)) {
    TRACE_RULE("<TOP_SPECIFY> -> e");
    return S_OK;
  }
  TRACE_RULE("<TOP_SPECIFY> -> TOP int");
  RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_INTEGER) return E_FAIL;
  query_->SetRowLimit(0, static_cast<int>(static_cast<uint32_t>(token_.integerValue)));
  return Consume();
}

HRESULT CSQLSyntaxParser::LimitSpecify() {
  if (!IsKeyword(SQL_KEYWORD_LIMIT)) return S_OK;
  RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_INTEGER) return E_FAIL;
  const int first = static_cast<int>(static_cast<uint32_t>(token_.integerValue));
  query_->SetRowLimit(0, first);
  RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_COMMA) return S_OK;
  RETURN_IF_FAILED(Consume());
  if (token_.kind != SQL_TOKEN_INTEGER) return E_FAIL;
  query_->SetRowLimit(first, static_cast<int>(static_cast<uint32_t>(token_.integerValue)));
  return Consume();
}

HRESULT CSQLSyntaxParser::ColumnsListSpecify(ItemList& items) {
  TRACE_RULE("<COLUMNS_LIST_SPECIFY> -> <COLUMN_ITEM> <NEXT_COLUMN_ITEM>");
  ItemPtr item;
  RETURN_IF_FAILED(ColumnItem(item));
  items.push_back(std::move(item));
  return NextColumnItem(items);
}

HRESULT CSQLSyntaxParser::NextColumnItem(ItemList& items) {
  while (token_.kind == SQL_TOKEN_COMMA) {
    TRACE_RULE("<NEXT_COLUMN_ITEM> -> , <COLUMN_ITEM> <NEXT_COLUMN_ITEM>");
    RETURN_IF_FAILED(Consume());
    ItemPtr item;
    RETURN_IF_FAILED(ColumnItem(item));
    items.push_back(std::move(item));
  }
  TRACE_RULE("<NEXT_COLUMN_ITEM> -> e");
  return S_OK;
}

HRESULT CSQLSyntaxParser::ConstantItem(ItemPtr& item) {
  auto constant = std::make_unique<CSQLCalcItemConst>();
  switch (token_.kind) {
    case SQL_TOKEN_INTEGER: constant->SetInteger(token_.integerValue); break;
    case SQL_TOKEN_DOUBLE: constant->SetDouble(token_.doubleValue); break;
    case SQL_TOKEN_STRING: RETURN_IF_FAILED(constant->SetString(token_.text)); break;
    default: return E_FAIL;
  }
  RETURN_IF_FAILED(Consume());
  item = std::move(constant);
  return S_OK;
}

// ColumnItem, NamedItem, FunctionCall and FunctionArguments form the recursion of
// nested calls; each keeps its frame small (sanitizer builds give every local its own
// slot), so that the deepest accepted nesting fits a small thread stack.
HRESULT CSQLSyntaxParser::ColumnItem(ItemPtr& item) {
  switch (token_.kind) {
    case SQL_TOKEN_ASTERISK:
      TRACE_RULE("<COLUMN_ITEM> -> *");
      return StarColumn(item);
    case SQL_TOKEN_IDENTIFIER:
      TRACE_RULE("<COLUMN_ITEM> -> column <COLUMN_ITEM_SPECIFY>");
      return NamedItem(item);
    case SQL_TOKEN_INTEGER:
    case SQL_TOKEN_DOUBLE:
    case SQL_TOKEN_STRING:
      TRACE_RULE("<COLUMN_ITEM> -> int | double | string");
      return ConstantItem(item);
    default:
      return E_FAIL;
  }
}

HRESULT CSQLSyntaxParser::StarColumn(ItemPtr& item) {
  auto column = std::make_unique<CSQLCalcItemTableColumn>(WString(OLESTR("*")));
  RETURN_IF_FAILED(Consume());
  item = std::move(column);
  return S_OK;
}

HRESULT CSQLSyntaxParser::NamedItem(ItemPtr& item) {
  WString name = std::move(token_.text);
  RETURN_IF_FAILED(Consume());
  if (token_.kind == SQL_TOKEN_LEFT_PARENTHESIS) return FunctionCall(name, item);
  return ColumnItemSpecify(name, item);
}

HRESULT CSQLSyntaxParser::OptionalAlias(WString& alias) {
  if (IsKeyword(SQL_KEYWORD_AS)) {
    RETURN_IF_FAILED(Consume());
    if (token_.kind != SQL_TOKEN_IDENTIFIER) return E_FAIL;
  } else if (token_.kind != SQL_TOKEN_IDENTIFIER) {
    return S_OK;
  }
  alias = std::move(token_.text);
  return Consume();
}

HRESULT CSQLSyntaxParser::ColumnItemSpecify(WString& name, ItemPtr& item) {
  if (token_.kind == SQL_TOKEN_LEFT_PARENTHESIS) return FunctionCall(name, item);
  if (token_.kind == SQL_TOKEN_DOT) return QualifiedColumn(name, item);
  auto column = std::make_unique<CSQLCalcItemTableColumn>(std::move(name));
  RETURN_IF_FAILED(ColumnAlias(*column));
  item = std::move(column);
  return S_OK;
}

HRESULT CSQLSyntaxParser::FunctionCall(WString& name, ItemPtr& item) {
  NestingGuard guard(nesting_);
  if (guard.Exceeded()) return E_FAIL;
  auto function = std::make_unique<CSQLCalcItemFunction>(std::move(name));
  RETURN_IF_FAILED(Consume());
  RETURN_IF_FAILED(FunctionArguments(*function));
  if (token_.kind != SQL_TOKEN_RIGHT_PARENTHESIS) return E_FAIL;
  RETURN_IF_FAILED(Consume());
  RETURN_IF_FAILED(FunctionAlias(*function));
  item = std::move(function);
  return S_OK;
}

// ARGUMENT_LIST, attaching each argument as it is read: DATEADD's go through its own
// argument handling. An empty list (NOW()) is any first token that cannot start one.
HRESULT CSQLSyntaxParser::FunctionArguments(CSQLCalcItemFunction& function) {
  switch (token_.kind) {
    case SQL_TOKEN_STRING:
    case SQL_TOKEN_INTEGER:
    case SQL_TOKEN_DOUBLE:
    case SQL_TOKEN_IDENTIFIER:
    case SQL_TOKEN_ASTERISK:
      break;
    default:
      return S_OK;
  }
  const bool dateAdd = corvane::WIEquals(function.Name(), OLESTR("DATEADD"));
  for (;;) {
    ItemPtr argument;
    RETURN_IF_FAILED(ColumnItem(argument));
    RETURN_IF_FAILED(dateAdd ? function.AddDateAddArgument(std::move(argument))
                             : function.AddArgument(std::move(argument)));
    if (token_.kind != SQL_TOKEN_COMMA) return S_OK;
    RETURN_IF_FAILED(Consume());
  }
}

HRESULT CSQLSyntaxParser::FunctionAlias(CSQLCalcItemFunction& function) {
  WString alias;
  RETURN_IF_FAILED(OptionalAlias(alias));
  if (!alias.empty()) function.SetDisplayName(std::move(alias));
  return S_OK;
}

HRESULT CSQLSyntaxParser::ColumnAlias(CSQLCalcItemTableColumn& column) {
  WString alias;
  RETURN_IF_FAILED(OptionalAlias(alias));
  if (!alias.empty()) column.SetDisplayName(std::move(alias));
  return S_OK;
}

HRESULT CSQLSyntaxParser::QualifiedColumn(const WString& qualifier, ItemPtr& item) {
  RETURN_IF_FAILED(Consume());
  std::unique_ptr<CSQLCalcItemTableColumn> column;
  if (token_.kind == SQL_TOKEN_IDENTIFIER) {
    column = std::make_unique<CSQLCalcItemTableColumn>(std::move(token_.text));
    column->SetTableQualifier(qualifier);
    RETURN_IF_FAILED(Consume());
    RETURN_IF_FAILED(ColumnAlias(*column));
  } else if (token_.kind == SQL_TOKEN_ASTERISK) {
    column = std::make_unique<CSQLCalcItemTableColumn>(WString(OLESTR("*")));
    column->SetTableQualifier(qualifier);
    RETURN_IF_FAILED(Consume());
  } else {
    return E_FAIL;
  }
  item = std::move(column);
  return S_OK;
}

HRESULT CSQLSyntaxParser::QualifiedName(WString& catalog, WString& schema, WString& name) {
  if (token_.kind != SQL_TOKEN_IDENTIFIER) return E_FAIL;
  name = std::move(token_.text);
  RETURN_IF_FAILED(Consume());
  while (token_.kind == SQL_TOKEN_DOT) {
    RETURN_IF_FAILED(Consume());
    if (token_.kind != SQL_TOKEN_IDENTIFIER) return E_FAIL;
    // Each further part shifts the earlier ones left: t, s.t, c.s.t.
    catalog = std::move(schema);
    schema = std::move(name);
    name = std::move(token_.text);
    RETURN_IF_FAILED(Consume());
  }
  return S_OK;
}

HRESULT CSQLSyntaxParser::TableName(std::unique_ptr<CSQLSelectItemTable>& table) {
  WString catalog, schema, name;
  RETURN_IF_FAILED(QualifiedName(catalog, schema, name));
  WString alias;
  RETURN_IF_FAILED(OptionalAlias(alias));
  auto made = std::make_unique<CSQLSelectItemTable>();
  if (!alias.empty()) made->SetAlias(std::move(alias));
  made->SetTableName(std::move(name));
  made->SetCatalog(catalog.empty() ? WString(defaultCatalog_) : std::move(catalog));
  made->SetSchema(schema.empty() ? WString(defaultSchema_) : std::move(schema));
  table = std::move(made);
  return S_OK;
}

HRESULT CSQLSyntaxParser::ProcedureName(std::unique_ptr<CSQLSelectItemSP>& procedure) {
  WString catalog, schema, name;
  RETURN_IF_FAILED(QualifiedName(catalog, schema, name));
  auto made = std::make_unique<CSQLSelectItemSP>();
  made->SetProcedureName(std::move(name));
  made->SetCatalog(catalog.empty() ? WString(defaultCatalog_) : std::move(catalog));
  made->SetSchema(schema.empty() ? WString(defaultSchema_) : std::move(schema));
  procedure = std::move(made);
  return S_OK;
}

HRESULT CSQLSyntaxParser::FromList() {
  std::unique_ptr<CSQLSelectItemTable> table;
  RETURN_IF_FAILED(TableName(table));
  if (token_.kind != SQL_TOKEN_LEFT_PARENTHESIS) {
    RETURN_IF_FAILED(query_->AddFromItem(std::move(table)));
    while (token_.kind == SQL_TOKEN_COMMA) {
      RETURN_IF_FAILED(Consume());
      std::unique_ptr<CSQLSelectItemTable> next;
      RETURN_IF_FAILED(TableName(next));
      RETURN_IF_FAILED(query_->AddFromItem(std::move(next)));
    }
    return S_OK;
  }
  // A procedure used as a table: SELECT ... FROM p(...). It is the only FROM item.
  auto procedure = std::make_unique<CSQLSelectItemSP>();
  procedure->SetCatalog(table->Catalog());
  procedure->SetSchema(table->Schema());
  procedure->SetProcedureName(table->TableName());
  RETURN_IF_FAILED(Consume());
  ItemList parameters;
  parameters.reserve(kListRoom);
  RETURN_IF_FAILED(ParameterList(parameters));
  RETURN_IF_FAILED(procedure->SetParameters(parameters));
  if (token_.kind != SQL_TOKEN_RIGHT_PARENTHESIS) return E_FAIL;
  RETURN_IF_FAILED(Consume());
  return query_->AddFromItem(std::move(procedure));
}

HRESULT CSQLSyntaxParser::ParameterList(ItemList& items) {
  for (;;) {
    ItemPtr item;
    RETURN_IF_FAILED(Parameter(item));
    items.push_back(std::move(item));
    if (token_.kind != SQL_TOKEN_COMMA) return S_OK;
    RETURN_IF_FAILED(Consume());
  }
}

HRESULT CSQLSyntaxParser::Parameter(ItemPtr& item) {
  switch (token_.kind) {
    case SQL_TOKEN_STRING:
    case SQL_TOKEN_INTEGER:
    case SQL_TOKEN_DOUBLE:
      return ConstantItem(item);
    case SQL_TOKEN_IDENTIFIER:
      return NamedItem(item);  // so NOW() or DATEADD(...) can be a parameter
    case SQL_TOKEN_PARAMETER: {
      auto parameter = std::make_unique<CSQLCalcItemParameter>(parameterCounter_++);
      RETURN_IF_FAILED(Consume());
      item = std::move(parameter);
      return S_OK;
    }
    default:
      return E_FAIL;
  }
}

HRESULT CSQLSyntaxParser::WhereSpecify() {
  query_->SetCondition(nullptr);
  if (!IsKeyword(SQL_KEYWORD_WHERE)) return S_OK;
  RETURN_IF_FAILED(Consume());
  auto root = std::make_unique<CSQLConditionNode>();
  RETURN_IF_FAILED(Condition(*root));
  if (root->Height() > kMaxConditionDepth) return E_FAIL;
  query_->SetCondition(std::move(root));
  return S_OK;
}

HRESULT CSQLSyntaxParser::Condition(CSQLConditionNode& node) {
  RETURN_IF_FAILED(ConditionTerm(node));
  RETURN_IF_FAILED(AndTail(node));
  return OrTail(node);
}

HRESULT CSQLSyntaxParser::ConditionTerm(CSQLConditionNode& node) {
  if (token_.kind == SQL_TOKEN_NOT) {
    RETURN_IF_FAILED(Consume());
    node.SetOperator(SQL_COND_NOT);
    node.SetLeft(std::make_unique<CSQLConditionNode>());
    CSQLConditionNode& child = *node.MutableLeft();
    RETURN_IF_FAILED(Operand(child));
    return Comparison(child);
  }
  RETURN_IF_FAILED(Operand(node));
  return Comparison(node);
}

HRESULT CSQLSyntaxParser::Comparison(CSQLConditionNode& node) {
  if (IsKeyword(SQL_KEYWORD_BETWEEN)) return Between(node);
  const int op = ComparisonOperator(token_.kind);
  if (op < 0) return E_FAIL;  // a bare operand is not a condition
  RETURN_IF_FAILED(Consume());
  node.SetOperator(op);
  return RightOperand(node);
}

HRESULT CSQLSyntaxParser::RightOperand(CSQLConditionNode& comparison) {
  // Read in place: almost always a plain operand, which needs no node of its own.
  CSQLConditionNode operand;
  RETURN_IF_FAILED(Operand(operand));
  if (operand.Operator() == SQL_COND_OPERAND)
    comparison.SetSecondOperand(operand.TakeFirstOperand());
  else  // "a = (b = 1)": nothing is thrown away
    comparison.SetRight(std::make_unique<CSQLConditionNode>(std::move(operand)));
  return S_OK;
}

HRESULT CSQLSyntaxParser::Between(CSQLConditionNode& node) {
  RETURN_IF_FAILED(Consume());
  const CSQLCalcItem* first = node.FirstOperand();
  if (!first || first->Kind() != SQL_CALC_TABLE_COLUMN) return E_FAIL;
  const auto& column = static_cast<const CSQLCalcItemTableColumn&>(*first);
  // Exclusive on purpose: x BETWEEN 1 AND 5 is x > 1 AND x < 5.
  auto low = std::make_unique<CSQLConditionNode>();
  low->SetOperator(SQL_COND_GREATER);
  low->SetFirstOperand(std::make_unique<CSQLCalcItemTableColumn>(column));
  RETURN_IF_FAILED(RightOperand(*low));
  if (token_.kind != SQL_TOKEN_AND) return E_FAIL;
  RETURN_IF_FAILED(Consume());
  auto high = std::make_unique<CSQLConditionNode>();
  high->SetOperator(SQL_COND_LESS);
  high->SetFirstOperand(node.TakeFirstOperand());  // the column as written, not a second copy
  RETURN_IF_FAILED(RightOperand(*high));
  node.Reset();
  node.SetOperator(SQL_COND_AND);
  node.SetLeft(std::move(low));
  node.SetRight(std::move(high));
  return S_OK;
}

HRESULT CSQLSyntaxParser::AndTail(CSQLConditionNode& node) {
  while (token_.kind == SQL_TOKEN_AND) {
    RETURN_IF_FAILED(Consume());
    // The tree so far moves down into the left child; left-associative.
    auto left = std::make_unique<CSQLConditionNode>(std::move(node));
    node.SetOperator(SQL_COND_AND);
    node.SetLeft(std::move(left));
    node.SetRight(std::make_unique<CSQLConditionNode>());
    RETURN_IF_FAILED(ConditionTerm(*node.MutableRight()));
  }
  return S_OK;
}

HRESULT CSQLSyntaxParser::OrTail(CSQLConditionNode& node) {
  while (token_.kind == SQL_TOKEN_OR) {
    RETURN_IF_FAILED(Consume());
    auto left = std::make_unique<CSQLConditionNode>(std::move(node));
    node.SetOperator(SQL_COND_OR);
    node.SetLeft(std::move(left));
    node.SetRight(std::make_unique<CSQLConditionNode>());
    CSQLConditionNode& right = *node.MutableRight();
    RETURN_IF_FAILED(ConditionTerm(right));
    RETURN_IF_FAILED(AndTail(right));  // AND binds tighter than OR
  }
  return S_OK;
}

HRESULT CSQLSyntaxParser::Operand(CSQLConditionNode& node) {
  switch (token_.kind) {
    case SQL_TOKEN_STRING:
    case SQL_TOKEN_INTEGER:
    case SQL_TOKEN_DOUBLE: {
      ItemPtr item;
      RETURN_IF_FAILED(ConstantItem(item));
      node.SetFirstOperand(std::move(item));
      return S_OK;
    }
    case SQL_TOKEN_IDENTIFIER: {
      ItemPtr item;
      RETURN_IF_FAILED(ColumnItem(item));
      node.SetFirstOperand(std::move(item));
      return S_OK;
    }
    case SQL_TOKEN_LEFT_PARENTHESIS: {
      NestingGuard guard(nesting_);
      if (guard.Exceeded()) return E_FAIL;
      RETURN_IF_FAILED(Consume());
      RETURN_IF_FAILED(Condition(node));
      if (token_.kind != SQL_TOKEN_RIGHT_PARENTHESIS) return E_FAIL;
      return Consume();
    }
    case SQL_TOKEN_PARAMETER: {
      node.SetFirstOperand(std::make_unique<CSQLCalcItemParameter>(parameterCounter_++));
      return Consume();
    }
    default:
      return E_FAIL;
  }
}

HRESULT CSQLSyntaxParser::OrderBySpecify() {
  if (!IsKeyword(SQL_KEYWORD_ORDER)) return S_OK;
  RETURN_IF_FAILED(Consume());
  if (!IsKeyword(SQL_KEYWORD_BY)) return E_FAIL;
  RETURN_IF_FAILED(Consume());
  RETURN_IF_FAILED(OrderItem());
  while (token_.kind == SQL_TOKEN_COMMA) {
    RETURN_IF_FAILED(Consume());
    RETURN_IF_FAILED(OrderItem());
  }
  return S_OK;
}

HRESULT CSQLSyntaxParser::OrderItem() {
  if (token_.kind != SQL_TOKEN_IDENTIFIER) return E_FAIL;
  ItemPtr item;
  RETURN_IF_FAILED(ColumnItem(item));
  // Only columns can be sorted on; "ORDER BY f(x)" has no column to copy.
  if (item->Kind() != SQL_CALC_TABLE_COLUMN) return E_FAIL;
  int descending = 0;
  if (token_.kind == SQL_TOKEN_KEYWORD) {
    // Any other keyword here fails, LIMIT included: "ORDER BY x LIMIT 5" is refused
    // while "ORDER BY x ASC LIMIT 5" is accepted.
    if (token_.keyword == SQL_KEYWORD_DESC)
      descending = 1;
    else if (token_.keyword != SQL_KEYWORD_ASC)
      return E_FAIL;
    RETURN_IF_FAILED(Consume());
  }
  return query_->AddOrdering(static_cast<const CSQLCalcItemTableColumn&>(*item), descending);
}
