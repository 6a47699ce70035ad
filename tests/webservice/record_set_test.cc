#include "webservice/record_set.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/testing/outcome.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::Pair;

using Cells = std::vector<std::pair<std::string, std::string>>;

/// A set with one column per (name, type), and the lines inserted.
std::unique_ptr<RecordSet> Table(const std::vector<std::pair<std::string, char>>& columns,
                                 std::vector<std::string> lines) {
  auto records = std::make_unique<RecordSet>();
  for (const auto& [name, type] : columns) {
    auto definition = std::make_unique<FieldDefinition>();
    definition->name = CopyText(name.c_str());
    definition->type = type;
    records->definitions.push_back(std::move(definition));
  }
  for (std::string& line : lines) records->insert(line.data());
  return records;
}

Cells CellsOf(const Record& record) {
  Cells cells;
  for (const auto& [name, field] : record.fields) cells.emplace_back(name, field->value.get());
  return cells;
}

/// The cells of the one record that `line` makes under `columns`.
Cells CellsOfLine(const std::vector<std::pair<std::string, char>>& columns,
                  const std::string& line) {
  return CellsOf(*Table(columns, {line})->records.at(0));
}

TEST(RecordSet, StartsEmpty) {
  RecordSet records;
  EXPECT_EQ(records.cursor, 0u);
  EXPECT_TRUE(records.records.empty());
  EXPECT_TRUE(records.definitions.empty());
  EXPECT_EQ(records.recordCount, 0);
  EXPECT_EQ(records.declaredCount, 0);
  EXPECT_EQ(records.error, nullptr);
  EXPECT_EQ(records.next(), nullptr);
}

TEST(RecordSetInsert, GivesEachColumnItsValue) {
  EXPECT_THAT(CellsOfLine({{"a", 'I'}, {"b", 'S'}, {"c", 'C'}}, "5|x y|"),
              ElementsAre(Pair("a", "5"), Pair("b", "x y"), Pair("c", "")));
}

TEST(RecordSetInsert, EndsAValueAtABarOrALineBreak) {
  EXPECT_THAT(CellsOfLine({{"a", 'S'}, {"b", 'S'}, {"c", 'S'}, {"d", 'S'}}, "1\n2\r3|4"),
              ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3"), Pair("d", "4")));
}

TEST(RecordSetInsert, IgnoresValuesBeyondTheLastColumn) {
  EXPECT_THAT(CellsOfLine({{"a", 'I'}, {"b", 'S'}}, "1|2|3|4"),
              ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(RecordSetInsert, LeavesOutColumnsBeyondTheLastValue) {
  EXPECT_THAT(CellsOfLine({{"a", 'I'}, {"b", 'S'}, {"c", 'S'}}, "5"), ElementsAre(Pair("a", "5")));
}

TEST(RecordSetInsert, GivesTheFirstColumnOfAnEmptyLineAnEmptyValue) {
  EXPECT_THAT(CellsOfLine({{"a", 'I'}, {"b", 'S'}}, ""), ElementsAre(Pair("a", "")));
}

TEST(RecordSetInsert, SkipsColumnsOfOtherTypesButTheirValuesCount) {
  for (const char type : {'X', 'i', 's', 'c', '\0', '5'}) {
    SCOPED_TRACE(static_cast<int>(type));
    EXPECT_THAT(CellsOfLine({{"a", 'I'}, {"b", type}, {"c", 'S'}}, "1|2|3"),
                ElementsAre(Pair("a", "1"), Pair("c", "3")));
  }
}

TEST(RecordSetInsert, KeepsTheFirstOfTwoColumnsWithOneName) {
  const auto records = Table({{"a", 'S'}, {"a", 'S'}, {"b", 'S'}}, {"1|2|3"});
  EXPECT_THAT(CellsOf(*records->records[0]), ElementsAre(Pair("a", "1"), Pair("b", "3")));
  EXPECT_EQ(records->records[0]->fieldCount, 3);
}

TEST(RecordSetInsert, KeepsEscapesAsTheyCame) {
  EXPECT_THAT(CellsOfLine({{"a", 'S'}}, "\\x7c\\n"), ElementsAre(Pair("a", "\\x7c\\n")));
}

TEST(RecordSetInsert, CountsRecordsAndFields) {
  const auto records = Table({{"a", 'S'}, {"b", 'X'}, {"c", 'I'}}, {"1|2|3", "1|2", "", "1|2|3|4"});
  EXPECT_EQ(records->recordCount, 4);
  ASSERT_EQ(records->records.size(), 4u);
  EXPECT_EQ(records->records[0]->fieldCount, 2);
  EXPECT_EQ(records->records[1]->fieldCount, 1);
  EXPECT_EQ(records->records[2]->fieldCount, 1);
  EXPECT_EQ(records->records[3]->fieldCount, 2);
}

TEST(RecordSetInsert, AddsAnEmptyRecordWhenThereAreNoColumns) {
  const auto records = Table({}, {"1|2"});
  ASSERT_EQ(records->recordCount, 1);
  EXPECT_TRUE(records->records[0]->fields.empty());
  EXPECT_EQ(records->records[0]->fieldCount, 0);
}

TEST(RecordSetNext, HandsOutTheRecordsInOrderAndThenNull) {
  const auto records = Table({{"a", 'S'}}, {"1", "2"});
  EXPECT_EQ(records->next(), records->records[0].get());
  EXPECT_EQ(records->cursor, 1u);
  EXPECT_EQ(records->next(), records->records[1].get());
  EXPECT_EQ(records->next(), nullptr);
  EXPECT_EQ(records->next(), nullptr);
  EXPECT_EQ(records->cursor, 2u);
}

TEST(Field, KnowsItsKind) {
  const auto records = Table({{"a", 'I'}, {"b", 'S'}, {"c", 'C'}}, {"1|2|3"});
  const auto& fields = records->records[0]->fields;
  EXPECT_EQ(fields.at("a")->type(), 1);
  EXPECT_EQ(fields.at("b")->type(), 2);
  EXPECT_EQ(fields.at("c")->type(), 2);
  EXPECT_STREQ(fields.at("a")->name.get(), "a");
}

TEST(Compare, OrdersNamesByteByByte) {
  const Compare less;
  EXPECT_TRUE(less("a", "b"));
  EXPECT_FALSE(less("b", "a"));
  EXPECT_FALSE(less("a", "a"));
  EXPECT_TRUE(less("", "a"));
  EXPECT_TRUE(less("a", "ab"));
  EXPECT_TRUE(less("B", "a"));
  EXPECT_TRUE(less("z", "\xC3\xA4"));
}

TEST(RecordGetValue, UndoesTheEscapes) {
  const auto records =
      Table({{"a", 'S'}, {"b", 'I'}, {"c", 'C'}}, {"one\\ntwo\\x7c\\\\|7|bad \\q and \\x4"});
  const Record& record = *records->records[0];
  EXPECT_EQ(record.getValue("a", true), "one\ntwo|\\");
  EXPECT_EQ(record.getValue("b", true), "7");
  EXPECT_EQ(record.getValue("c", true), "bad \\q and \\x4");
}

TEST(RecordGetValue, GivesALongValueWhole) {
  const std::string value(100000, 'v');
  EXPECT_EQ(Table({{"a", 'S'}}, {value})->records[0]->getValue("a", true), value);
}

TEST(RecordGetValue, GivesAnEmptyValueAsAnEmptyText) {
  EXPECT_EQ(Table({{"a", 'S'}, {"b", 'S'}}, {"|"})->records[0]->getValue("b", true), "");
}

TEST(RecordGetValue, ThrowsForAMissingColumnWhetherItIsRequiredOrNot) {
  const auto records = Table({{"a", 'I'}, {"b", 'S'}, {"c", 'X'}}, {"5"});
  for (const bool required : {true, false}) {
    for (const std::string name : {"b", "c", "A", "", "none"}) {
      SCOPED_TRACE(name);
      const auto asked = OutcomeOf([&] { records->records[0]->getValue(name, required); });
      ExpectFailure(asked, {6, 5, "Record", "Missing required field: " + name});
    }
  }
}

TEST(RecordGetValue, ThrowsForAColumnWithoutAValue) {
  Record record;
  record.fields.emplace("gone", nullptr);
  record.fields.emplace("bare", std::make_unique<StringField>(CopyText("bare"), nullptr));
  for (const std::string name : {"gone", "bare"}) {
    SCOPED_TRACE(name);
    const auto asked = OutcomeOf([&] { record.getValue(name, false); });
    ExpectFailure(asked, {6, 5, "Record", "Missing required value for field: " + name});
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
