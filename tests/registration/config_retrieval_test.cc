#include "registration/config_retrieval.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/password.h"
#include "tests/registration/scripted_registrator.h"
#include "tests/testing/authority_answers.h"
#include "tests/testing/fake_registry_host.h"
#include "tests/testing/file_size_limit.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr char kTemplate[] = "[paths]\\nlog=logs\\n[Logging]\\nLogPath=lp\\n";
const Thrown kNoUrl{18, 5, "TZRegister", "url must exist in parameter"};
constexpr char kPrinted[] = "\n##Configfile written to \n";

/// The template rewritten for an agent or an authority under `storage`.
std::string PathsUnder(const std::string& storage) {
  return "[paths]\nlog=" + storage + "/logs\n[Logging]\nLogPath=lp\n";
}

/// The operation of the class, whose authority answers with the template.
class RegistratorGetConfigFileTest : public ::testing::Test {
 protected:
  RegistratorGetConfigFileTest() { host.network.http.Answer(TemplateAnswer(kTemplate)); }

  Outcome Get(const std::string& type, bool server, const std::string& path) {
    return OutcomeOf(
        [&] { host.registrator.GetConfigFile(type, -5, server, "/data", path, "", ""); });
  }

  TempDirectory directory;
  ScriptedRegistrator host{AccountWith({})};
};

TEST_F(RegistratorGetConfigFileTest, PrintsTheTextAndANewlineWhenNoFileIsNamed) {
  ExpectSuccess(Get("Agent", false, ""), PathsUnder("/data") + kPrinted);
  ASSERT_EQ(host.requests().size(), 1U);
  EXPECT_EQ(host.requests()[0].url, "http://spa/ws_configfile.php");
  EXPECT_THAT(host.requests()[0].form, ElementsAre(Pair("action", "create"), Pair("agentid", "-5"),
                                                   Pair("configfiletemplateid", "1"),
                                                   Pair("login", "me"), Pair("passwd", "pw")));
}

TEST_F(RegistratorGetConfigFileTest, WritesTheTextAloneToTheNamedFile) {
  const std::string file = directory.File("agent.cfg");
  ExpectSuccess(Get("Agent", false, file), "##Configfile written to " + file + "\n");
  EXPECT_EQ(ReadFile(file), PathsUnder("/data"));
}

TEST(RegistratorGetConfigFile, ChoosesTemplateAndRewritingByTypeAndServer) {
  const std::string router =
      "[paths]\nlog=logs\n[Logging]\nLogPath=/data/lp\n"
      "[ContentRouter]\n[Spooler]\n[StorageDaemon]\n[SSL]\n";
  const struct {
    const char* type;
    bool server;
    const char* id;
    std::string rewritten;
  } kCases[] = {
      {"Agent", false, "1", PathsUnder("/data")},
      {"Agent", true, "2", PathsUnder("/data")},
      {"ContentRouter", false, "3", router},
      {"ContentRouter", true, "3", router},
      {"StoragePoolAuthority", false, "6", PathsUnder("/data")},
      {"StoragePoolAuthority", true, "6", PathsUnder("/data")},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.type);
    ScriptedRegistrator host(AccountWith({}));
    host.network.http.Answer(TemplateAnswer(kTemplate));
    const Outcome outcome = OutcomeOf(
        [&] { host.registrator.GetConfigFile(row.type, 1, row.server, "/data", "", "", ""); });
    EXPECT_EQ(FormValue(host.requests().at(0), "configfiletemplateid"), row.id);
    ExpectSuccess(outcome, row.rewritten + kPrinted);
  }
}

TEST_F(RegistratorGetConfigFileTest, RefusesTypesWithoutATemplateBeforeItAsks) {
  for (const std::string type :
       {"MetabaseEngine", "MetabaseServer", "Controller", "qxwfe", "storagepool"}) {
    ExpectFailure(Get(type, true, ""),
                  {16, 7, "Registrator",
                   "Failed to define configfile template ID for component type " + type});
  }
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST_F(RegistratorGetConfigFileTest, RefusesUnknownTypesBeforeItAsks) {
  for (const std::string type : {"agent", "Agent ", ""}) {
    ExpectFailure(Get(type, false, ""), UnknownType(type));
  }
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST_F(RegistratorGetConfigFileTest, CreatesTheFileForItsOwnerAlone) {
  for (const mode_t mask : {0000U, 0277U}) {
    SCOPED_TRACE(mask);
    const std::string file = directory.File("agent" + std::to_string(mask));
    host.network.http.Answer(TemplateAnswer(kTemplate));
    const mode_t before = umask(mask);
    const Outcome outcome = Get("Agent", false, file);
    umask(before);
    ExpectSuccess(outcome, "##Configfile written to " + file + "\n");
    EXPECT_EQ(FileMode(file), 0600U & ~mask);
  }
}

/// A template that says one thing so many times.
std::string RepeatedOption(int count) {
  std::string text = "[a]\\n";
  for (int line = 0; line < count; ++line) text += "k=v\\n";
  return text;
}

TEST_F(RegistratorGetConfigFileTest, TakesAMillionLinesOfATemplateAndRefusesThree) {
  const std::string file = directory.Write("agent.cfg", "old");
  host.network.http.script.clear();
  host.network.http.Answer(TemplateAnswer(RepeatedOption(3'000'000)));
  host.network.http.Answer(TemplateAnswer(RepeatedOption(1'000'000)));
  ExpectFailure(Get("Agent", false, file),
                {16, 7, "Registrator", "Failed to load from input stream "});
  EXPECT_EQ(ReadFile(file), "old");
  ExpectSuccess(Get("Agent", false, file), "##Configfile written to " + file + "\n");
  EXPECT_EQ(ReadFile(file), "[a]\nk=v\n[paths]\n");
}

TEST_F(RegistratorGetConfigFileTest, OverwritesAnExistingFileAndKeepsItsMode) {
  const std::string file = directory.Write("agent.cfg", std::string(500, 'x'));
  ASSERT_EQ(chmod(file.c_str(), 0644), 0);
  ExpectSuccess(Get("Agent", false, file), "##Configfile written to " + file + "\n");
  EXPECT_EQ(ReadFile(file), PathsUnder("/data"));
  EXPECT_EQ(FileMode(file), 0644U);
}

TEST_F(RegistratorGetConfigFileTest, FailsForAFileThatCannotBeWritten) {
  for (const std::string& file :
       {directory.path(), directory.File("missing/agent.cfg"), std::string("/dev/full")}) {
    SCOPED_TRACE(file);
    host.network.http.Answer(TemplateAnswer(kTemplate));
    ExpectFailure(Get("Agent", false, file),
                  {14, 5, "Registrator", "Failed to write configuration file: " + file + "\n"});
  }
  EXPECT_EQ(host.requests().size(), 3U);
}

TEST_F(RegistratorGetConfigFileTest, FailsForADiskThatTakesAPartOfTheFile) {
  const std::string file = directory.File("agent.cfg");
  const auto size = static_cast<rlim_t>(PathsUnder("/data").size());
  for (const rlim_t room : {rlim_t{10}, size - 1}) {
    host.network.http.Answer(TemplateAnswer(kTemplate));
    Outcome outcome;
    {
      const FileSizeLimit limit(room);
      outcome = Get("Agent", false, file);
    }
    ExpectFailure(outcome,
                  {14, 5, "Registrator", "Failed to write configuration file: " + file + "\n"});
  }
}

TEST_F(RegistratorGetConfigFileTest, TouchesNoFileWhenTheRequestOrTheRewritingFails) {
  const std::string file = directory.Write("agent.cfg", "old");
  host.network.http.script.clear();
  host.network.http.Answer("***ERROR***\n4\ndescription: no such agent***DONE***\n");
  host.network.http.Answer(TemplateAnswer("stray line\\n"));
  ExpectFailure(
      Get("Agent", false, file), kCallFailed,
      "The webservice returned an error :no such agent\nServer's HTTP response code was 0\n");
  ExpectFailure(Get("Agent", false, file),
                {16, 7, "Registrator", "Failed to load from input stream "},
                "Found an invalid line: stray line\n");
  EXPECT_EQ(ReadFile(file), "old");
}

/// The operation that goes by the command line, on a host that has two products.
class GetConfigFileTest : public ::testing::Test {
 protected:
  GetConfigFileTest() {
    host.registryFile =
        directory.Write("qxregistry.cfg", "[Agent]\nconfigfilepath=" + directory.File("agent.cfg") +
                                              "\npath=/opt/agent\n[Other]\nconfigfilepath=" +
                                              directory.File("other.cfg") + "\npath=/opt/other\n");
  }

  Outcome Get(const Words& arguments, const std::string& login = "",
              const std::string& password = "") {
    ScriptedRegistrator asked(arguments);
    asked.network.http.Answer(TemplateAnswer(answer));
    const support::ParsedOptions options(asked.options);
    const Outcome outcome =
        OutcomeOf([&] { GetConfigFile(options, asked.registrator, 42, login, password, host); });
    requests = asked.requests();
    return outcome;
  }

  TempDirectory directory;
  FakeRegistryHost host;
  std::string answer = kTemplate;
  std::vector<SentRequest> requests;
};

TEST_F(GetConfigFileTest, UsesTheInstallationOfTheNamedProductOrTheAgents) {
  const Words agent = AccountWith({"--type", "Agent"});
  ExpectSuccess(Get(agent), PathsUnder("/opt/agent") + kPrinted);
  EXPECT_EQ(FormValue(requests.at(0), "agentid"), "42");
  EXPECT_EQ(FormValue(requests.at(0), "configfiletemplateid"), "1");
  ExpectSuccess(Get(With(agent, {"--productname", "Other"})), PathsUnder("/opt/other") + kPrinted);
}

TEST_F(GetConfigFileTest, WritesToDiskWhereTheRegistrySays) {
  const Words agent = AccountWith({"--type", "Agent", "--todisk"});
  ExpectSuccess(Get(agent), "##Configfile written to " + directory.File("agent.cfg") + "\n");
  EXPECT_EQ(ReadFile(directory.File("agent.cfg")), PathsUnder("/opt/agent"));
  ExpectSuccess(Get(With(agent, {"--productname", "Other"})),
                "##Configfile written to " + directory.File("other.cfg") + "\n");
  EXPECT_EQ(ReadFile(directory.File("other.cfg")), PathsUnder("/opt/other"));
}

TEST_F(GetConfigFileTest, WritesToTheGivenFileOnlyWithToDisk) {
  const std::string file = directory.File("given.cfg");
  const Words agent = AccountWith({"--type", "Agent", "--file", file});
  ExpectSuccess(Get(agent), PathsUnder("/opt/agent") + kPrinted);
  EXPECT_FALSE(Exists(file));
  ExpectSuccess(Get(With(agent, {"--todisk"})), "##Configfile written to " + file + "\n");
  EXPECT_EQ(ReadFile(file), PathsUnder("/opt/agent"));
  EXPECT_FALSE(Exists(directory.File("agent.cfg")));
}

TEST_F(GetConfigFileTest, DemandsAStoragePathForRoutersAndServerAgents) {
  for (const Words& component :
       {Words{"--type", "ContentRouter"}, Words{"--type", "Agent", "--server"}}) {
    SCOPED_TRACE(::testing::PrintToString(component));
    const Words arguments = AccountWith(component);
    ExpectFailure(Get(arguments), {18, 5, "TZRegister", "Could not find storage in parameter"});
    EXPECT_THAT(requests, IsEmpty());
    const Outcome outcome = Get(With(arguments, {"--storage", "/stored"}));
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.out, HasSubstr("=/stored/"));
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(GetConfigFileTest, PassesTheServerOptionOn) {
  ExpectSuccess(Get(AccountWith({"--type", "Agent", "--server", "--storage", "/s"})),
                PathsUnder("/s") + kPrinted);
  EXPECT_EQ(FormValue(requests.at(0), "configfiletemplateid"), "2");
}

TEST_F(GetConfigFileTest, DoesNotLookAtTheStoragePathOfOtherComponents) {
  for (const Words& component : {Words{"--type", "Agent"}, Words{"--type", "StoragePoolAuthority"},
                                 Words{"--type", "StoragePoolAuthority", "--server"}}) {
    SCOPED_TRACE(::testing::PrintToString(component));
    ExpectSuccess(Get(AccountWith(With(component, {"--storage", "/ignored"}))),
                  PathsUnder("/opt/agent") + kPrinted);
  }
}

TEST_F(GetConfigFileTest, NeedsUrlThenTypeThenStorage) {
  ExpectFailure(Get({"--server"}), kNoUrl);
  ExpectFailure(Get({"--type", "ContentRouter"}), kNoUrl);
  ExpectFailure(Get({"--url", "u", "--server"}),
                {18, 5, "TZRegister", "Could not find type in parameter"});
  ExpectFailure(Get({"--url", "u", "--type", "ContentRouter"}),
                {18, 5, "TZRegister", "Could not find storage in parameter"});
  EXPECT_THAT(requests, IsEmpty());
}

TEST_F(GetConfigFileTest, LeavesTheCheckOfTheTypeToTheOperation) {
  ExpectFailure(Get(AccountWith({"--type", "agent", "--server"})), UnknownType("agent"));
  ExpectFailure(Get(AccountWith({"--type", "Controller"})),
                {16, 7, "Registrator",
                 "Failed to define configfile template ID for component type "
                 "Controller"});
}

TEST_F(GetConfigFileTest, AsksTheRegistryBeforeItLooksAtAnyOption) {
  host.registryFile = directory.File("missing.cfg");
  host.installed = false;
  host.executable = "/opt/x/bin/tool";
  const Outcome outcome = Get({});
  EXPECT_EQ(outcome.failure, kNoUrl);
  EXPECT_EQ(outcome.out,
            "can't acccess /usr/zenta/vrmo/qxag, use the path of current executable app /opt/x\n");
  EXPECT_EQ(outcome.err, "Failed to open input file:" + host.registryFile + "\n" +
                             host.registryFile + " doesn't exist, use the default values\n");
}

TEST_F(GetConfigFileTest, FailsForAProductThatIsNotInstalledBeforeItLooksAtAnyOption) {
  ExpectFailure(Get({"--productname", "Absent"}),
                {18, 5, "TZRegister", "Could not open TZRegister"});
}

TEST_F(GetConfigFileTest, PassesTheAccountOn) {
  directory.Write("auth.key", "key material");
  answer = "[systemaccount]\\nlogin=l\\npasswd=p\\n[paths]\\nkeydir=" + directory.path() + "\\n";
  const Words arguments = AccountWith({"--type", "Agent", "--agentType", "0"});
  const Outcome outcome = Get(arguments, "sys", "syspw");
  EXPECT_THAT(outcome.out, HasSubstr("login=sys\n"));
  const std::size_t start = outcome.out.find("passwd=") + 7;
  const std::string sealed = outcome.out.substr(start, outcome.out.find('\n', start) - start);
  char plain[16] = {};
  EXPECT_EQ(DecryptPasswdWithKey(directory.File("auth.key").c_str(), sealed.c_str(), plain,
                                 sizeof(plain)),
            0);
  EXPECT_STREQ(plain, "syspw");
}

}  // namespace
}  // namespace corvel::storage::tzregister
