#include "webservice/answer_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/testing/allocation_limit.h"
#include "tests/testing/outcome.h"
#include "webservice/webservice.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A set of records and how the reading that filled it ended.
struct Reading {
  explicit Reading(std::string text) : result(ParseAnswer(text.data(), &records)) {}

  /// "name:type" of each column.
  std::vector<std::string> Columns() const {
    std::vector<std::string> columns;
    for (const auto& definition : records.definitions) {
      columns.push_back(std::string(definition->name.get()) + ":" + definition->type);
    }
    return columns;
  }

  /// "name=value" of each record's fields, joined by blanks.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const auto& record : records.records) {
      std::string line;
      for (const auto& [name, field] : record->fields) {
        line += (line.empty() ? "" : " ") + std::string(name) + "=" + field->value.get();
      }
      lines.push_back(line);
    }
    return lines;
  }

  RecordSet records;
  int result;
};

std::string TextOrNull(const HeapText& text) { return text == nullptr ? "(null)" : text.get(); }

/// The error block of `text` as "number/severity/server/source/description".
std::string ErrorOf(const std::string& text) {
  const Reading reading(text);
  EXPECT_EQ(reading.result, 0);
  const ServiceError* const error = reading.records.error.get();
  if (error == nullptr) return "no error block";
  return std::to_string(error->errorNumber) + "/" + TextOrNull(error->severity) + "/" +
         TextOrNull(error->server) + "/" + TextOrNull(error->source) + "/" +
         TextOrNull(error->description);
}

/// The error block that `headers` behind number 4 give.
std::string HeadersOf(const std::string& headers) { return ErrorOf("***ERROR***\n4\n" + headers); }

TEST(ParseAnswerTable, ReadsColumnsAndRecords) {
  const Reading reading("***BEGIN***\n2\nagentid|login\nInt|String\n7|joe\n8|ann\n***DONE***\n");
  EXPECT_EQ(reading.result, 0);
  EXPECT_THAT(reading.Columns(), ElementsAre("agentid:I", "login:S"));
  EXPECT_THAT(reading.Lines(), ElementsAre("agentid=7 login=joe", "agentid=8 login=ann"));
  EXPECT_EQ(reading.records.declaredCount, 2);
  EXPECT_EQ(reading.records.recordCount, 2);
  EXPECT_EQ(reading.records.cursor, 0u);
  EXPECT_EQ(reading.records.error, nullptr);
}

TEST(ParseAnswerTable, TakesStartForBegin) {
  const Reading reading("***START***\n1\na\nS\nx\n***DONE***\n");
  EXPECT_EQ(reading.result, 0);
  EXPECT_THAT(reading.Lines(), ElementsAre("a=x"));
}

TEST(ParseAnswerTable, SkipsWhatStandsBeforeTheMarkerAndBehindItOnItsLine) {
  const Reading reading("<html>\nWarning: ** in line 3\n <b>***BEGIN***</b> x\n1\na\nS\nx\n");
  EXPECT_EQ(reading.result, 0);
  EXPECT_THAT(reading.Lines(), ElementsAre("a=x"));
}

TEST(ParseAnswerTable, SetsTheCursorToTheFirstRecord) {
  std::string text = "***BEGIN***\n1\na\nS\nx\n***DONE***\n";
  RecordSet records;
  records.cursor = 5;
  ASSERT_EQ(ParseAnswer(text.data(), &records), 0);
  EXPECT_EQ(records.cursor, 0u);
}

TEST(ParseAnswerTable, ReadsTheCountFromTheDigitsAtTheStartOfItsLine) {
  const struct {
    const char* line;
    int count;
  } cases[] = {{"12", 12},
               {"12 records", 12},
               {"3x4", 3},
               {"", 0},
               {" 5", 0},
               {"-5", 0},
               {"+5", 0},
               {"007", 7},
               {"\t5", 0},
               {"x", 0},
               {"2147483647", 2147483647},
               {"00000000000000000000007", 7},    // 23 digits are read
               {"000000000000000000000071", 7}};  // and no more
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    const Reading reading("***BEGIN***\n" + std::string(one.line) + "\na\nS\n");
    EXPECT_EQ(reading.result, 0);
    EXPECT_EQ(reading.records.declaredCount, one.count);
  }
}

TEST(ParseAnswerTable, SurvivesACountOfAnyLength) {
  const Reading reading("***BEGIN***\n" + std::string(100000, '9') + "\na\nS\nx\n");
  EXPECT_EQ(reading.result, 0);
  EXPECT_THAT(reading.Lines(), ElementsAre("a=x"));
}

TEST(ParseAnswerTable, SucceedsWithoutRecords) {
  for (const char* end : {"", "***DONE***\n", "***DONE***", "***DONE*** bye\n1\n"}) {
    SCOPED_TRACE(end);
    const Reading reading(std::string("***BEGIN***\n0\na|b\nI|S\n") + end);
    EXPECT_EQ(reading.result, 0);
    EXPECT_THAT(reading.Columns(), ElementsAre("a:I", "b:S"));
    EXPECT_THAT(reading.Lines(), IsEmpty());
    EXPECT_EQ(reading.records.recordCount, 0);
  }
}

TEST(ParseAnswerTable, HasAsManyColumnsAsTheShorterOfTheTwoLines) {
  const Reading fewTypes("***BEGIN***\n1\na|b|c\nI|S\n1|2|3\n");
  EXPECT_THAT(fewTypes.Columns(), ElementsAre("a:I", "b:S"));
  EXPECT_THAT(fewTypes.Lines(), ElementsAre("a=1 b=2"));
  const Reading fewNames("***BEGIN***\n1\na|b\nI|S|S\n1|2|3\n");
  EXPECT_THAT(fewNames.Columns(), ElementsAre("a:I", "b:S"));
  EXPECT_THAT(fewNames.Lines(), ElementsAre("a=1 b=2"));
}

TEST(ParseAnswerTable, TakesEmptyNamesAndTypesAsTheyStand) {
  const Reading reading("***BEGIN***\n1\n|b|\nS||S\n1|2|3\n");
  EXPECT_THAT(reading.Columns(), ElementsAre(":S", std::string("b:") + '\0', ":S"));
  EXPECT_THAT(reading.Lines(), ElementsAre("=1"));
}

TEST(ParseAnswerTable, EndsTheRecordsAtTheClosingMarker) {
  const Reading reading("***BEGIN***\n1\na\nS\nx\n ***DONE***\n***DONE***\ny\n");
  EXPECT_THAT(reading.Lines(), ElementsAre("a=x", "a= ***DONE***"));
}

TEST(ParseAnswerTable, DoesNotReadALastLineWithoutALineBreak) {
  EXPECT_THAT(Reading("***BEGIN***\n1\na\nS\nx\ny").Lines(), ElementsAre("a=x"));
}

TEST(ParseAnswerTable, CountsCarriageReturnAndLineFeedAsOneLineEndEach) {
  const Reading reading("***BEGIN***\r\n1\r\na\r\nS\r\nx\r\n");
  EXPECT_EQ(reading.result, 0);
  EXPECT_EQ(reading.records.declaredCount, 0);
  EXPECT_THAT(reading.Columns(), ElementsAre(std::string("1:") + '\0'));
  EXPECT_EQ(reading.records.recordCount, 6);
  const Reading bare("***BEGIN***\r1\ra\rS\rx\r***DONE***\r");
  EXPECT_EQ(bare.records.declaredCount, 1);
  EXPECT_THAT(bare.Lines(), ElementsAre("a=x"));
}

TEST(ParseAnswer, RefusesWhatIsNeitherTableNorErrorBlock) {
  for (const char* text :
       {"", "hello", "**BEGIN**", "***", "***BEGIN", "***BEGIN**", "***OTHER***\n1\na\nS\n",
        "***begin***\n1\na\nS\n", "*** ***BEGIN***\n1\na\nS\n", "****BEGIN***\n1\na\nS\n",
        "***DONE***\n***BEGIN***\n1\na\nS\n"}) {
    SCOPED_TRACE(text);
    const Reading reading(text);
    EXPECT_EQ(reading.result, -1);
    EXPECT_TRUE(reading.records.definitions.empty());
    EXPECT_EQ(reading.records.error, nullptr);
  }
}

TEST(ParseAnswer, RefusesATableWhoseHeadIsCutOff) {
  for (const char* text : {"***BEGIN***", "***BEGIN***\n", "***BEGIN***\n1", "***BEGIN***\n1\n",
                           "***BEGIN***\n1\na", "***BEGIN***\n1\na\n", "***BEGIN***\n1\na\nS"}) {
    SCOPED_TRACE(text);
    const Reading reading(text);
    EXPECT_EQ(reading.result, -1);
    EXPECT_TRUE(reading.records.definitions.empty());
    EXPECT_TRUE(reading.records.records.empty());
  }
}

TEST(ParseAnswer, RefusesAnErrorBlockWithoutACompleteNumberLine) {
  for (const char* text :
       {"***ERROR***", "***ERROR***\n", "***ERROR***\n4", "***ERROR*** 4 x\n5"}) {
    SCOPED_TRACE(text);
    const Reading reading(text);
    EXPECT_EQ(reading.result, -1);
    EXPECT_EQ(reading.records.error, nullptr);
  }
}

TEST(ParseAnswerError, ReadsAllHeaderLines) {
  EXPECT_EQ(ErrorOf("<p>***ERROR*** oh\n42\nseverity: 3\nserver: spa1\nsource: x\n"
                    "description: bad\n***DONE***\n"),
            "42/3/spa1/x/bad\n");
  const Reading reading("***ERROR***\n42\n");
  EXPECT_TRUE(reading.records.definitions.empty());
  EXPECT_TRUE(reading.records.records.empty());
}

TEST(ParseAnswerError, ReadsTheNumberBehindWhiteSpace) {
  EXPECT_EQ(ErrorOf("***ERROR***\n \t-17 x\n"), "-17/(null)/(null)/(null)/(null)");
  EXPECT_EQ(ErrorOf("***ERROR***\n\n+6\n"), "6/(null)/(null)/(null)/(null)");
  EXPECT_EQ(ErrorOf("***ERROR***\nx5\n"), "0/(null)/(null)/(null)/(null)");
}

TEST(ParseAnswerError, NeedsNoHeaderLine) {
  EXPECT_EQ(HeadersOf(""), "4/(null)/(null)/(null)/(null)");
  EXPECT_EQ(HeadersOf("***DONE***\n"), "4/(null)/(null)/(null)/(null)");
}

TEST(ParseAnswerError, TakesTheHeadersInAnyOrderAndTheLastOfEach) {
  EXPECT_EQ(HeadersOf("source: x\nserver: s\nseverity: 1\nsource: y\nserver: \nseverity: 2\n"),
            "4/2//y/(null)");
}

TEST(ParseAnswerError, EndsTheHeadersAtALineItDoesNotKnow) {
  for (const char* line : {"severity:3", "Severity: 3", " severity: 3", "server:s", "source:x", "",
                           "description", "x", "Description: no", "***DONE***"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ(HeadersOf("server: s\n" + std::string(line) + "\nsource: x\ndescription: bad\n"),
              "4/(null)/s/(null)/(null)");
  }
}

TEST(ParseAnswerError, DoesNotReadAHeaderWithoutALineBreak) {
  EXPECT_EQ(HeadersOf("server: s\nsource: x"), "4/(null)/s/(null)/(null)");
  EXPECT_EQ(HeadersOf("server: s\ndescription: bad"), "4/(null)/s/(null)/(null)");
}

TEST(ParseAnswerError, ReadsTenHeaderLinesAtMost) {
  const std::string nine =
      "server: 1\nserver: 2\nserver: 3\nserver: 4\nserver: 5\nserver: 6\n"
      "server: 7\nserver: 8\nserver: 9\n";
  EXPECT_EQ(HeadersOf(nine + "description: bad\n"), "4/(null)/9/(null)/bad\n");
  EXPECT_EQ(HeadersOf(nine + "server: 10\n"), "4/(null)/10/(null)/(null)");
  EXPECT_EQ(HeadersOf(nine + "server: 10\ndescription: bad\n"), "4/(null)/10/(null)/(null)");
}

TEST(ParseAnswerError, EndsTheDescriptionAtTheClosingMarkerOrWithTheText) {
  const struct {
    const char* line;
    const char* description;
  } cases[] = {{"description: bad***DONE***\nmore", "bad"},
               {"description: one\ntwo\r\nserver: s\n***DONE***\nmore", "one\ntwo\r\nserver: s\n"},
               {"description: one\n two", "one\n two"},
               {"description:bad\n", "ad\n"},
               {"description:\nbad\n", "bad\n"},
               {"description:\n", ""},
               {"description: \n", "\n"},
               {"description:***DONE***\nmore", ""},
               {"description: ***DONE***\nmore", ""},
               {"description: a***DON***DONE***\n", "a***DON"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    EXPECT_EQ(HeadersOf(one.line), "4/(null)/(null)/(null)/" + std::string(one.description));
  }
}

TEST(ParseAnswerError, DropsEverythingBehindTheDescription) {
  EXPECT_EQ(HeadersOf("description: a\n***DONE***\nserver: s\n"), "4/(null)/(null)/(null)/a\n");
}

/// Reads `bytes`, zero bytes and all, the way a received answer is read.
Outcome ParseReceived(std::string bytes, RecordSet* records) {
  WebService ws{Network()};
  WebService::data_callback(bytes.data(), 1, bytes.size(), &ws.buffer);
  const Outcome parse = OutcomeOf([&] { return ws.parse(records); });
  EXPECT_EQ(std::string(ws.buffer.data, ws.buffer.size), bytes);
  return parse;
}

TEST(WebServiceParse, ReadsTheReceivedTextAndLeavesItAsItIs) {
  RecordSet records;
  const Outcome parse = ParseReceived("***BEGIN***\n1\na|b\nS|I\nx|2\n***DONE***\n", &records);
  ExpectSuccess(parse);
  ASSERT_EQ(records.recordCount, 1);
  EXPECT_EQ(records.next()->getValue("b", true), "2");
}

TEST(WebServiceParse, ReadsNothingBehindTheFirstZeroByte) {
  using namespace std::string_literals;
  RecordSet records;
  EXPECT_EQ(ParseReceived("***BEGIN***\n1\na\nS\nx\ny\0z\nw\n"s, &records).result, 0);
  EXPECT_EQ(records.recordCount, 1);
  RecordSet none;
  EXPECT_EQ(ParseReceived("\0***BEGIN***\n1\na\nS\nx\n"s, &none).result, -1);
}

TEST(WebServiceParse, RefusesAnAnswerWithoutBytesSilently) {
  RecordSet records;
  const WebService ws{Network()};
  const Outcome parse = OutcomeOf([&] { return ws.parse(&records); });
  ExpectError(parse, "");
  EXPECT_EQ(ParseReceived("", &records).result, -1);
}

TEST(WebServiceParse, ReportsThatThereIsNoMemoryForItsCopy) {
  std::string answer = "***BEGIN***\n1\na\nS\n" + std::string(1 << 20, 'x') + "\n";
  WebService ws{Network()};
  WebService::data_callback(answer.data(), 1, answer.size(), &ws.buffer);
  RecordSet records;
  const Outcome parse = OutcomeOf([&] {
    const AllocationLimit limit(answer.size());
    return ws.parse(&records);
  });
  ExpectError(parse,
              "Could not convert webservice result to wide character string from UTF-8: %m.\n");
}

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (std::size_t index = 0; index < count; ++index) all += text;
  return all;
}

/// The result of reading a table of these lines.
int ReadTable(const std::string& names, const std::string& types, const std::string& records) {
  std::string text = "***BEGIN***\n0\n" + names + "\n" + types + "\n" + records + "***DONE***\n";
  RecordSet set;
  return ParseAnswer(text.data(), &set);
}

TEST(ParseAnswerBudget, TakesALargeTable) {
  EXPECT_EQ(ReadTable("id|login|name", "I|S|S", Repeated("1|agent1|one of many\n", 100000)), 0);
}

TEST(ParseAnswerBudget, TakesOneLargeValue) {
  EXPECT_EQ(ReadTable("a", "S", std::string(std::size_t{40} << 20, 'x') + "\n"), 0);
}

TEST(ParseAnswerBudget, RefusesATableWhoseColumnsAloneTakeTooMuch) {
  const std::string bars(std::size_t{4} << 20, '|');
  EXPECT_EQ(ReadTable(bars, bars, ""), -1);
  EXPECT_EQ(ReadTable(bars, "S|S", "1|2\n"), 0);
}

TEST(ParseAnswerBudget, RefusesRecordsThatRepeatALongNameTooOften) {
  const std::string name(std::size_t{1} << 20, 'n');
  EXPECT_EQ(ReadTable(name, "S", Repeated("1\n", 100)), 0);
  EXPECT_EQ(ReadTable(name, "S", Repeated("1\n", 200)), -1);
}

TEST(ParseAnswerBudget, CountsARecordWhoseValuesAreNotKept) {
  EXPECT_EQ(ReadTable("a", "X", std::string(std::size_t{1} << 20, '\n')), 0);
  EXPECT_EQ(ReadTable("a", "X", std::string(std::size_t{2} << 20, '\n')), -1);
}

}  // namespace
}  // namespace corvel::storage::tzregister
