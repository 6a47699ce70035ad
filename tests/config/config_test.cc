#include "config/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "tests/testing/allocation_limit.h"

namespace corvel::storage::tzconfig {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What the operations return, by its number: callers know it so.
constexpr int kRefused = -1;
constexpr int kMissing = -7;

std::vector<std::string> OptionNames(TZConfig* config, const std::string& section) {
  std::vector<std::string> names;
  for (const auto& entry : config->GetOptionMap(section)->options) names.push_back(entry.first);
  return names;
}

/// Value and comment of an option that must exist.
std::vector<std::string> ValueAndComment(TZConfig* config, const std::string& section,
                                         const std::string& option) {
  std::string value;
  std::string comment;
  EXPECT_EQ(config->GetOptionValue(section, option, &value, &comment), 0);
  return {value, comment};
}

TEST(StringCaseCmp, OrdersNamesByTheirLowerCaseForm) {
  const StringCaseCmp before;
  const struct {
    const char* first;
    const char* second;
  } kOrdered[] = {{"a", "B"}, {"A", "b"}, {"", "a"}, {"a", "ab"}, {"_", "Z"}, {"a1", "A2"}};
  for (const auto& row : kOrdered) {
    SCOPED_TRACE(std::string(row.first) + " before " + row.second);
    EXPECT_TRUE(before(row.first, row.second));
    EXPECT_FALSE(before(row.second, row.first));
  }
}

TEST(StringCaseCmp, TakesNamesThatDifferInLetterCaseForTheSame) {
  const StringCaseCmp before;
  EXPECT_FALSE(before("keydir", "KEYDIR"));
  EXPECT_FALSE(before("KEYDIR", "keydir"));
}

TEST(TZConfig, IsEmptyWhenNew) { EXPECT_THAT(TZConfig().SectionOrder(), IsEmpty()); }

TEST(TZConfig, CreatesAnEmptySectionWhenAskedForItsOptions) {
  TZConfig config;
  const SectionOptionMap* const map = config.GetOptionMap("Paths");
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(map->comment, "");
  EXPECT_THAT(map->options, IsEmpty());
  EXPECT_THAT(config.SectionOrder(), ElementsAre("Paths"));
}

TEST(TZConfig, FindsASectionInAnyLetterCase) {
  TZConfig config;
  const SectionOptionMap* const map = config.GetOptionMap("Paths");
  EXPECT_EQ(config.GetOptionMap("Paths"), map);
  EXPECT_EQ(config.GetOptionMap("PATHS"), map);
  EXPECT_EQ(config.GetOptionMap("paths"), map);
  EXPECT_THAT(config.SectionOrder(), ElementsAre("Paths"));
}

TEST(TZConfig, HasASectionWithoutAName) {
  TZConfig config;
  EXPECT_NE(config.GetOptionMap(""), nullptr);
  EXPECT_THAT(config.SectionOrder(), ElementsAre(""));
}

TEST(TZConfig, KeepsASectionInItsPlaceWhileOthersCome) {
  TZConfig config;
  SectionOptionMap* const map = config.GetOptionMap("m");
  map->comment = "kept";
  for (char name = 'a'; name <= 'z'; ++name) config.GetOptionMap(std::string(1, name));
  EXPECT_EQ(config.GetOptionMap("m"), map);
  EXPECT_EQ(map->comment, "kept");
}

TEST(TZConfig, KeepsTheFirstSpellingOfNames) {
  TZConfig config;
  EXPECT_EQ(config.SetOptionValue("paths", "keydir", "/first"), 0);
  EXPECT_EQ(config.SetOptionValue("PATHS", "KEYDIR", "/second"), 0);
  EXPECT_THAT(config.SectionOrder(), ElementsAre("paths"));
  EXPECT_THAT(OptionNames(&config, "Paths"), ElementsAre("keydir"));
  EXPECT_THAT(ValueAndComment(&config, "Paths", "KeyDir"), ElementsAre("/second", ""));
}

TEST(TZConfig, KeepsTheFirstSpellingWhenAValueComesWithAComment) {
  TZConfig config;
  EXPECT_EQ(config.SetOptionValue("paths", "keydir", "/first", "#1"), 0);
  EXPECT_EQ(config.SetOptionValue("PATHS", "KEYDIR", "/second", "#2"), 0);
  EXPECT_THAT(config.SectionOrder(), ElementsAre("paths"));
  EXPECT_THAT(OptionNames(&config, "paths"), ElementsAre("keydir"));
  EXPECT_THAT(ValueAndComment(&config, "paths", "keydir"), ElementsAre("/second", "#2"));
}

TEST(TZConfig, KeepsAnOptionsCommentWhenItIsSetWithoutOne) {
  TZConfig config;
  config.SetOptionValue("s", "o", "v", "note");
  EXPECT_EQ(config.SetOptionValue("s", "o", "w"), 0);
  EXPECT_THAT(ValueAndComment(&config, "s", "o"), ElementsAre("w", "note"));
}

TEST(TZConfig, ClearsAnOptionsCommentWhenItIsSetWithAnEmptyOne) {
  TZConfig config;
  config.SetOptionValue("s", "o", "v", "note");
  EXPECT_EQ(config.SetOptionValue("s", "o", "w", ""), 0);
  EXPECT_THAT(ValueAndComment(&config, "s", "o"), ElementsAre("w", ""));
}

TEST(TZConfig, SetsTheCommentOfANewOptionAndOfNoOther) {
  TZConfig config;
  EXPECT_EQ(config.SetOptionValue("s", "plain", "v"), 0);
  EXPECT_EQ(config.SetOptionValue("s", "noted", "v", "note"), 0);
  EXPECT_THAT(ValueAndComment(&config, "s", "plain"), ElementsAre("v", ""));
  EXPECT_THAT(ValueAndComment(&config, "s", "noted"), ElementsAre("v", "note"));
  EXPECT_EQ(config.GetOptionMap("s")->comment, "");
}

TEST(TZConfig, RefusesToSetWithoutANameAndCreatesNothing) {
  TZConfig config;
  const struct {
    const char* section;
    const char* option;
  } kNames[] = {{"", "o"}, {"s", ""}, {"", ""}};
  for (const auto& row : kNames) {
    SCOPED_TRACE(std::string(row.section) + "/" + row.option);
    EXPECT_EQ(config.SetOptionValue(row.section, row.option, "v"), kRefused);
    EXPECT_EQ(config.SetOptionValue(row.section, row.option, "v", "c"), kRefused);
    EXPECT_THAT(config.SectionOrder(), IsEmpty());
  }
}

TEST(TZConfig, RefusesToGetWithoutNameOrOutputAndCreatesNothing) {
  TZConfig config;
  std::string value = "v";
  std::string comment = "c";
  EXPECT_EQ(config.GetOptionValue("", "o", &value, &comment), kRefused);
  EXPECT_EQ(config.GetOptionValue("s", "", &value, &comment), kRefused);
  EXPECT_EQ(config.GetOptionValue("s", "o", nullptr, &comment), kRefused);
  EXPECT_EQ(config.GetOptionValue("s", "o", &value, nullptr), kRefused);
  EXPECT_THAT(config.SectionOrder(), IsEmpty());
  EXPECT_EQ(value + comment, "vc");
}

TEST(TZConfig, CreatesTheSectionOfAnOptionThatIsMissing) {
  TZConfig config;
  config.SetOptionValue("first", "o", "v");
  std::string value = "v";
  std::string comment = "c";
  EXPECT_EQ(config.GetOptionValue("asked", "o", &value, &comment), kMissing);
  EXPECT_EQ(value + comment, "vc");
  EXPECT_THAT(config.SectionOrder(), ElementsAre("first", "asked"));
  EXPECT_THAT(OptionNames(&config, "asked"), IsEmpty());
}

TEST(TZConfig, MissesAnOptionThatAnotherSectionHas) {
  TZConfig config;
  config.SetOptionValue("a", "o", "v");
  config.SetOptionValue("b", "p", "w");
  std::string text;
  EXPECT_EQ(config.GetOptionValue("b", "o", &text, &text), kMissing);
  EXPECT_THAT(OptionNames(&config, "b"), ElementsAre("p"));
}

TEST(TZConfig, WalksOptionsInAlphabeticalOrder) {
  TZConfig config;
  for (const char* name : {"b", "A", "c"}) config.SetOptionValue("s", name, "v");
  EXPECT_THAT(OptionNames(&config, "s"), ElementsAre("A", "b", "c"));
}

TEST(TZConfig, ListsSectionsInTheOrderOfTheirCreation) {
  TZConfig config;
  for (const char* name : {"m", "z", "A", "M", "b"}) config.SetOptionValue(name, "o", "v");
  EXPECT_THAT(config.SectionOrder(), ElementsAre("m", "z", "A", "b"));
}

TEST(TZConfig, ListsNoSectionThatItHadNoMemoryFor) {
  TZConfig config;
  // The list has room for a fourth short name; what runs out is the map.
  for (const char* name : {"a", "b", "c"}) config.GetOptionMap(name);
  {
    const storage::testing::AllocationLimit limit(sizeof(SectionOptionMap));
    EXPECT_THROW(config.GetOptionMap("d"), std::bad_alloc);
  }
  EXPECT_THAT(config.SectionOrder(), ElementsAre("a", "b", "c"));
}

TEST(TZConfig, IsAsNewAfterReset) {
  TZConfig config;
  config.SetOptionValue("Old", "o", "v");
  config.GetOptionMap("Old")->comment = "note";
  config.Reset();
  EXPECT_THAT(config.SectionOrder(), IsEmpty());
  const SectionOptionMap* const map = config.GetOptionMap("OLD");
  EXPECT_EQ(map->comment, "");
  EXPECT_THAT(map->options, IsEmpty());
  EXPECT_THAT(config.SectionOrder(), ElementsAre("OLD"));
}

}  // namespace
}  // namespace corvel::storage::tzconfig
