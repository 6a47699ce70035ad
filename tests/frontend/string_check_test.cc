#include "frontend/string_check.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/testing/outcome.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;

/// `check` must throw a refusal, described so, and print nothing.
void ExpectRefusal(const std::function<void()>& check, const std::string& description) {
  ExpectFailure(OutcomeOf(check), {16, 5, "StringCheck", description});
}

TEST(ValidateType, AcceptsTheEightComponentTypes) {
  for (const char* type : {"Agent", "ContentRouter", "StoragePoolAuthority", "MetabaseEngine",
                           "MetabaseServer", "Controller", "qxwfe", "storagepool"}) {
    EXPECT_NO_THROW(RegisterStringCheck::ValidateType(type)) << type;
  }
}

TEST(ValidateType, RefusesEveryOtherText) {
  for (const char* type :
       {"", "agent", "AGENT", "Agent ", " Agent", "Agen", "Agents", "Foo", "StoragePool"}) {
    SCOPED_TRACE(type);
    ExpectRefusal(
        [type] { RegisterStringCheck::ValidateType(type); },
        std::string("Type \"") + type +
            "\" is not a valid type. Must be one of \"Agent ContentRouter StoragePoolAuthority "
            "MetabaseEngine MetabaseServer Controller qxwfe storagepool \".\n");
  }
}

TEST(ValidateNumeric, AcceptsDigitsAndTheEmptyText) {
  for (const char* text : {"", "0", "007", "1234567890", "99999999999999999999999999"}) {
    EXPECT_NO_THROW(RegisterStringCheck::ValidateNumeric(text)) << text;
  }
}

TEST(ValidateNumeric, RefusesAnyOtherCharacter) {
  using namespace std::string_literals;
  for (const std::string& text :
       {"-1"s, "+1"s, "1.5"s, " 1"s, "1 "s, "1\n"s, "0x1"s, "abc"s, "1:"s, "/1"s, "\xd9\xa1"s}) {
    SCOPED_TRACE(text);
    ExpectRefusal([&] { RegisterStringCheck::ValidateNumeric(text); },
                  "String is not a number: " + text);
  }
}

TEST(ValidateNotEmpty, AcceptsAnyText) {
  EXPECT_NO_THROW(RegisterStringCheck::ValidateNotEmpty("dsname", "x"));
  EXPECT_NO_THROW(RegisterStringCheck::ValidateNotEmpty("dsname", " "));
  EXPECT_NO_THROW(RegisterStringCheck::ValidateNotEmpty("", "x"));
}

TEST(ValidateNotEmpty, RefusesAnEmptyValueByItsName) {
  ExpectRefusal([] { RegisterStringCheck::ValidateNotEmpty("dsname", ""); },
                "Parameter dsname is empty. Please provide valid input");
}

}  // namespace
}  // namespace corvel::storage::tzregister
