#include "support/unescape.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

/// `in` unescaped into a buffer that is just large enough for any result.
std::string Unescaped(const std::string& in) {
  std::vector<char> out(in.size() + 1, '#');
  const std::size_t length = CRStringUnescapeA(in.c_str(), out.data(), out.size());
  EXPECT_LE(length, in.size());
  EXPECT_EQ(out.at(length), '\0');
  return std::string(out.data(), length);
}

struct Row {
  std::string in;
  std::string out;
};

void ExpectRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.in);
    EXPECT_EQ(Unescaped(row.in), row.out);
  }
}

TEST(CRStringUnescapeA, LeavesPlainTextAsItIs) {
  ExpectRows({{"", ""},
              {"text", "text"},
              {"a/b|c n r t x", "a/b|c n r t x"},
              {"\xc3\xa9\n", "\xc3\xa9\n"}});
}

TEST(CRStringUnescapeA, UndoesEveryEscape) {
  ExpectRows({{R"(\n)", "\n"},
              {R"(\r)", "\r"},
              {R"(\t)", "\t"},
              {R"(\\)", "\\"},
              {R"(a\nb\r\tc\\d)", "a\nb\r\tc\\d"},
              {R"(\x7c)", "|"},
              {R"(a\x7cb)", "a|b"}});
}

TEST(CRStringUnescapeA, ReadsAnEscapedBackslashBeforeWhatFollows) {
  ExpectRows({{R"(\\n)", "\\n"}, {R"(\\\n)", "\\\n"}, {R"(\\x7c)", "\\x7c"}, {R"(\\\\)", "\\\\"}});
}

TEST(CRStringUnescapeA, ReadsExactlyTwoHexadecimalDigits) {
  ExpectRows(
      {{R"(\x7cc)", "|c"}, {R"(\x410)", "A0"}, {R"(\x4)", R"(\x4)"}, {R"(\x4g)", R"(\x4g)"}});
}

TEST(CRStringUnescapeA, UndoesEveryByteInEitherLetterCase) {
  for (int byte = 0; byte < 256; ++byte) {
    for (const char* digits : {"0123456789abcdef", "0123456789ABCDEF"}) {
      const std::string in = R"(\x)"s + digits[byte / 16] + digits[byte % 16];
      EXPECT_EQ(Unescaped(in), std::string(1, static_cast<char>(byte))) << in;
    }
  }
}

TEST(CRStringUnescapeA, KeepsUnknownAndCutOffEscapes) {
  for (const std::string& text :
       {R"(\)"s,    R"(a\)"s,   R"(\a)"s,   R"(\N)"s,   R"(\0)"s,   R"(\|)"s,   R"(\ n)"s,
        R"(\x)"s,   R"(\xg0)"s, R"(\x0)"s,  R"(\x0g)"s, R"(\x 1)"s, R"(\x/0)"s, R"(\x:0)"s,
        R"(\x@0)"s, R"(\xG0)"s, R"(\x`0)"s, R"(\x0/)"s, R"(\X41)"s, R"(\"q\")"s}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Unescaped(text), text);
  }
}

TEST(CRStringUnescapeA, GoesOnBehindAnUnknownEscape) {
  ExpectRows({{R"(\q\n)", "\\q\n"},
              {R"(\x\n)", "\\x\n"},
              {R"(\xg\x7c)", R"(\xg|)"},
              {R"(\x4\t)", "\\x4\t"}});
}

TEST(CRStringUnescapeA, CutsOffWhatDoesNotFit) {
  const std::string in = R"(a\n\x7cb\\c\qd)";
  const std::string whole = "a\n|b\\c\\qd";
  for (std::size_t size = 1; size <= whole.size() + 3; ++size) {
    SCOPED_TRACE(size);
    std::vector<char> out(size + 1, '#');
    const std::size_t length = CRStringUnescapeA(in.c_str(), out.data(), size);
    EXPECT_EQ(length, std::min(size - 1, whole.size()));
    EXPECT_EQ(out.data(), whole.substr(0, length));
    EXPECT_EQ(out.back(), '#');
  }
}

TEST(CRStringUnescapeA, LeavesABufferWithoutRoomAlone) {
  char out = '#';
  EXPECT_EQ(CRStringUnescapeA("text", &out, 0), 0U);
  EXPECT_EQ(out, '#');
}

}  // namespace
