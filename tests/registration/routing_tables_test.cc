#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/password.h"
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

const Thrown kMissingAgentId{17, 5, "Registrator",
                             "agentid is missing, it is required for GetRoutingTables."};

constexpr char kBothTables[] = "better\npresent";
/// An installed agent: a key directory without a key file, and its account.
class GetRoutingTablesTest : public ::testing::Test {
 protected:
  GetRoutingTablesTest()
      : file(directory.Write("agent.cfg", CredentialFile("http://agent", directory.path()))) {}

  Outcome Get(ScriptedRegistrator* host, const std::string& recommended, const std::string& current,
              std::int64_t pool = 2) const {
    host->registrator.SetConfigFile(file);
    host->network.http.Answer(RoutingTablesAnswer("better\\n", "present"));
    return OutcomeOf([&] { host->registrator.GetRoutingTables(pool, recommended, current); });
  }

  Outcome Get(const std::string& recommended, const std::string& current) const {
    ScriptedRegistrator host(Words{"--agentid", "9"});
    return Get(&host, recommended, current);
  }

  TempDirectory directory;
  std::string file;
};

TEST_F(GetRoutingTablesTest, AsksWithTheStoredAccountForThePool) {
  ScriptedRegistrator host(Words{"--agentid", "9"});
  ExpectSuccess(Get(&host, "", "", std::numeric_limits<std::int64_t>::min()), kBothTables);
  ASSERT_EQ(host.requests().size(), 1U);
  EXPECT_EQ(host.requests()[0].url, "http://agent/ws_agent.php");
  EXPECT_THAT(
      host.requests()[0].form,
      ElementsAre(Pair("action", "getRoutingTables"), Pair("id", "9"),
                  Pair("keydir", directory.path()), Pair("login", "stored"),
                  Pair("passwd", "storedpw"), Pair("storagepoolId", "-9223372036854775808")));
}

TEST_F(GetRoutingTablesTest, AsksWithThePlainPassword) {
  const std::string key = directory.Write("auth.key", "key material");
  char sealed[512];
  ASSERT_EQ(EncryptPasswdWithKey(key.c_str(), "plainpw", sealed, sizeof(sealed)), 0);
  file = directory.Write("agent.cfg",
                         "[spa]\nurl=u\n[systemaccount]\nlogin=l\npasswd=" + std::string(sealed) +
                             "\n[paths]\nkeydir=" + directory.path() + "\n");
  ScriptedRegistrator host(Words{"--agentid", "9"});
  ExpectSuccess(Get(&host, "", ""), kBothTables);
  EXPECT_EQ(FormValue(host.requests().at(0), "passwd"), "plainpw");
}

TEST_F(GetRoutingTablesTest, FailsWithoutAnAgentIdBeforeItReadsTheCredentialFile) {
  file = directory.File("missing.cfg");
  ScriptedRegistrator host(Words{});
  const Outcome outcome = Get(&host, "", "");
  ExpectFailure(outcome, kMissingAgentId);
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST_F(GetRoutingTablesTest, FailsInTheSameWordsWithoutACredentialFile) {
  file = "";
  ScriptedRegistrator host(Words{"--agentid", "9"});
  const Outcome outcome = Get(&host, "", "");
  ExpectFailure(outcome, kMissingAgentId);
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST_F(GetRoutingTablesTest, NeedsTheAgentIdOptionWhateverItsValue) {
  ScriptedRegistrator host(Words{"--agentid", "0"});
  ExpectSuccess(Get(&host, "", ""), kBothTables);
  EXPECT_EQ(FormValue(host.requests().at(0), "id"), "(none)");
}

TEST_F(GetRoutingTablesTest, PassesFailuresOfTheCredentialFileOn) {
  file = directory.Write("agent.cfg", "[spa]\nurl=u\n");
  ScriptedRegistrator host(Words{"--agentid", "9"});
  ExpectFailure(Get(&host, "", ""), {16, 7, "Registrator", "Failed to load login from file\n"});
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST_F(GetRoutingTablesTest, PrintsBothTablesUnlessBothFilesAreNamed) {
  const std::string named = directory.File("named");
  for (const bool first : {true, false}) {
    const Outcome outcome = Get(first ? named : "", first ? "" : named);
    ExpectSuccess(outcome, kBothTables);
    EXPECT_FALSE(Exists(named));
  }
  EXPECT_EQ(Get("", "").out, kBothTables);
}

TEST_F(GetRoutingTablesTest, WritesEachTableToItsFile) {
  const std::string first = directory.File("first");
  const std::string second = directory.File("second");
  ExpectSuccess(Get(first, second));
  EXPECT_EQ(ReadFile(first), "better\n");
  EXPECT_EQ(ReadFile(second), "present");
}

TEST_F(GetRoutingTablesTest, CreatesFilesAsTheUmaskSays) {
  const std::string first = directory.File("first");
  const std::string second = directory.File("second");
  const mode_t before = umask(0027);
  ExpectSuccess(Get(first, second));
  umask(before);
  EXPECT_EQ(FileMode(first), 0640U);
  EXPECT_EQ(FileMode(second), 0640U);
}

TEST_F(GetRoutingTablesTest, OverwritesBothFilesAndKeepsTheirModes) {
  const std::string first = directory.Write("first", std::string(100, 'x'));
  const std::string second = directory.Write("second", std::string(100, 'y'));
  ASSERT_EQ(chmod(first.c_str(), 0604), 0);
  ASSERT_EQ(chmod(second.c_str(), 0640), 0);
  for (int run = 0; run < 2; ++run) {
    ExpectSuccess(Get(first, second));
    EXPECT_EQ(ReadFile(first), "better\n");
    EXPECT_EQ(ReadFile(second), "present");
  }
  EXPECT_EQ(FileMode(first), 0604U);
  EXPECT_EQ(FileMode(second), 0640U);
}

TEST_F(GetRoutingTablesTest, ReportsTheFirstFileThatCannotBeOpenedButEmptiesTheSecond) {
  const std::string second = directory.Write("second", "old");
  for (const std::string& bad : {directory.path(), directory.File("missing/first")}) {
    SCOPED_TRACE(bad);
    const Outcome outcome = Get(bad, second);
    ExpectFailure(outcome, {14, 5, "Registrator", "Failed to write file: " + bad + "\n"});
    EXPECT_EQ(ReadFile(second), "");
  }
}

TEST_F(GetRoutingTablesTest, LeavesTheFirstFileEmptyWhenTheSecondCannotBeOpened) {
  const std::string first = directory.File("first");
  for (const std::string& bad : {directory.path(), directory.File("missing/second")}) {
    SCOPED_TRACE(bad);
    ExpectFailure(Get(first, bad), {14, 5, "Registrator", "Failed to write file: " + bad + "\n"});
    EXPECT_EQ(ReadFile(first), "");
  }
}

TEST_F(GetRoutingTablesTest, ReportsTheFirstFileWhenNeitherCanBeOpened) {
  const std::string first = directory.File("missing/first");
  ExpectFailure(Get(first, directory.File("missing/second")),
                {14, 5, "Registrator", "Failed to write file: " + first + "\n"});
}

TEST_F(GetRoutingTablesTest, RefusesOneFileForBothAndLosesNothing) {
  const std::string first = directory.Write("first", "old");
  const std::string linked = directory.File("link");
  ASSERT_EQ(link(first.c_str(), linked.c_str()), 0);
  for (const std::string& other : {first, linked}) {
    SCOPED_TRACE(other);
    ExpectFailure(Get(first, other),
                  {14, 5, "Registrator", "Failed to write file: " + other + "\n"});
    EXPECT_EQ(ReadFile(first), "old");
  }
}

TEST_F(GetRoutingTablesTest, WritesBothToOneDevice) {
  ExpectSuccess(Get("/dev/null", "/dev/null"));
}

TEST_F(GetRoutingTablesTest, DoesNotExamineWhatTheDiskMakesOfTheTables) {
  const std::string other = directory.File("other");
  ExpectSuccess(Get("/dev/full", other));
  EXPECT_EQ(ReadFile(other), "present");
  ExpectSuccess(Get(other, "/dev/full"));
  EXPECT_EQ(ReadFile(other), "better\n");
}

TEST_F(GetRoutingTablesTest, TouchesNoFileWhenTheAnswerIsNoTable) {
  const std::string first = directory.Write("first", "old");
  const std::string second = directory.File("second");
  const struct {
    std::string answer;
    Thrown failure;
    std::string err;
  } kCases[] = {
      {"no table", kCallFailed, kNotParsed},
      {OneRecord("cr_recommendedrt", "S", "better"),
       {6, 5, "Record", "Missing required field: cr_currentrt"},
       ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.answer);
    ScriptedRegistrator host(Words{"--agentid", "9"});
    host.network.http.Answer(row.answer);
    ExpectFailure(Get(&host, first, second), row.failure, row.err);
    EXPECT_EQ(ReadFile(first), "old");
    EXPECT_FALSE(Exists(second));
  }
}

TEST_F(GetRoutingTablesTest, PassesFailuresOfTheRequestOn) {
  ScriptedRegistrator host(Words{"--agentid", "9"});
  host.network.http.Answer("no table");
  ExpectFailure(Get(&host, "", ""), kCallFailed, kNotParsed);
}

}  // namespace
}  // namespace corvel::storage::tzregister
