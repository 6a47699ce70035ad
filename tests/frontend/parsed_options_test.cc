#include "frontend/parsed_options.h"

#include <gtest/gtest.h>

#include <boost/any.hpp>
#include <limits>
#include <memory>
#include <string>

#include "tests/testing/command_line.h"
#include "tests/testing/heap_watch.h"

namespace corvel::storage::tzregister {
namespace {

using storage::testing::FreedTextWatch;
using storage::testing::Options;

TEST(ParsedOptions, TellsWhichOptionsWereGiven) {
  const ParsedOptions options(Options({"--url", "http://spa", "--todisk", "--agentid", "0"}));
  EXPECT_TRUE(options.Has("url"));
  EXPECT_TRUE(options.Has("todisk"));
  EXPECT_TRUE(options.Has("agentid"));
  EXPECT_FALSE(options.Has("login"));
  EXPECT_FALSE(options.Has("no such option"));
}

TEST(ParsedOptions, GivesTextsAsTheyAre) {
  const ParsedOptions options(Options({"--url", " a b ", "--login=x=y"}));
  EXPECT_EQ(options.Text("url"), " a b ");
  EXPECT_EQ(options.Text("login"), "x=y");
}

TEST(ParsedOptions, GivesTheFallbackForAnOptionThatIsAbsent) {
  const ParsedOptions options(Options({"--login", ""}));
  EXPECT_EQ(options.TextOr("login", "fallback"), "");
  EXPECT_EQ(options.TextOr("url", "fallback"), "fallback");
}

TEST(ParsedOptions, GivesNumbersOf64Bits) {
  const ParsedOptions options(Options({"--agentid", "18446744073709551615", "--dstypeid", "0"}));
  EXPECT_EQ(options.Number("agentid"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(options.Number("dstypeid"), 0U);
}

TEST(ParsedOptions, ThrowsForAbsentOptionsAndOtherKindsOfValue) {
  const ParsedOptions options(Options({"--url", "7", "--agentid", "7"}));
  EXPECT_THROW(options.Text("login"), boost::bad_any_cast);
  EXPECT_THROW(options.Number("dstypeid"), boost::bad_any_cast);
  EXPECT_THROW(options.Text("agentid"), boost::bad_any_cast);
  EXPECT_THROW(options.Number("url"), boost::bad_any_cast);
  EXPECT_THROW(options.TextOr("agentid", ""), boost::bad_any_cast);
}

TEST(ParsedOptions, HoldsACopyOfItsOwn) {
  auto parsed = Options({"--url", "http://spa"});
  const ParsedOptions options(parsed);
  parsed.clear();
  EXPECT_EQ(options.Text("url"), "http://spa");
  EXPECT_EQ(options.map()["url"].as<std::string>(), "http://spa");
}

TEST(ParsedOptions, IsWipedOfThePasswordWhenItGoes) {
  const std::string secret = "a secret too long to lie inside an object";
  const auto parsed = Options({"--passwd", secret});
  const FreedTextWatch watch(secret);
  std::make_unique<ParsedOptions>(parsed).reset();
  EXPECT_FALSE(watch.seen());
  EXPECT_EQ(parsed["passwd"].as<std::string>(), secret);
}

TEST(ParsedOptions, GoesQuietlyWithoutAPassword) {
  const auto parsed = Options({"--url", "http://spa"});
  EXPECT_NO_THROW(std::make_unique<ParsedOptions>(parsed).reset());
}

}  // namespace
}  // namespace corvel::storage::tzregister
