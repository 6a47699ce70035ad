#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem/exception.hpp>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "support/password.h"
#include "tests/registration/scripted_registrator.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using tzconfig::TZConfig;

/// Reads `text` into `*config`.
void Load(const std::string& text, TZConfig* config) {
  std::istringstream stream(text);
  ASSERT_EQ(tzconfig::TZConfigFile("", "").LoadConfig(&stream, config), 0);
}

std::string Dump(TZConfig* config) {
  std::ostringstream stream;
  EXPECT_EQ(tzconfig::TZConfigFile("", "").DumpConfig(&stream, config), 0);
  return stream.str();
}

/// The value of option `o` of section `s`, given as `value`, under `base`.
std::string Updated(const std::string& value, const std::string& base) {
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[s]\n# why\no=" + value + "\n", &config);
  host.registrator.UpdatePathInParam("o", "s", base, false, &config);
  std::string updated;
  std::string comment;
  EXPECT_EQ(config.GetOptionValue("s", "o", &updated, &comment), 0);
  EXPECT_EQ(comment, "\n# why");
  return updated;
}

TEST(UpdatePathInParam, PutsTheBaseInFrontOfRelativePathsAlone) {
  const struct {
    const char* value;
    const char* base;
    const char* updated;
  } kCases[] = {
      {"log", "/data", "/data/log"},
      {"log", "/data/", "/data/log"},
      {"log", "st", "st/log"},
      {"log", "", "log"},
      {"a/b/", "/data", "/data/a/b/"},
      {"./log", "/data", "/data/./log"},
      {"/tmp", "/data", "/tmp"},
      {"/", "/data", "/"},
      {"C:/keys", "/data", "C:/keys"},
      {"z:/", "/data", "z:/"},
      {"c:keys", "/data", "/data/c:keys"},
      {"C:\\keys", "/data", "/data/C:\\keys"},
      {"1:/keys", "/data", "/data/1:/keys"},
      {"CC:/keys", "/data", "/data/CC:/keys"},
      {"c", "/data", "/data/c"},
      {"c:", "/data", "/data/c:"},
      {"_:/k", "/data", "/data/_:/k"},
      {"", "/data", ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(std::string(row.value) + " under " + row.base);
    EXPECT_EQ(Updated(row.value, row.base), row.updated);
  }
}

TEST(UpdatePathInParam, AddsNoOptionThatIsMissing) {
  const TempDirectory directory;
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[s]\nempty=\nother=x\n", &config);
  for (const char* option : {"o", "empty", ""}) {
    host.registrator.UpdatePathInParam(option, "s", directory.File("new"), true, &config);
  }
  EXPECT_EQ(Dump(&config), "[s]\nempty=\nother=x\n");
  EXPECT_FALSE(Exists(directory.File("new")));
}

TEST(UpdatePathInParam, CreatesTheDirectoryWithItsParentsWhenAskedTo) {
  const TempDirectory directory;
  const ScriptedRegistrator host(Words{});
  for (const bool make : {false, true}) {
    TZConfig config;
    Load("[s]\no=a/b\n", &config);
    host.registrator.UpdatePathInParam("o", "s", directory.File("new"), make, &config);
    EXPECT_EQ(std::filesystem::is_directory(directory.File("new/a/b")), make);
    EXPECT_EQ(Dump(&config), "[s]\no=" + directory.File("new/a/b") + "\n");
  }
}

TEST(UpdatePathInParam, AcceptsADirectoryThatIsThere) {
  const TempDirectory directory;
  std::filesystem::create_directory(directory.File("log"));
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[s]\no=log\n", &config);
  EXPECT_NO_THROW(host.registrator.UpdatePathInParam("o", "s", directory.path(), true, &config));
}

TEST(UpdatePathInParam, CreatesNothingForAnAbsolutePath) {
  const TempDirectory directory;
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[s]\no=" + directory.File("log") + "\n", &config);
  host.registrator.UpdatePathInParam("o", "s", directory.File("base"), true, &config);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(UpdatePathInParam, FailsForADirectoryThatCannotBeCreated) {
  const TempDirectory directory;
  const std::string file = directory.Write("file", "");
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[s]\no=log\n", &config);
  EXPECT_THROW(host.registrator.UpdatePathInParam("o", "s", file, true, &config),
               boost::filesystem::filesystem_error);
}

TEST(SetStoragePath, RewritesThePathsOfAgentsAndAuthoritiesAndNoOther) {
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load(
      "[Paths]\nvar=a\nkeydir=b\nlog=c\ntemp=d\nsnapshots=e\nrtdir=f\npid=g\nprogressdir=h\n"
      "resourcebundles=i\nother=j\n[Logging]\nLogPath=k\nlog=l\n",
      &config);
  host.registrator.SetStoragePath("st", false, &config);
  EXPECT_EQ(Dump(&config),
            "[Paths]\nkeydir=st/b\nlog=st/c\nother=j\npid=st/g\nprogressdir=st/h\n"
            "resourcebundles=st/i\nrtdir=st/f\nsnapshots=st/e\ntemp=st/d\nvar=st/a\n"
            "[Logging]\nlog=l\nLogPath=k\n");
}

constexpr char kRouterTemplate[] =
    "[ContentRouter]\nRouteTableLocation=a\nPrevRouteTableLocation=b\nPath=c\n"
    "[Logging]\nLogPath=d\n[Spooler]\nPath=e\n"
    "[StorageDaemon]\nStorage=f\nPath=g\nProcessedPath=h\nHistoryPath=i\nTmpPath=j\nDelLogPath=k\n"
    "[SSL]\nCertFileName=l\nPrivateKeyFileName=m\n[paths]\nlog=n\n";

/// kRouterTemplate under `base`, with the daemon's path as given.
std::string RouterUnder(const std::string& base, const std::string& daemonPath) {
  return "[ContentRouter]\nPath=c\nPrevRouteTableLocation=" + base +
         "/b\nRouteTableLocation=" + base + "/a\n[Logging]\nLogPath=" + base +
         "/d\n[Spooler]\nPath=" + base + "/e\n[StorageDaemon]\nDelLogPath=" + base +
         "/k\nHistoryPath=" + base + "/i\nPath=" + daemonPath + "\nProcessedPath=" + base +
         "/h\nStorage=" + base + "/f\nTmpPath=" + base + "/j\n[SSL]\nCertFileName=" + base +
         "/l\nPrivateKeyFileName=" + base + "/m\n[paths]\nlog=n\n";
}

TEST(SetContentRouterStoragePath, RewritesThePathsOfRoutersAndNoOther) {
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load(kRouterTemplate, &config);
  host.registrator.SetContentRouterStoragePath("/data", false, &config);
  EXPECT_EQ(Dump(&config), RouterUnder("/data", "/data/g"));
}

TEST(SetContentRouterStoragePath, PutsARelativeBaseTwiceInFrontOfTheDaemonsPath) {
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load(kRouterTemplate, &config);
  host.registrator.SetContentRouterStoragePath("st", false, &config);
  EXPECT_EQ(Dump(&config), RouterUnder("st", "st/st/g"));
}

// Which directories are made tells in which order the rows are visited: the
// last that can be made stands before the first that cannot.
TEST(StoragePaths, AreVisitedInTheirOrderAndMadeOnRequest) {
  const TempDirectory directory;
  directory.Write("file", "");
  const ScriptedRegistrator host(Words{});
  TZConfig config;
  Load("[paths]\nvar=var\nkeydir=keydir\nlog=file/log\ntemp=temp\n", &config);
  EXPECT_THROW(host.registrator.SetStoragePath(directory.path(), true, &config),
               boost::filesystem::filesystem_error);
  EXPECT_TRUE(Exists(directory.File("var")));
  EXPECT_TRUE(Exists(directory.File("keydir")));
  EXPECT_FALSE(Exists(directory.File("temp")));
  TZConfig router;
  Load("[Logging]\nLogPath=logs\n[Spooler]\nPath=file/x\n[SSL]\nCertFileName=c\n", &router);
  EXPECT_THROW(host.registrator.SetContentRouterStoragePath(directory.path(), true, &router),
               boost::filesystem::filesystem_error);
  EXPECT_TRUE(Exists(directory.File("logs")));
  EXPECT_FALSE(Exists(directory.File("c")));
}

/// A template's rewriting: the text that came out, and how it ended.
struct Rewriting {
  std::string text;
  Outcome outcome;
};

struct Account {
  std::string login;
  std::string password;
};

Rewriting Rewrite(const Words& arguments, const std::string& text, const Account& account = {},
                  const std::string& storage = "/data",
                  Registrator::configfiletemplate_t id = Registrator::TEMPLATE_AGENT) {
  const ScriptedRegistrator host(arguments);
  std::istringstream in(text);
  std::ostringstream out;
  Rewriting done;
  done.outcome = OutcomeOf([&] {
    host.registrator.ReplacePathsInConfigFile(&in, &out, id, storage, account.login,
                                              account.password);
  });
  done.text = out.str();
  return done;
}

void ExpectText(const Rewriting& done, const std::string& text) {
  ExpectSuccess(done.outcome);
  EXPECT_EQ(done.text, text);
}

TEST(ReplacePathsInConfigFile, KeepsSectionOrderAndCommentsAndSortsOptions) {
  ExpectText(Rewrite({}, "# head\n[z]\nB=1\na=2\n\n[paths]\ntemp=/tmp\n; logs\nlog=log\n"),
             "\n# head\n[z]\na=2\nB=1\n[paths]\n\n; logs\nlog=/data/log\ntemp=/tmp\n");
}

TEST(ReplacePathsInConfigFile, RewritesTheRoutersTemplateAloneAsARouters) {
  const std::string text = "[paths]\nlog=a\n[Logging]\nLogPath=b\n";
  for (const auto id : {Registrator::TEMPLATE_AGENT, Registrator::TEMPLATE_SERVER_AGENT,
                        Registrator::TEMPLATE_STORAGE_POOL_AUTHORITY}) {
    ExpectText(Rewrite({}, text, {}, "/data", id), "[paths]\nlog=/data/a\n[Logging]\nLogPath=b\n");
  }
  const Rewriting router = Rewrite({}, text, {}, "/data", Registrator::TEMPLATE_CONTENT_ROUTER);
  ExpectText(router,
             "[paths]\nlog=a\n[Logging]\nLogPath=/data/b\n"
             "[ContentRouter]\n[Spooler]\n[StorageDaemon]\n[SSL]\n");
}

TEST(ReplacePathsInConfigFile, CreatesDirectoriesWithMkdirAlone) {
  const TempDirectory directory;
  const std::string storage = directory.File("s");
  const std::string absolute = directory.File("absolute");
  const std::string text = "[paths]\nlog=log\ntemp=" + absolute + "\n";
  ExpectSuccess(Rewrite({}, text, {}, storage).outcome);
  EXPECT_FALSE(Exists(storage));
  ExpectSuccess(Rewrite({"--mkdir"}, text, {}, storage).outcome);
  EXPECT_TRUE(std::filesystem::is_directory(storage + "/log"));
  EXPECT_FALSE(Exists(absolute));
  ExpectSuccess(Rewrite({"--mkdir"}, "[ContentRouter]\nRouteTableLocation=rt\n", {}, storage,
                        Registrator::TEMPLATE_CONTENT_ROUTER)
                    .outcome);
  EXPECT_TRUE(std::filesystem::is_directory(storage + "/rt"));
}

TEST(ReplacePathsInConfigFile, CreatesTheDirectoriesOfKeysForTheirOwnerAlone) {
  const TempDirectory directory;
  const std::string storage = directory.File("s");
  const mode_t before = umask(0);
  const Rewriting agent = Rewrite({"--mkdir"}, "[Paths]\nKeyDir=keys\nlog=log\n", {}, storage);
  const Rewriting router =
      Rewrite({"--mkdir"}, "[SSL]\nCertFileName=cert\nPrivateKeyFileName=key\n", {}, storage,
              Registrator::TEMPLATE_CONTENT_ROUTER);
  umask(before);
  EXPECT_EQ(agent.outcome.failure, kNothingThrown);
  EXPECT_EQ(router.outcome.failure, kNothingThrown);
  for (const char* open : {"", "/log", "/cert"}) EXPECT_EQ(FileMode(storage + open), 0755U) << open;
  for (const char* closed : {"/keys", "/key"})
    EXPECT_EQ(FileMode(storage + closed), 0700U) << closed;
}

TEST(ReplacePathsInConfigFile, RefusesAMissingStream) {
  const ScriptedRegistrator host(Words{});
  std::istringstream in("broken");
  std::ostringstream out;
  const auto call = [&](std::istream* from, std::ostream* to) {
    return OutcomeOf([&] {
      host.registrator.ReplacePathsInConfigFile(from, to, Registrator::TEMPLATE_AGENT, "/data", "",
                                                "");
    });
  };
  for (const Outcome& outcome : {call(nullptr, &out), call(&in, nullptr)}) {
    ExpectFailure(outcome, {6, 5, "Registrator", "in, out or storagepath is NULL"});
  }
}

TEST(ReplacePathsInConfigFile, RefusesATemplateThatDoesNotParse) {
  const struct {
    const char* text;
    const char* notice;
  } kCases[] = {
      {"log=x\n", "Found an invalid line: log=x\n"},
      {"[paths]\n=x\n", "Found an invalid key: =x\n"},
      {"[paths] x\n", "Found invalid line: [paths] x\n"},
      {"[paths\n", ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    const Rewriting done = Rewrite({}, row.text);
    ExpectFailure(done.outcome, {16, 7, "Registrator", "Failed to load from input stream "},
                  row.notice);
    EXPECT_EQ(done.text, "");
  }
}

TEST(ReplacePathsInConfigFile, FailsForStreamsThatAreNotGood) {
  const ScriptedRegistrator host(Words{});
  std::istringstream bad("");
  std::istringstream good("[a]\n");
  std::ostringstream out;
  const auto call = [&](std::istream* in) {
    return OutcomeOf([&] {
      host.registrator.ReplacePathsInConfigFile(in, &out, Registrator::TEMPLATE_AGENT, "/data", "",
                                                "");
    });
  };
  bad.setstate(std::ios::badbit);
  const Outcome unread = call(&bad);
  ExpectFailure(unread, {16, 7, "Registrator", "Failed to load from input stream "},
                "Failed to open input file:\n");
  out.setstate(std::ios::badbit);
  const Outcome unwritten = call(&good);
  ExpectFailure(unwritten, {16, 7, "Registrator", "Failed to dump to output stream "},
                "Failed to open file: \n");
}

constexpr char kAccountTemplate[] = "[systemaccount]\n# who\nlogin=l\npasswd=p\n[paths]\nlog=/l\n";
constexpr char kAccountUnchanged[] =
    "[systemaccount]\n\n# who\nlogin=l\npasswd=p\n[paths]\nlog=/l\n";

TEST(ReplacePathsInConfigFile, MasksTheAccountOfAWrxAgentWhateverIsGiven) {
  for (const Account& account : {Account{"", ""}, Account{"sys", "syspw"}}) {
    ExpectText(Rewrite({"--agentType", "2"}, kAccountTemplate, account),
               "[systemaccount]\n\n# who\nlogin=TWLX_AGENT\npasswd=**********\n[paths]\nlog=/l\n");
  }
}

TEST(ReplacePathsInConfigFile, AddsTheAccountSectionLastWhenTheTemplateHasNone) {
  ExpectText(Rewrite({"--agentType", "2"}, "[a]\n"),
             "[a]\n[paths]\n[systemaccount]\nlogin=TWLX_AGENT\npasswd=**********\n");
}

TEST(ReplacePathsInConfigFile, LeavesTheAccountOfTheTemplateInEveryOtherCase) {
  const Account full{"sys", "syspw"};
  const struct {
    Words arguments;
    Account account;
  } kCases[] = {
      {{}, full},
      {{"--agentType", "1"}, full},
      {{"--agentType", "3"}, full},
      {{"--agentType", "4294967296"}, full},
      {{"--agentType", "0"}, {"", ""}},
      {{"--agentType", "0"}, {"sys", ""}},
      {{"--agentType", "0"}, {"", "syspw"}},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(::testing::PrintToString(row.arguments) + row.account.login);
    ExpectText(Rewrite(row.arguments, kAccountTemplate, row.account), kAccountUnchanged);
  }
}

/// A host with a key file in the directory "keys".
class SystemAccountTest : public ::testing::Test {
 protected:
  /// Rewrites `text` for an agent whose storage path is the directory.
  Rewriting RewriteHere(const std::string& text, const Account& account) const {
    return Rewrite({"--agentType", "0"}, text, account, directory.path());
  }

  TempDirectory directory;
  std::string keyFile = directory.Write("keys/auth.key", "key material");
};

/// The value behind `name` in `text`.
std::string ValueIn(const std::string& text, const std::string& name) {
  const std::size_t start = text.find("\n" + name + "=") + name.size() + 2;
  return text.substr(start, text.find('\n', start) - start);
}

TEST_F(SystemAccountTest, StoresThePasswordEncryptedWithTheKeyOfTheRewrittenDirectory) {
  const Rewriting done =
      RewriteHere("[systemaccount]\n# who\nlogin=l\n# what\npasswd=p\n[paths]\nkeydir=keys\n",
                  {"sys", "syspw"});
  const std::string sealed = ValueIn(done.text, "passwd");
  ExpectText(done, "[systemaccount]\n\n# who\nlogin=sys\n\n# what\npasswd=" + sealed +
                       "\n[paths]\nkeydir=" + directory.File("keys") + "\n");
  char plain[16] = {};
  EXPECT_EQ(DecryptPasswdWithKey(keyFile.c_str(), sealed.c_str(), plain, sizeof(plain)), 0);
  EXPECT_STREQ(plain, "syspw");
}

TEST_F(SystemAccountTest, NeedsAKeyDirectory) {
  const Rewriting done = RewriteHere("[paths]\nlog=l\n", {"sys", "syspw"});
  ExpectFailure(done.outcome, {16, 7, "Registrator", "Failed to load keydir from file\n"});
  EXPECT_EQ(done.text, "");
}

TEST_F(SystemAccountTest, FailsWhenThePasswordCannotBeEncrypted) {
  directory.Write("empty/auth.key", "");
  const struct {
    std::string keydir;
    std::string password;
  } kCases[] = {{"absent", "syspw"}, {"empty", "syspw"}, {"keys", std::string(1000, 'x')}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.keydir);
    const Rewriting done =
        RewriteHere("[paths]\nkeydir=" + row.keydir + "\n", {"sys", row.password});
    ExpectFailure(done.outcome, {16, 7, "Registrator", "Failed to encrypt password from file\n"});
    EXPECT_EQ(done.text, "");
  }
}

TEST_F(SystemAccountTest, MakesDirectoriesBeforeItLooksForTheKey) {
  const Rewriting done = Rewrite({"--agentType", "0", "--mkdir"}, "[paths]\nkeydir=fresh\n",
                                 {"sys", "syspw"}, directory.path());
  ExpectFailure(done.outcome, {16, 7, "Registrator", "Failed to encrypt password from file\n"});
  EXPECT_TRUE(Exists(directory.File("fresh")));
}

}  // namespace
}  // namespace corvel::storage::tzregister
