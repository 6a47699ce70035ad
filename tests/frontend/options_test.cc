#include "frontend/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/any.hpp>
#include <boost/program_options/errors.hpp>
#include <boost/program_options/value_semantic.hpp>
#include <string>
#include <vector>

#include "support/parsed_options.h"
#include "tests/testing/command_line.h"

namespace corvel::storage::tzregister {
namespace {

namespace po = boost::program_options;
using storage::testing::Options;
using ::testing::ElementsAre;

/// The declared names as a command line has them, in the order of declaration.
std::vector<std::string> DeclaredNames() {
  const po::options_description description = DescribeOptions();
  std::vector<std::string> names;
  for (const auto& option : description.options()) {
    names.push_back("--" + option->long_name());
    const std::string shown = option->format_name();
    if (shown[1] != '-') names.push_back(shown.substr(0, 2));
  }
  return names;
}

const std::vector<std::string> kFlags = {"version", "help", "todisk", "server", "mkdir"};
const std::vector<std::string> kNumbers = {"agentType", "agentid", "dstypeid", "storagepoolid"};
const std::vector<std::string> kTexts = {
    "action", "login", "passwdfile", "url",    "type",    "keydir",  "hostname",
    "file",   "file2", "configfile", "dsname", "dsrules", "storage", "productname"};

TEST(DescribeOptions, DeclaresTheOptionsInTheOrderOfTheHelpText) {
  EXPECT_THAT(DeclaredNames(),
              ElementsAre("--version", "-V", "--help", "-h", "--action", "--login", "--passwd",
                          "--passwdfile", "--url", "--type", "--todisk", "--server", "--mkdir",
                          "--agentType", "--keydir", "--agentid", "--hostname", "--file", "--file2",
                          "--configfile", "--dsname", "--dsrules", "--storage", "--productname",
                          "--dstypeid", "--storagepoolid"));
}

TEST(DescribeOptions, GivesNoOptionADefault) {
  const po::options_description description = DescribeOptions();
  for (const auto& option : description.options()) {
    boost::any value;
    EXPECT_FALSE(option->semantic()->apply_default(value)) << option->long_name();
  }
  EXPECT_TRUE(Options({}).empty());
}

TEST(ParseOptions, ReadsFlags) {
  for (const std::string& name : kFlags) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Options({"--" + name}).count(name), 1U);
    EXPECT_THROW(Options({"--" + name + "=1"}), po::error);
  }
  EXPECT_EQ(Options({"-V"}).count("version"), 1U);
  EXPECT_EQ(Options({"-h"}).count("help"), 1U);
}

TEST(ParseOptions, ReadsTexts) {
  for (const std::string& name : kTexts) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Options({"--" + name, "a text"})[name].as<std::string>(), "a text");
    EXPECT_EQ(Options({"--" + name + "=-1"})[name].as<std::string>(), "-1");
    EXPECT_THROW(Options({"--" + name}), po::error);
  }
}

TEST(ParseOptions, ReadsThePasswordAsASecret) {
  const auto secret = [](const std::vector<std::string>& arguments) {
    return Options(arguments)["passwd"].as<support::SharedSecret>()->text();
  };
  EXPECT_EQ(secret({"--passwd", "a text"}), "a text");
  EXPECT_EQ(secret({"--passwd=-1"}), "-1");
  EXPECT_EQ(secret({"--passwd", ""}), "");
  EXPECT_THROW(Options({"--passwd"}), po::error);
  EXPECT_THROW(Options({"--passwd="}), po::error);
  EXPECT_THROW(Options({"--passwd", "a", "--passwd", "b"}), po::multiple_occurrences);
}

TEST(ParseOptions, ReadsNumbers) {
  for (const std::string& name : kNumbers) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Options({"--" + name, "42"})[name].as<unsigned long>(), 42U);
    for (const char* text : {"abc", "", "1.5", "1 ", "0x1", "18446744073709551616"}) {
      EXPECT_THROW(Options({"--" + name, text}), po::error) << text;
    }
  }
}

TEST(ParseOptions, RefusesWhatIsNotOfTheDescription) {
  const std::vector<std::vector<std::string>> kCommandLines = {{"--bogus"},
                                                               {"-x"},
                                                               {"--Help"},
                                                               {"--agenttype", "0"},
                                                               {"--url", "a", "--url", "b"},
                                                               {"--todisk", "--todisk"},
                                                               {"--agent", "1"}};
  for (const auto& arguments : kCommandLines) {
    EXPECT_THROW(Options(arguments), po::error) << ::testing::PrintToString(arguments);
  }
}

TEST(ParseOptions, TakesTheFirstWordForTheProgramsName) {
  const char* const argv[] = {"--bogus", "--help"};
  po::variables_map options;
  ParseOptions(2, argv, DescribeOptions(), &options);
  EXPECT_EQ(options.size(), 1U);
}

}  // namespace
}  // namespace corvel::storage::tzregister
