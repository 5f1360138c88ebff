// Tokens and numbers: what the lexer makes of each character class, literal form and
// keyword, including the quirks that existing client texts depend on.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "SQLParser/SQLSyntaxParser.h"
#include "SqlTestSupport.h"

namespace {

using corvane::test::W;

struct Tok {
  int kind;
  int keyword;
  std::string text;
  LONG64 integer;
  double real;
};

// Reads tokens until End or a failure; `hr` is the last read's result.
std::vector<Tok> Lex(const std::string& text, HRESULT* hr = nullptr) {
  const corvane::WString wide = W(text.c_str());
  SQLLexerState state;
  state.text = wide;
  CSQLToken token;
  std::vector<Tok> out;
  for (int guard = 0; guard < 1000; ++guard) {
    HRESULT r = CSQLSyntaxParser::ReadToken(state, token);
    if (hr) *hr = r;
    out.push_back({token.kind, token.keyword, corvane::ToUtf8(token.text), token.integerValue, token.doubleValue});
    if (FAILED(r) || token.kind == SQL_TOKEN_END) break;
  }
  return out;
}

std::vector<int> Kinds(const std::vector<Tok>& tokens) {
  std::vector<int> kinds;
  for (const auto& t : tokens) kinds.push_back(t.kind);
  return kinds;
}

TEST(SqlTokens, BlanksAndUnknownCharactersAreSkipped) {
  EXPECT_EQ(Kinds(Lex("")), std::vector<int>({SQL_TOKEN_END}));
  EXPECT_EQ(Kinds(Lex(" \t\r\n ")), std::vector<int>({SQL_TOKEN_END}));
  // "!=" is "=", brackets and braces vanish, "+" and "/" are dropped.
  EXPECT_EQ(Kinds(Lex("a != 3")), std::vector<int>({SQL_TOKEN_IDENTIFIER, SQL_TOKEN_EQUAL, SQL_TOKEN_INTEGER, SQL_TOKEN_END}));
  auto bracketed = Lex("[My Tag]");
  ASSERT_EQ(bracketed.size(), 3u);
  EXPECT_EQ(bracketed[0].text, "My");
  EXPECT_EQ(bracketed[1].text, "Tag");
  EXPECT_EQ(Kinds(Lex("{CALL p(?)}")),
            std::vector<int>({SQL_TOKEN_KEYWORD, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_LEFT_PARENTHESIS, SQL_TOKEN_PARAMETER,
                              SQL_TOKEN_RIGHT_PARENTHESIS, SQL_TOKEN_END}));
  EXPECT_EQ(Kinds(Lex("a + b / c \xC3\xA9")),
            std::vector<int>({SQL_TOKEN_IDENTIFIER, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_END}));
}

TEST(SqlTokens, PunctuationAndComparisons) {
  auto t = Lex("WHERE a<>b AND c>=1 OR d<=e>f<g ( ) * , . ; = ?");
  EXPECT_EQ(Kinds(t), std::vector<int>({SQL_TOKEN_KEYWORD, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_NOT_EQUAL,
                                        SQL_TOKEN_IDENTIFIER, SQL_TOKEN_AND, SQL_TOKEN_IDENTIFIER,
                                        SQL_TOKEN_GREATER_OR_EQUAL, SQL_TOKEN_INTEGER, SQL_TOKEN_OR,
                                        SQL_TOKEN_IDENTIFIER, SQL_TOKEN_LESS_OR_EQUAL, SQL_TOKEN_IDENTIFIER,
                                        SQL_TOKEN_GREATER, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_LESS, SQL_TOKEN_IDENTIFIER,
                                        SQL_TOKEN_LEFT_PARENTHESIS, SQL_TOKEN_RIGHT_PARENTHESIS, SQL_TOKEN_ASTERISK,
                                        SQL_TOKEN_COMMA, SQL_TOKEN_DOT, SQL_TOKEN_TERMINATOR, SQL_TOKEN_EQUAL,
                                        SQL_TOKEN_PARAMETER, SQL_TOKEN_END}));
  EXPECT_EQ(t[0].keyword, SQL_KEYWORD_WHERE);
  EXPECT_EQ(t[2].text, "<>");
  EXPECT_EQ(t[6].text, ">=");
  EXPECT_EQ(t[1].keyword, SQL_KEYWORD_NONE);
}

TEST(SqlTokens, KeywordTableIgnoresCaseAndKeepsTheText) {
  const std::pair<const char*, int> keywords[] = {
      {"Between", 21}, {"exec", 19}, {"CaLL", 20}, {"insert", 0}, {"into", 1}, {"values", 2}, {"select", 3},
      {"as", 4},       {"from", 5},  {"where", 6}, {"Order", 7},  {"by", 8},   {"asc", 9},    {"desc", 10},
      {"group", 11},   {"limit", 12}, {"top", 13}, {"delete", 14}, {"update", 15}, {"set", 16}, {"having", 17}};
  for (const auto& [word, number] : keywords) {
    auto t = Lex(word);
    EXPECT_EQ(t[0].kind, SQL_TOKEN_KEYWORD) << word;
    EXPECT_EQ(t[0].keyword, number) << word;
    EXPECT_EQ(t[0].text, word);
  }
  EXPECT_EQ(Lex("and")[0].kind, SQL_TOKEN_AND);
  EXPECT_EQ(Lex("Or")[0].kind, SQL_TOKEN_OR);
  EXPECT_EQ(Lex("NOT")[0].kind, SQL_TOKEN_NOT);
  EXPECT_EQ(Lex("NOT")[0].keyword, SQL_KEYWORD_NONE);
  for (const char* plain : {"LIKE", "IN", "NULL", "JOIN", "TIMESTAMP", "TOP5", "SELECTED", "_x1", "ORD"}) {
    auto t = Lex(plain);
    EXPECT_EQ(t[0].kind, SQL_TOKEN_IDENTIFIER) << plain;
    EXPECT_EQ(t[0].text, plain);
  }
  // Only ASCII letters fold: a character whose low byte is a keyword's letter is not it.
  for (const OLECHAR* lookalike : {OLESTR("\u0153ET"), OLESTR("SE\u0154"), OLESTR("A\u0153")}) {
    CSQLToken token;
    token.kind = SQL_TOKEN_IDENTIFIER;
    token.text = lookalike;
    CSQLSyntaxParser::ClassifyWord(token);
    EXPECT_EQ(token.kind, SQL_TOKEN_IDENTIFIER);
  }
  // A quoted name is never a keyword, and keeps blanks and unknown characters.
  auto quoted = Lex("\"Order\" \"a b!\"");
  EXPECT_EQ(quoted[0].kind, SQL_TOKEN_IDENTIFIER);
  EXPECT_EQ(quoted[0].text, "Order");
  EXPECT_EQ(quoted[1].text, "a b!");
  HRESULT hr = S_OK;
  auto open = Lex("\"abc", &hr);
  EXPECT_EQ(hr, E_FAIL);
  EXPECT_EQ(open.back().kind, SQL_TOKEN_UNKNOWN);
}

TEST(SqlTokens, StringLiterals) {
  auto t = Lex("'it\\'s' '\\\\' 'a''b' 'abc");
  ASSERT_EQ(t.size(), 6u);
  EXPECT_EQ(t[0].kind, SQL_TOKEN_STRING);
  EXPECT_EQ(t[0].text, "it's");
  EXPECT_EQ(t[1].text, "\\");
  // A doubled quote ends one literal and starts another.
  EXPECT_EQ(t[2].text, "a");
  EXPECT_EQ(t[3].text, "b");
  EXPECT_EQ(t[4].kind, SQL_TOKEN_STRING);
  EXPECT_EQ(t[4].text, "abc");
  EXPECT_EQ(t[5].kind, SQL_TOKEN_END);
  // A backslash as the last character must end the scan, not loop on it.
  auto trailing = Lex("'abc\\");
  ASSERT_EQ(trailing.size(), 2u);
  EXPECT_EQ(trailing[0].text, "abc");
  EXPECT_EQ(trailing[1].kind, SQL_TOKEN_END);
  EXPECT_EQ(Lex("''")[0].text, "");
}

TEST(SqlTokens, IntegersAndDoubles) {
  auto negative = Lex("-12");
  EXPECT_EQ(negative[0].kind, SQL_TOKEN_INTEGER);
  EXPECT_EQ(negative[0].integer, -12);
  EXPECT_EQ(negative[0].text, "12");
  auto d = Lex("-1.5 12. 0.25 1e55 1e+5 1E-5 2.5e-3");
  EXPECT_EQ(d[0].kind, SQL_TOKEN_DOUBLE);
  EXPECT_EQ(d[0].real, -1.5);
  EXPECT_EQ(d[1].kind, SQL_TOKEN_DOUBLE);
  EXPECT_EQ(d[1].text, "12.0");
  EXPECT_EQ(d[1].real, 12.0);
  EXPECT_EQ(d[2].real, 0.25);
  EXPECT_EQ(d[3].kind, SQL_TOKEN_DOUBLE);
  EXPECT_EQ(d[3].real, 1e55);
  EXPECT_EQ(d[4].real, 1e5);
  EXPECT_EQ(d[5].real, 1e-5);
  EXPECT_EQ(d[6].text, "2.5e-3");
  EXPECT_EQ(d[6].real, 2.5e-3);
  EXPECT_EQ(Kinds(Lex(".5")), std::vector<int>({SQL_TOKEN_DOT, SQL_TOKEN_INTEGER, SQL_TOKEN_END}));
  // A number ends where its digits end: "10abc" is 10 then a name.
  EXPECT_EQ(Kinds(Lex("10abc")), std::vector<int>({SQL_TOKEN_INTEGER, SQL_TOKEN_IDENTIFIER, SQL_TOKEN_END}));
  auto big = Lex("9223372036854775807 -9223372036854775807");
  EXPECT_EQ(big[0].integer, INT64_MAX);
  EXPECT_EQ(big[1].integer, -INT64_MAX);
  auto huge = Lex("1e999 -1e999 1e-999");
  EXPECT_TRUE(std::isinf(huge[0].real) && huge[0].real > 0);
  EXPECT_TRUE(std::isinf(huge[1].real) && huge[1].real < 0);
  EXPECT_EQ(huge[2].real, 0.0);
}

TEST(SqlTokens, MalformedNumbersFailTheRead) {
  struct Case {
    const char* text;
    HRESULT hr;
  } cases[] = {
      {"1e5", E_FAIL},    // the digit is looked for two places past the e
      {"1e5 ", E_FAIL},   {"1e", E_FAIL}, {"1e+", E_FAIL}, {"1e-x", E_FAIL}, {"1.5E", E_FAIL},
      {"99999999999999999999", DISP_E_OVERFLOW},
      {"-a", DISP_E_TYPEMISMATCH},  // the character after a sign is taken as a digit
      {"-", E_INVALIDARG},
  };
  for (const auto& c : cases) {
    HRESULT hr = S_OK;
    auto t = Lex(c.text, &hr);
    EXPECT_EQ(hr, c.hr) << c.text;
    EXPECT_EQ(t.back().kind, SQL_TOKEN_UNKNOWN) << c.text;
  }
}

TEST(SqlTokens, EachReadStartsFromAClearedTokenBehindThePrevious) {
  const corvane::WString wide = W("  12  ;");
  SQLLexerState state;
  state.text = wide;
  CSQLToken token;
  ASSERT_EQ(CSQLSyntaxParser::ReadToken(state, token), S_OK);
  EXPECT_EQ(state.position, 4);
  ASSERT_EQ(CSQLSyntaxParser::ReadToken(state, token), S_OK);
  EXPECT_EQ(token.kind, SQL_TOKEN_TERMINATOR);
  EXPECT_EQ(token.integerValue, 0);
  EXPECT_EQ(corvane::ToUtf8(token.text), ";");
  state.position = -1;
  EXPECT_EQ(CSQLSyntaxParser::ReadToken(state, token), E_INVALIDARG);
}

}  // namespace
