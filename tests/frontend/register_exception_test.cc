#include "frontend/register_exception.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>

#include "tests/testing/outcome.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;

/// `call` must throw the failure of a conversion, described so.
void ExpectConversionFailure(const std::function<void()>& call, const std::string& description) {
  ExpectFailure(OutcomeOf(call), {1, 6, "Namespace:Engine", description});
}

/// A value that can be written half, and not as a number.
struct Unwritable {};

std::ostream& operator<<(std::ostream& stream, const Unwritable& /*value*/) {
  stream << "half";
  stream.setstate(std::ios::failbit);
  return stream;
}

TEST(RegisterException, TellsSourceFromDescription) {
  const std::string source = "Registrator";
  const std::string description = "filename1 or filename2 is missing\n";
  const RegisterException failure(ERR_FILE_WRITE, SEVERITY_CRITICAL, source, description);
  EXPECT_EQ(failure.number(), ERR_FILE_WRITE);
  EXPECT_EQ(failure.severity(), SEVERITY_CRITICAL);
  EXPECT_EQ(failure.source(), source);
  EXPECT_EQ(failure.what(), description);
}

TEST(RegisterException, TakesPlainTexts) {
  const RegisterException failure(ERR_REGISTRY, SEVERITY_ERROR, "TZRegister", "closed");
  EXPECT_EQ(failure.number(), ERR_REGISTRY);
  EXPECT_EQ(failure.severity(), SEVERITY_ERROR);
  EXPECT_EQ(failure.source(), "TZRegister");
  EXPECT_STREQ(failure.what(), "closed");
}

TEST(RegisterException, TakesANullTextForAnEmptyOne) {
  const char* const none = nullptr;
  const RegisterException failure(ERR_REGISTRY, SEVERITY_ERROR, none, none);
  EXPECT_EQ(failure.source(), "");
  EXPECT_STREQ(failure.what(), "");
  EXPECT_STREQ(RegisterException(ERR_REGISTRY, SEVERITY_ERROR, none, "text").what(), "text");
  EXPECT_EQ(RegisterException(ERR_REGISTRY, SEVERITY_ERROR, "text", none).source(), "text");
}

TEST(RegisterException, KnowsWhenItWasMade) {
  const std::time_t before = std::time(nullptr);
  const RegisterException failure(ERR_REGISTRY, SEVERITY_ERROR, "TZRegister", "closed");
  EXPECT_GE(failure.date(), before);
  EXPECT_LE(failure.date(), std::time(nullptr));
}

TEST(RegisterException, IsCaughtAsAStandardException) {
  static_assert(std::is_convertible_v<RegisterException*, std::exception*>);
  try {
    throw RegisterException(ERR_REGISTRY, SEVERITY_ERROR, "TZRegister", "closed");
  } catch (const std::exception& failure) {
    EXPECT_STREQ(failure.what(), "closed");
  }
}

TEST(ToString, WritesNumbersInDecimal) {
  EXPECT_EQ(to_string<std::int64_t>(0, std::dec), "0");
  EXPECT_EQ(to_string<std::int64_t>(std::numeric_limits<std::int64_t>::min(), std::dec),
            "-9223372036854775808");
  EXPECT_EQ(to_string<std::uint64_t>(std::numeric_limits<std::uint64_t>::max(), std::dec),
            "18446744073709551615");
}

TEST(ToString, HeedsTheManipulator) { EXPECT_EQ(to_string<std::int64_t>(255, std::hex), "ff"); }

TEST(ToString, ThrowsWhenTheValueCannotBeWritten) {
  ExpectConversionFailure([] { to_string(Unwritable(), std::dec); },
                          "Conversion to string failed for half");
}

TEST(NumberFromText, ReadsDecimalNumbersOf64Bits) {
  const struct {
    const char* text;
    std::int64_t number;
  } kCases[] = {{"0", 0},
                {"42", 42},
                {"-7", -7},
                {"+7", 7},
                {"010", 10},
                {" 12", 12},
                {"\n\t3", 3},
                {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
                {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(NumberFromText(row.text), row.number);
  }
}

TEST(NumberFromText, ThrowsForAnythingElse) {
  for (const char* text : {"", " ", "x", "12x", "12 ", "12\n", "1.5", "0x10", "1e3", "-", "--1",
                           "9223372036854775808", "-9223372036854775809"}) {
    SCOPED_TRACE(text);
    ExpectConversionFailure([text] { NumberFromText(text); },
                            std::string("Conversion from string failed for string ") + text);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
