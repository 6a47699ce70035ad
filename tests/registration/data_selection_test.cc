#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/registration/scripted_registrator.h"
#include "tests/testing/authority_answers.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr char kNoType[] = "Warning: No dstypeid parameter given. Continuing without.\n";
constexpr char kNoRules[] = "Warning: No dsrules parameter given. Continuing without.\n";
const Thrown kNoName{16, 5, "StringCheck", "Parameter dsname is empty. Please provide valid input"};

/// An installed agent with id 7.
class CreateDataSelectionTest : public ::testing::Test {
 protected:
  CreateDataSelectionTest()
      : file(directory.Write("agent.cfg", CredentialFile("http://agent", directory.path()))) {}

  Outcome Create(ScriptedRegistrator* host, const std::string& name, const std::string& rules,
                 const std::string& type) const {
    host->registrator.SetConfigFile(file);
    host->network.http.Answer(NoRecords());
    return OutcomeOf([&] { host->registrator.CreateDataSelection(name, rules, type); });
  }

  TempDirectory directory;
  std::string file;
  ScriptedRegistrator agent{Words{}};
};

TEST_F(CreateDataSelectionTest, SendsEachValueUnderItsOwnNameWithTheStoredAccount) {
  ExpectSuccess(Create(&agent, "the name", "+ /home\n- /tmp", "003"));
  ASSERT_EQ(agent.requests().size(), 1U);
  EXPECT_EQ(agent.requests()[0].url, "http://agent/ws_dataselection.php");
  EXPECT_THAT(agent.requests()[0].form,
              ElementsAre(Pair("action", "createDS"), Pair("agentid", "7"),
                          Pair("dataselection", "+ /home\n- /tmp"), Pair("dstypeid", "003"),
                          Pair("keydir", directory.path()), Pair("login", "stored"),
                          Pair("name", "the name"), Pair("passwd", "storedpw")));
}

TEST_F(CreateDataSelectionTest, PrefersTheAgentIdOfTheCommandLine) {
  for (const std::string id : {"0", "12", "18446744073709551615"}) {
    ScriptedRegistrator host(Words{"--agentid", id});
    ExpectSuccess(Create(&host, "n", "r", "1"));
    EXPECT_EQ(FormValue(host.requests().at(0), "agentid"), id);
  }
}

TEST_F(CreateDataSelectionTest, SendsAnEmptyAgentIdWhenThereIsNone) {
  directory.Write("agent.cfg",
                  "[spa]\nurl=u\n[systemaccount]\nlogin=l\npasswd=p\n[paths]\nkeydir=/nowhere\n");
  ExpectSuccess(Create(&agent, "n", "r", "1"));
  EXPECT_EQ(FormValue(agent.requests().at(0), "agentid"), "");
}

TEST_F(CreateDataSelectionTest, WarnsOfMissingTypeAndRulesAndGoesOn) {
  const struct {
    const char* rules;
    const char* type;
    std::string warnings;
  } kCases[] = {{"", "", std::string(kNoType) + kNoRules}, {"r", "", kNoType}, {"", "5", kNoRules}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.warnings);
    ScriptedRegistrator host(Words{});
    const Outcome outcome = Create(&host, "n", row.rules, row.type);
    ExpectFailure(outcome, kNothingThrown, row.warnings);
    EXPECT_EQ(FormValue(host.requests().at(0), "dstypeid"), row.type);
    EXPECT_EQ(FormValue(host.requests().at(0), "dataselection"), row.rules);
  }
}

TEST_F(CreateDataSelectionTest, RefusesATypeThatIsNoNumberBeforeItLooksAtTheRules) {
  for (const std::string type : {"x", "-1", "1.5", " 1", "1 ", "0x1"}) {
    SCOPED_TRACE(type);
    const Outcome outcome = Create(&agent, "n", "", type);
    ExpectFailure(outcome, {16, 5, "StringCheck", "String is not a number: " + type});
  }
  EXPECT_THAT(agent.requests(), IsEmpty());
}

TEST_F(CreateDataSelectionTest, RefusesAnEmptyNameBeforeItLooksAtTypeAndRules) {
  for (const std::string type : {"", "x"}) {
    const Outcome outcome = Create(&agent, "", "", type);
    ExpectFailure(outcome, kNoName);
  }
  EXPECT_THAT(agent.requests(), IsEmpty());
}

TEST_F(CreateDataSelectionTest, ReportsTheCredentialFileFirst) {
  file = directory.File("missing.cfg");
  ExpectFailure(Create(&agent, "", "", "x"),
                {16, 7, "Registrator", "Failed to load from file " + file + "\n"},
                "Failed to open input file:" + file + "\n");
  file = directory.Write("agent.cfg", "[spa]\nurl=u\n[systemaccount]\nlogin=l\n");
  ExpectFailure(Create(&agent, "", "", "x"),
                {16, 7, "Registrator", "Failed to load passwd from file\n"});
  EXPECT_THAT(agent.requests(), IsEmpty());
}

TEST_F(CreateDataSelectionTest, PassesFailuresOfTheRequestOn) {
  agent.network.http.Answer("***ERROR***\n5\ndescription: name taken***DONE***\n");
  const Outcome outcome = Create(&agent, "n", "r", "1");
  ExpectFailure(
      outcome, kCallFailed,
      "The webservice returned an error :name taken\nServer's HTTP response code was 0\n");
}

}  // namespace
}  // namespace corvel::storage::tzregister
