#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/webservice/answer_model.h"
#include "webservice/webservice.h"

// The answer parser against a second reading of the format. The parser cuts up
// one zero-terminated text as it goes; the model first splits the answer into lines
// and then looks at the list.

namespace corvel::storage::tzregister {
namespace {

using std::string_view_literals::operator""sv;

using storage::testing::Answer;
using storage::testing::ModelAnswer;
using storage::testing::Row;

constexpr std::size_t kMaxShownBytes = 2000;

// The parser.

Row RowOf(const Record& record) {
  Row row;
  row.fieldCount = record.fieldCount;
  for (const auto& [name, field] : record.fields) {
    EXPECT_STREQ(name, field->name.get());
    row.cells[name] = {field->value.get(), record.getValue(name, true), field->type()};
  }
  return row;
}

std::map<std::string, std::string> ErrorOf(const ServiceError& error) {
  std::map<std::string, std::string> texts = {{"number", std::to_string(error.errorNumber)}};
  if (error.severity != nullptr) texts["severity"] = error.severity.get();
  if (error.server != nullptr) texts["server"] = error.server.get();
  if (error.source != nullptr) texts["source"] = error.source.get();
  if (error.description != nullptr) texts["description"] = error.description.get();
  return texts;
}

Answer ParsedAnswer(std::string bytes) {
  WebService ws{Network()};
  WebService::data_callback(bytes.data(), 1, bytes.size(), &ws.buffer);
  RecordSet records;
  Answer answer;
  answer.result = ws.parse(&records);
  answer.declaredCount = records.declaredCount;
  for (const auto& definition : records.definitions) {
    answer.columns.emplace_back(definition->name.get(), definition->type);
  }
  while (const Record* record = records.next()) answer.rows.push_back(RowOf(*record));
  EXPECT_EQ(static_cast<std::size_t>(records.recordCount), answer.rows.size());
  if (records.error != nullptr) answer.error = ErrorOf(*records.error);
  return answer;
}

/// True when parser and model see the same in `bytes`; false fails the test.
bool Agree(const std::string& bytes) {
  const Answer parsed = ParsedAnswer(bytes);
  const Answer expected = ModelAnswer(bytes);
  EXPECT_EQ(parsed, expected) << "answer of " << bytes.size() << " bytes: "
                              << ::testing::PrintToString(bytes.substr(0, kMaxShownBytes));
  return parsed == expected;
}

// Answers.

constexpr std::array kPreambles = {""sv, "<html>\n"sv, "Notice: ** x\n"sv, "**"sv, "*\r\n"sv};
constexpr std::array kTableMarkers = {"***BEGIN***"sv, "***START***"sv, "***BEGIN*** x"sv,
                                      "***BEGIN**"sv, "***BEGINS***"sv};
constexpr std::array kErrorMarkers = {"***ERROR***"sv, "***ERROR***"sv, "***ERROR*** x"sv,
                                      "***ERR***"sv};
constexpr std::array kBreaks = {"\n"sv, "\n"sv, "\n"sv, "\n"sv,   "\n"sv,
                                "\n"sv, "\n"sv, "\r"sv, "\r\n"sv, ""sv};
constexpr std::array kCounts = {"1"sv,  "2 records"sv, ""sv,           "x"sv,
                                " 3"sv, "-1"sv,        "4294967297"sv, "99999999999999999999"sv};
constexpr std::array kNumbers = {"5"sv,
                                 " \t-17"sv,
                                 "+8x"sv,
                                 ""sv,
                                 "x"sv,
                                 "\n6"sv,
                                 "2147483648"sv,
                                 "99999999999999999999"sv,
                                 "-99999999999999999999"sv};
constexpr std::array kNames = {"a"sv, "b"sv, "agentid"sv, "login"sv, ""sv, "\xC3\xA4"sv, "B"sv};
constexpr std::array kTypes = {"I"sv, "S"sv, "C"sv, "Integer"sv, "String"sv, "X"sv, ""sv, "s"sv};
constexpr std::array kValues = {"5"sv,      "joe"sv,  ""sv,           "a b"sv, "\\x7c"sv,
                                "\\n"sv,    "\\\\"sv, "\\x4"sv,       "\\q"sv, "tail\\"sv,
                                "\\x00z"sv, "\xFF"sv, "***DONE***"sv, "***"sv, "\\xAbc"sv};
constexpr std::array kHeaders = {"severity: 3"sv,
                                 "severity: "sv,
                                 "severity:3"sv,
                                 "server: spa"sv,
                                 "source: x"sv,
                                 "source: y: z"sv,
                                 "description: bad"sv,
                                 "description:"sv,
                                 "description:x"sv,
                                 "other: x"sv,
                                 ""sv,
                                 "server: ***DONE***"sv,
                                 "description: ***DONE***"sv};
constexpr std::array kEnds = {"***DONE***\n"sv, "***DONE***"sv,    ""sv,
                              "5|joe"sv,        " ***DONE***\n"sv, "***DONE*** x\n5\n"sv};
constexpr std::array kNoise = {"***"sv, "*"sv, "|"sv, "\n"sv, "\r"sv, "\0"sv, "\\"sv, " "sv, ":"sv};

class Generator {
 public:
  explicit Generator(unsigned seed) : engine_(seed) {}

  std::size_t Below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(engine_);
  }

  template <std::size_t Size>
  std::string Pick(const std::array<std::string_view, Size>& choices) {
    return std::string(choices[Below(Size)]);
  }

  template <std::size_t Size>
  std::string List(const std::array<std::string_view, Size>& choices, std::size_t length) {
    std::string list;
    for (std::size_t at = 0; at < length; ++at) list += (at == 0 ? "" : "|") + Pick(choices);
    return list;
  }

  /// `text` and the end of its line: nearly always a line feed.
  std::string Ended(const std::string& text) {
    return text + (Below(10) == 0 ? Pick(kBreaks) : "\n");
  }

  std::string Table() {
    const std::size_t columns = 1 + Below(5);
    std::string text = Ended(Pick(kTableMarkers)) + Ended(Pick(kCounts));
    text += Ended(List(kNames, columns)) + Ended(List(kTypes, columns + Below(3) - Below(2)));
    for (std::size_t rows = Below(6); rows > 0; --rows) {
      text += Ended(List(kValues, columns + Below(3) - Below(2)));
    }
    return text + Pick(kEnds);
  }

  std::string Error() {
    std::string text = Ended(Pick(kErrorMarkers)) + Ended(Pick(kNumbers));
    for (std::size_t lines = Below(13); lines > 0; --lines) text += Ended(Pick(kHeaders));
    return text + Pick(kEnds);
  }

  std::string Soup() {
    std::string text;
    for (std::size_t pieces = Below(30); pieces > 0; --pieces) {
      switch (Below(6)) {
        case 0:
          text += Pick(kTableMarkers);
          break;
        case 1:
          text += Pick(kErrorMarkers);
          break;
        case 2:
          text += Pick(kHeaders);
          break;
        case 3:
          text += Pick(kValues);
          break;
        default:
          text += Pick(kNoise);
      }
    }
    return text;
  }

  std::string AnyAnswer() {
    const std::size_t kind = Below(9);
    if (kind == 0) return Soup();
    std::string text = Pick(kPreambles) + (kind < 5 ? Table() : Error());
    if (Below(8) == 0) text.insert(Below(text.size() + 1), Pick(kNoise));
    return text;
  }

 private:
  std::mt19937 engine_;
};

/// Answers that the servers give, and some that lie at an edge of the format.
const std::vector<std::string>& GoodAnswers() {
  static const std::vector<std::string> kAnswers = {
      "***BEGIN***\n2\nagentid|login|password\nI|S|C\n7|joe|a\\x7cb\n8|ann|\\\\\n***DONE***\n",
      "<html>\n***START***\n1\na|b|a|c\nI|X|S\n1|2|3|4\n5\n\n***DONE***\n",
      "***BEGIN***\r\n1\r\nreturnvalue\r\nS\r\n[main]\\nagentid=7\\n\r\n***DONE***\r\n",
      "***ERROR***\n42\nseverity: 3\nserver: spa\nsource: x\ndescription: bad\nend\n***DONE***\n",
      "***ERROR***\n -1\nserver: 1\nserver: 2\nserver: 3\nserver: 4\nserver: 5\nserver: 6\n"
      "server: 7\nserver: 8\nserver: 9\ndescription:\n***DONE***\n",
  };
  return kAnswers;
}

TEST(AnswerParserProperty, AgreesWithTheModelOnGeneratedAnswers) {
  constexpr int kAnswers = 40000;
  Generator generator(20240611);
  int tables = 0;
  int errors = 0;
  for (int count = 0; count < kAnswers; ++count) {
    const std::string bytes = generator.AnyAnswer();
    ASSERT_TRUE(Agree(bytes)) << "answer " << count;
    const Answer answer = ModelAnswer(bytes);
    tables += answer.rows.empty() ? 0 : 1;
    errors += answer.error.empty() ? 0 : 1;
  }
  EXPECT_GT(tables, kAnswers / 8) << "the generator has lost its way";
  EXPECT_GT(errors, kAnswers / 8) << "the generator has lost its way";
}

TEST(AnswerParserProperty, AgreesWithTheModelOnEveryPrefix) {
  for (const std::string& good : GoodAnswers()) {
    for (std::size_t length = 0; length <= good.size(); ++length) {
      ASSERT_TRUE(Agree(good.substr(0, length))) << "first " << length << " bytes";
    }
  }
}

TEST(AnswerParserProperty, AgreesWithTheModelOnEveryChangedByte) {
  constexpr std::array kBytes = {'\0', '\n', '\r', '|', '*', '\\', ' ', '0', 'S', '\x80', '\xFF'};
  for (const std::string& good : GoodAnswers()) {
    for (std::size_t at = 0; at < good.size(); ++at) {
      std::string changed = good;
      for (const char byte : kBytes) {
        changed[at] = byte;
        ASSERT_TRUE(Agree(changed)) << "byte " << at;
      }
      ASSERT_TRUE(Agree(std::string(good).erase(at, 1))) << "without byte " << at;
      ASSERT_TRUE(Agree(std::string(good).insert(at, 1, good[at])))
          << "with byte " << at << " twice";
    }
  }
}

TEST(AnswerParserProperty, AgreesWithTheModelOnRandomlyDamagedAnswers) {
  constexpr int kAnswers = 20000;
  Generator generator(7);
  for (int count = 0; count < kAnswers; ++count) {
    std::string bytes = GoodAnswers()[generator.Below(GoodAnswers().size())];
    for (std::size_t changes = 1 + generator.Below(4); changes > 0; --changes) {
      bytes[generator.Below(bytes.size())] = static_cast<char>(generator.Below(256));
    }
    ASSERT_TRUE(Agree(bytes)) << "answer " << count;
  }
}

TEST(AnswerParserProperty, AgreesWithTheModelOnVeryLongLines) {
  const std::string longText(1 << 20, 'v');
  EXPECT_TRUE(Agree(longText + "***BEGIN***" + longText + "\n1" + longText + "\na\nS\nx\n"));
  EXPECT_TRUE(Agree("***BEGIN***\n1\n" + longText + "|b\n" + longText + "|S\n1|2\n"));
  EXPECT_TRUE(Agree("***BEGIN***\n1\na|b\nS|S\n" + longText + "|" + longText + "\n" + longText));
  EXPECT_TRUE(Agree("***BEGIN***\n1\na\nS\n" + std::string(1 << 20, '\\') + "\n"));
  EXPECT_TRUE(Agree("***ERROR***\n5" + longText + "\nserver: " + longText +
                    "\ndescription: " + longText + "\n" + longText));
}

TEST(AnswerParserProperty, AgreesWithTheModelOnManyColumnsAndLines) {
  constexpr int kColumns = 20000;
  std::string names;
  std::string types;
  std::string values;
  for (int column = 0; column < kColumns; ++column) {
    names += "c" + std::to_string(column % (kColumns / 2)) + "|";
    types += column % 3 == 0 ? "I|" : "S|";
    values += std::to_string(column) + "|";
  }
  EXPECT_TRUE(Agree("***BEGIN***\n1\n" + names + "\n" + types + "\n" + values + "\n|\n" + values));
  EXPECT_TRUE(Agree("***BEGIN***\n1\n" + std::string(kColumns, '|') + "\nS\n" + values + "\n"));
  EXPECT_TRUE(Agree("***BEGIN***\n1\na\nS\n" + std::string(kColumns, '\n') + "***DONE***\n"));
  EXPECT_TRUE(Agree("***ERROR***\n" + std::string(kColumns, '\n') + "5\n"));
}

}  // namespace
}  // namespace corvel::storage::tzregister
