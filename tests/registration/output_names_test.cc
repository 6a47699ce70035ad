#include <gtest/gtest.h>

#include <boost/any.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "tests/registration/scripted_registrator.h"
#include "tests/testing/authority_answers.h"
#include "tests/testing/command_line.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;

/// The two names, and the failure if there was one.
struct Names {
  std::string first = "old first";
  std::string second = "old second";
  Thrown failure;
};

bool operator==(const Names& a, const Names& b) {
  return a.first == b.first && a.second == b.second && a.failure == b.failure;
}

std::ostream& operator<<(std::ostream& stream, const Names& names) {
  return stream << names.first << " " << names.second << " " << names.failure;
}

/// Names the files of the command line `arguments`, as for a certificate unless
/// told otherwise; nothing may be printed but `err`.
Names NamesFor(const Words& arguments, const std::string& configFile = "",
               const std::string& dirargument = "keydir", const std::string& err = "") {
  ScriptedRegistrator test(arguments);
  test.registrator.SetConfigFile(configFile);
  Names names;
  const Outcome outcome = OutcomeOf([&] {
    test.registrator.FilenamesFromArguments(&names.first, &names.second, dirargument, "Agent",
                                            ".cert", ".key");
  });
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, err);
  names.failure = outcome.failure;
  return names;
}

Names Refused(int severity, const std::string& description) {
  Names names;
  names.failure = {16, severity, "Registrator", description};
  return names;
}

TEST(FilenamesFromArguments, JoinsDirectoryNameAndExtensions) {
  EXPECT_EQ(NamesFor({"--todisk", "--keydir", "/k"}), (Names{"/k/Agent.cert", "/k/Agent.key", {}}));
  EXPECT_EQ(NamesFor({"--todisk", "--keydir", "/k/"}),
            (Names{"/k/Agent.cert", "/k/Agent.key", {}}));
  EXPECT_EQ(NamesFor({"--todisk", "--keydir", "rel/dir"}),
            (Names{"rel/dir/Agent.cert", "rel/dir/Agent.key", {}}));
  EXPECT_EQ(NamesFor({"--todisk", "--keydir", "/"}), (Names{"/Agent.cert", "/Agent.key", {}}));
}

TEST(FilenamesFromArguments, TakesTheDirectoryOfTheGivenOption) {
  EXPECT_EQ(NamesFor({"--todisk", "--storage", "/s", "--keydir", "/k"}, "", "storage"),
            (Names{"/s/Agent.cert", "/s/Agent.key", {}}));
}

TEST(FilenamesFromArguments, TakesTheKeyDirectoryOfTheCredentialFile) {
  const TempDirectory directory;
  for (const char* keydir : {"/from/file", "/from/file/"}) {
    const std::string file = directory.Write("agent.cfg", CredentialFile("http://spa", keydir));
    EXPECT_EQ(NamesFor({"--todisk"}, file),
              (Names{"/from/file/Agent.cert", "/from/file/Agent.key", {}}));
    EXPECT_EQ(NamesFor({"--todisk", "--keydir", "/k"}, file),
              (Names{"/k/Agent.cert", "/k/Agent.key", {}}));
  }
}

TEST(FilenamesFromArguments, AddsNoSlashToAnEmptyDirectory) {
  const TempDirectory directory;
  const std::string file = directory.Write("agent.cfg", CredentialFile("http://spa", ""));
  EXPECT_EQ(NamesFor({"--todisk"}, file), (Names{"Agent.cert", "Agent.key", {}}));
}

TEST(FilenamesFromArguments, PassesFailuresOfTheCredentialFileOn) {
  const TempDirectory directory;
  const std::string missing = directory.File("missing");
  EXPECT_EQ(
      NamesFor({"--todisk"}, missing, "keydir", "Failed to open input file:" + missing + "\n"),
      Refused(7, "Failed to load from file " + missing + "\n"));
  EXPECT_EQ(NamesFor({"--todisk"}, ""), Refused(7, "Failed to load from file \n"));
  const std::string empty = directory.Write("empty.cfg", "");
  EXPECT_EQ(NamesFor({"--todisk"}, empty), Refused(7, "Failed to load url from file\n"));
  directory.Write("auth.key", "key");
  const std::string file =
      directory.Write("agent.cfg", CredentialFile("http://spa", directory.path()));
  EXPECT_EQ(NamesFor({"--todisk"}, file), Refused(7, "Failed to decrypt password for user stored"));
}

TEST(FilenamesFromArguments, HasNoOtherPlaceForAnotherDirectory) {
  const TempDirectory directory;
  const std::string file = directory.Write("agent.cfg", CredentialFile("http://spa", "/k"));
  for (const char* option : {"rtdir", "Keydir", "storage", ""}) {
    EXPECT_EQ(NamesFor({"--todisk", "--file", "a", "--file2", "b"}, file, option),
              Refused(5, "dirargument is missing\n"));
  }
}

TEST(FilenamesFromArguments, RefusesADirectoryOptionThatHoldsANumber) {
  ScriptedRegistrator test({"--todisk", "--agentid", "5"});
  std::string first = "old";
  std::string second = "old";
  EXPECT_THROW(test.registrator.FilenamesFromArguments(&first, &second, "agentid", "b", "1", "2"),
               boost::bad_any_cast);
  EXPECT_EQ(first + second, "oldold");
}

TEST(FilenamesFromArguments, UsesTwoFileNamesUnchanged) {
  EXPECT_EQ(NamesFor({"--file", "a", "--file2", "/x/b.pem"}), (Names{"a", "/x/b.pem", {}}));
  EXPECT_EQ(NamesFor({"--file", "a", "--file2", "b", "--keydir", "/k"}), (Names{"a", "b", {}}));
  EXPECT_EQ(NamesFor({"--file", "a", "--file2", "b"}, "", "rtdir"), (Names{"a", "b", {}}));
}

TEST(FilenamesFromArguments, PrefersTheDirectoryToFileNames) {
  EXPECT_EQ(NamesFor({"--todisk", "--keydir", "/k", "--file", "a", "--file2", "b"}),
            (Names{"/k/Agent.cert", "/k/Agent.key", {}}));
}

TEST(FilenamesFromArguments, RefusesEveryOtherCombination) {
  for (const char* option : {"keydir", "rtdir"}) {
    const std::string description =
        "Bad combination of arguments given. Please specify one of the following sets of "
        "arguments:\n"
        "- no arguments. result will be printed to standard output\n"
        "- \"todisk\" argument. This requires the " +
        std::string(option) +
        " argument (possibly from the configuration file)\n"
        "- \"file\" and \"file2\" arguments.\n";
    for (const Words& arguments :
         {Words{}, Words{"--file", "a"}, Words{"--file2", "b"}, Words{"--keydir", "/k"}}) {
      SCOPED_TRACE(::testing::PrintToString(arguments));
      EXPECT_EQ(NamesFor(arguments, "", option), Refused(5, description));
    }
  }
}

TEST(FilenamesFromArguments, NeedsBothOutputsBeforeAnythingElse) {
  ScriptedRegistrator test(Words{});
  std::string name = "old";
  const Thrown expected{16, 5, "Registrator", "filename1 or filename2 is missing\n"};
  Registrator& registrator = test.registrator;
  ExpectFailure(
      OutcomeOf([&] { registrator.FilenamesFromArguments(&name, nullptr, "d", "", "", ""); }),
      expected);
  ExpectFailure(
      OutcomeOf([&] { registrator.FilenamesFromArguments(nullptr, &name, "d", "", "", ""); }),
      expected);
  EXPECT_EQ(name, "old");
}

TEST(FilenamesFromArguments, TouchesNoOutputWhenAnOptionIsOfAnotherKind) {
  auto options = Options({"--file", "a", "--file2", "b"});
  options.at("file2").value() = 7UL;
  Registrator registrator(options, nullptr);
  std::string first = "old first";
  std::string second = "old second";
  EXPECT_THROW(registrator.FilenamesFromArguments(&first, &second, "keydir", "n", ".c", ".k"),
               boost::bad_any_cast);
  EXPECT_EQ(first + ", " + second, "old first, old second");
}

}  // namespace
}  // namespace corvel::storage::tzregister
