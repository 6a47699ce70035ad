#include "support/parsed_options.h"

#include <gtest/gtest.h>

#include <boost/any.hpp>
#include <limits>
#include <memory>
#include <string>

#include "tests/testing/command_line.h"
#include "tests/testing/disguised_secret.h"

namespace corvel::storage::support {
namespace {

using storage::testing::DisguisedSecret;
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
}

TEST(ParsedOptions, GivesThePasswordAsASecretAlone) {
  const ParsedOptions options(Options({"--passwd", "pw", "--login", "me"}));
  EXPECT_EQ(options.SecretText("passwd").text(), "pw");
  EXPECT_THROW(options.Text("passwd"), boost::bad_any_cast);
  EXPECT_THROW(options.SecretText("login"), boost::bad_any_cast);
  EXPECT_THROW(options.SecretText("keydir"), boost::bad_any_cast);
}

TEST(ParsedOptions, SharesThePasswordWithItsCopies) {
  const auto parsed = Options({"--passwd", "pw"});
  const ParsedOptions first(parsed);
  const ParsedOptions second(parsed);
  EXPECT_EQ(&first.SecretText("passwd"), &second.SecretText("passwd"));
}

TEST(ParsedOptions, LeavesNoPasswordBehindWhenTheLastCopyGoes) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret password(length);
    auto parsed = std::make_unique<boost::program_options::variables_map>();
    password.Reveal([&](const char* text) {
      const SharedSecret shared = std::make_shared<const Secret>(text);
      parsed->insert({"passwd", {boost::any(shared), false}});
    });
    auto options = std::make_unique<ParsedOptions>(*parsed);
    parsed.reset();
    EXPECT_TRUE(password.Is(options->SecretText("passwd").text()));
    EXPECT_EQ(password.Copies(), 1U);
    options.reset();
    EXPECT_EQ(password.Copies(), 0U);
  }
}

}  // namespace
}  // namespace corvel::storage::support
