// Tokens and numbers: what the lexer makes of each character class, literal form and
// keyword, including the quirks that existing client texts depend on. One row per text.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "SQLParser/SQLSyntaxParser.h"
#include "SqlTestSupport.h"

namespace {

// "id(a) = int(3)=3 $": names, keywords, strings and numbers with their text (numbers
// also with their value), other tokens by their symbol; "!HRESULT" when a read failed.
std::string Lex(const std::string& text) {
  static const char* const kSymbols[] = {"bad", "$", "kw",  "str", "int", "dbl", "id", ">", "<", "=", ">=", "<=",
                                         "<>", "(", ")",   "AND", "OR",  "NOT", ".",  "*", ",", "?", "reserved", ";"};
  const corvane::WString wide = corvane::FromUtf8(text);
  SQLLexerState state;
  state.text = wide;
  CSQLToken token;
  std::ostringstream out;
  for (int guard = 0; guard < 100; ++guard) {
    const HRESULT hr = CSQLSyntaxParser::ReadToken(state, token);
    out << (guard ? " " : "");
    out << (token.kind >= 0 && token.kind <= SQL_TOKEN_TERMINATOR ? kSymbols[token.kind] : "kind?");
    if (token.kind >= SQL_TOKEN_KEYWORD && token.kind <= SQL_TOKEN_IDENTIFIER)
      out << "(" << corvane::ToUtf8(token.text) << ")";
    if (token.kind == SQL_TOKEN_INTEGER) out << "=" << token.integerValue;
    if (token.kind == SQL_TOKEN_DOUBLE) out << "=" << token.doubleValue;
    if (FAILED(hr)) out << "!" << std::hex << std::uppercase << static_cast<unsigned>(hr);
    if (FAILED(hr) || token.kind == SQL_TOKEN_END) break;
  }
  return out.str();
}

TEST(SqlTokens, EachTextReadsAsItsTokens) {
  const std::pair<const char*, const char*> cases[] = {
      // "!=" is "=", "+" and "/" and other characters are dropped.
      {"a != 3 + b / c \xC3\xA9", "id(a) = int(3)=3 id(b) id(c) $"},
      {"WHERE a<>b AND c>=1 OR d<=e>f<g ( ) * , . ; = ?",
       "kw(WHERE) id(a) <> id(b) AND id(c) >= int(1)=1 OR id(d) <= id(e) > id(f) < id(g) ( ) * , . ; = ? $"},
      // Keywords ignore case and keep their text (which keyword each is: the statement suite).
      {"and Or NOT Between CaLL tOp", "AND OR NOT kw(Between) kw(CaLL) kw(tOp) $"},
      // Words that only look like keywords stay names; a quoted name is never a keyword
      // and keeps blanks and unknown characters.
      {"LIKE IN NULL JOIN TIMESTAMP TOP5 SELECTED _x1 ORD",
       "id(LIKE) id(IN) id(NULL) id(JOIN) id(TIMESTAMP) id(TOP5) id(SELECTED) id(_x1) id(ORD) $"},
      {"\"Order\" \"a b!\"", "id(Order) id(a b!) $"},
      // Strings: backslash escapes, a doubled quote ends one literal and starts another,
      // an unterminated one ends at the text's end, a trailing backslash ends the scan.
      {"'it\\'s' '\\\\' 'a''b' 'abc", "str(it's) str(\\) str(a) str(b) str(abc) $"},
      {"'abc\\", "str(abc) $"},
      // Numbers: a sign belongs to the number (the text keeps the digits only); a number ends where its digits end.
      {"-1.5 12. 0.25 1e55 1e+5 1E-5 2.5e-3",
       "dbl(1.5)=-1.5 dbl(12.0)=12 dbl(0.25)=0.25 dbl(1e55)=1e+55 dbl(1e+5)=100000 dbl(1E-5)=1e-05 "
       "dbl(2.5e-3)=0.0025 $"},
      {".5", ". int(5)=5 $"},
      {"9223372036854775807 -9223372036854775807",
       "int(9223372036854775807)=9223372036854775807 int(9223372036854775807)=-9223372036854775807 $"},
      {"1e999 -1e999 1e-999", "dbl(1e999)=inf dbl(1e999)=-inf dbl(1e-999)=0 $"},
      // Malformed numbers fail the read: the exponent's digit is looked for two places past
      // the e. (The codes of the other unreadable tokens: the error-text table.)
      {"1e5", "bad!80004005"},
      {"1e", "bad!80004005"},
  };
  for (const auto& [text, tokens] : cases) EXPECT_EQ(tokens, Lex(text)) << "text: " << text;
}

}  // namespace
