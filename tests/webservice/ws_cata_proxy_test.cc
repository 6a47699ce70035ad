#include "webservice/ws_cata_proxy.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/testing/authority_answers.h"
#include "tests/testing/command_line.h"
#include "tests/testing/disguised_secret.h"
#include "tests/testing/fake_network.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Key;
using ::testing::Not;
using ::testing::Pair;

const Thrown kMissing{16, 7, "WSCataProxy",
                      "Required parameter url or login or passwd not present, or missing ws"};
const Thrown kBadFile{16, 7, "WSCataProxy", "Required parameter passwdfile not valid"};

/// A proxy over `arguments`, and a request that it is to set up.
struct Preparation {
  explicit Preparation(const std::vector<std::string>& arguments)
      : proxy(Options(arguments), Network()) {}

  Outcome Prepare() {
    return OutcomeOf([&] { proxy.PPrepareWebService(&ws, "ws_page.php"); });
  }

  Outcome PrepareAgent() {
    return OutcomeOf([&] { proxy.PPrepareAgentWebService(&ws, "act", 99); });
  }

  WSCataProxy proxy;
  WebService ws{Network()};
};

TEST(PPrepareWebService, TakesAddressAndCredentialsFromTheOptions) {
  Preparation call({"--url", "https://spa:8443/base", "--login", "joe", "--passwd", "pw"});
  ExpectSuccess(call.Prepare());
  EXPECT_EQ(call.ws.url, "https://spa:8443/base/ws_page.php");
  EXPECT_THAT(call.ws.fields, ElementsAre(Pair("login", "joe"), Pair("passwd", "pw")));
}

TEST(PPrepareWebService, AddsTheKeyDirectoryOption) {
  Preparation call({"--url", "http://s", "--login", "joe", "--passwd", "pw", "--keydir", "/k"});
  ExpectSuccess(call.Prepare());
  EXPECT_THAT(call.ws.fields,
              ElementsAre(Pair("keydir", "/k"), Pair("login", "joe"), Pair("passwd", "pw")));
}

TEST(PPrepareWebService, AppendsThePageUnlessTheAddressIsTheChannels) {
  const std::map<std::string, std::string> addresses = {{"http://s", "http://s/ws_page.php"},
                                                        {"http://s/", "http://s//ws_page.php"},
                                                        {"s", "s/ws_page.php"},
                                                        {"vrmo://h:1/p", "vrmo://h:1/p"},
                                                        {"vrmo", "vrmo"},
                                                        {"vrmox", "vrmox"},
                                                        {"vrm", "vrm/ws_page.php"},
                                                        {"VRMO://h", "VRMO://h/ws_page.php"},
                                                        {"x vrmo://h", "x vrmo://h/ws_page.php"}};
  for (const auto& [address, url] : addresses) {
    SCOPED_TRACE(address);
    Preparation call({"--url", address, "--login", "joe", "--passwd", "pw"});
    ExpectSuccess(call.Prepare());
    EXPECT_EQ(call.ws.url, url);
    Preparation stored({});
    stored.proxy.StoreCredentials(address, "l", support::Secret("p"), "k");
    ExpectSuccess(stored.Prepare());
    EXPECT_EQ(stored.ws.url, url);
  }
}

TEST(PPrepareWebService, RefusesAMissingRequestBeforeItReadsAnything) {
  const WSCataProxy proxy(Options({"--passwdfile", "/nonexistent/passwd"}), Network());
  ExpectFailure(OutcomeOf([&] { proxy.PPrepareWebService(nullptr, "ws_page.php"); }),
                {16, 7, "WSCataProxy", "missing ws"});
}

TEST(PPrepareWebService, RefusesMissingOptions) {
  const TempDirectory directory;
  const std::string file = directory.Write("passwd", "passwd=pw\n");
  const std::vector<std::vector<std::string>> cases = {{},
                                                       {"--url", "http://s"},
                                                       {"--login", "joe", "--passwd", "pw"},
                                                       {"--url", "http://s", "--passwd", "pw"},
                                                       {"--url", "http://s", "--passwdfile", file},
                                                       {"--url", "http://s", "--login", "joe"},
                                                       {"--login", "joe", "--passwdfile", file}};
  for (const auto& arguments : cases) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    Preparation call(arguments);
    ExpectFailure(call.Prepare(), kMissing);
  }
}

/// The password that a password file of `content` gives.
std::string PasswordOf(const std::string& content) {
  const TempDirectory directory;
  Preparation call(
      {"--url", "http://s", "--login", "joe", "--passwdfile", directory.Write("passwd", content)});
  ExpectSuccess(call.Prepare());
  return call.ws.fields["passwd"];
}

TEST(PasswordFile, GivesWhatFollowsTheFirstMarkOfTheFirstLineWithOne) {
  const std::map<std::string, std::string> files = {
      {"passwd=abc\n", "abc"},
      {"passwd=abc", "abc"},
      {"# account\npasswd=abc\n", "abc"},
      {"xpasswd=abc\n", "abc"},
      {"passwd= a b \t\n", " a b \t"},
      {"passwd=abc\r\n", "abc\r"},
      {"passwd=apasswd=b\n", "apasswd=b"},
      {"passwd=a\npasswd=b\n", "a"},
      {"passwd\npasswd =no\nPASSWD=no\npasswd==\n", "="},
  };
  for (const auto& [content, password] : files) {
    SCOPED_TRACE(content);
    EXPECT_EQ(PasswordOf(content), password);
  }
}

TEST(PasswordFile, IsRefusedWhenItHoldsNoPassword) {
  const TempDirectory directory;
  const struct {
    std::string path;
    const char* message;
  } cases[] = {{directory.File("none"), "Failed to open SPA passwd file.\n"},
               {"", "Failed to open SPA passwd file.\n"},
               {directory.Write("empty", ""), "Could not find a SPA passwd from file.\n"},
               {directory.Write("other", "password=x\npasswd\n"),
                "Could not find a SPA passwd from file.\n"},
               {directory.Write("start", "asswd=x\n"), "Could not find a SPA passwd from file.\n"},
               {directory.path(), "Could not find a SPA passwd from file.\n"},
               {directory.Write("bare", "passwd=\npasswd=x\n"), "Empty SPA passwd from file.\n"},
               {directory.Write("end", "passwd="), "Empty SPA passwd from file.\n"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.path);
    Preparation call({"--url", "http://s", "--login", "joe", "--passwdfile", one.path});
    ExpectFailure(call.Prepare(), kBadFile, one.message);
  }
}

TEST(PasswordFile, IsReadBeforeTheOtherOptionsAreMissed) {
  Preparation call({"--passwdfile", "/nonexistent/passwd"});
  ExpectFailure(call.Prepare(), kBadFile, "Failed to open SPA passwd file.\n");
}

TEST(PasswordFile, IsNotReadBesideAPassword) {
  Preparation call({"--url", "http://s", "--login", "joe", "--passwd", "pw", "--passwdfile",
                    "/nonexistent/passwd"});
  ExpectSuccess(call.Prepare());
  EXPECT_EQ(call.ws.fields["passwd"], "pw");
}

TEST(PasswordFile, LeavesNoCopyOfThePasswordButTheRequests) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret secret(length);
    const TempDirectory directory;
    WriteSecretFile(directory.File("passwd"), "# mine\nxpasswd=", secret, "\n");
    Preparation call(
        {"--url", "http://s", "--login", "joe", "--passwdfile", directory.File("passwd")});
    call.proxy.PPrepareWebService(&call.ws, "ws_page.php");
    EXPECT_TRUE(secret.Is(call.ws.fields["passwd"]));
    EXPECT_EQ(secret.Copies(), 1U);
  }
}

TEST(PasswordFile, IsSearchedAcrossAnyBlockOfItsReading) {
  const TempDirectory directory;
  for (const std::size_t before : {4089u, 4090u, 4095u, 4096u, 4097u, 100000u}) {
    SCOPED_TRACE(before);
    Preparation call({"--url", "http://s", "--login", "joe", "--passwdfile",
                      directory.Write("passwd", std::string(before, 'p') + "passwpasswd=pw\n")});
    ExpectSuccess(call.Prepare());
    EXPECT_EQ(call.ws.fields["passwd"], "pw");
  }
}

// With stored credentials.

/// The login, password and key directory sent by a proxy that has stored ones.
std::string StoredAccount(const std::vector<std::string>& arguments) {
  Preparation call(arguments);
  call.proxy.StoreCredentials("http://stored", "stored-login", support::Secret("stored-pw"),
                              "/stored");
  ExpectSuccess(call.Prepare());
  EXPECT_EQ(call.ws.url, "http://stored/ws_page.php");
  EXPECT_EQ(call.ws.fields.size(), 3u);
  return call.ws.fields["login"] + " " + call.ws.fields["passwd"] + " " + call.ws.fields["keydir"];
}

TEST(StoredCredentials, AreUsedUnlessAnOptionTakesTheirPlace) {
  const TempDirectory directory;
  const std::string file = directory.Write("passwd", "passwd=file-pw\n");
  EXPECT_EQ(StoredAccount({}), "stored-login stored-pw /stored");
  EXPECT_EQ(StoredAccount({"--login", "joe"}), "joe stored-pw /stored");
  EXPECT_EQ(StoredAccount({"--passwd", "pw"}), "stored-login pw /stored");
  EXPECT_EQ(StoredAccount({"--passwdfile", file}), "stored-login file-pw /stored");
  EXPECT_EQ(StoredAccount({"--passwd", "pw", "--passwdfile", file}), "stored-login pw /stored");
  EXPECT_EQ(StoredAccount({"--url", "http://option", "--login", "joe", "--passwd", "pw"}),
            "joe pw /stored");
}

TEST(StoredCredentials, KeepTheirKeyDirectoryAgainstTheOption) {
  EXPECT_EQ(StoredAccount({"--keydir", "/option"}), "stored-login stored-pw /stored");
  Preparation call({"--keydir", "/option"});
  call.proxy.StoreCredentials("http://stored", "l", support::Secret("p"), "");
  ExpectSuccess(call.Prepare());
  EXPECT_THAT(call.ws.fields, Contains(Pair("keydir", "")));
}

TEST(StoredCredentials, StillRefuseABadPasswordFile) {
  Preparation call({"--passwdfile", "/nonexistent/passwd"});
  call.proxy.StoreCredentials("http://stored", "l", support::Secret("p"), "k");
  ExpectFailure(call.Prepare(), kBadFile, "Failed to open SPA passwd file.\n");
}

TEST(StoredCredentials, CountAsNoneWithoutAUrl) {
  Preparation call({"--url", "http://s", "--login", "joe"});
  call.proxy.StoreCredentials("", "l", support::Secret("p"), "k");
  ExpectFailure(call.Prepare(), kMissing);
  Preparation whole({"--url", "http://s", "--login", "joe", "--passwd", "pw"});
  whole.proxy.StoreCredentials("", "l", support::Secret("p"), "k");
  ExpectSuccess(whole.Prepare());
  EXPECT_THAT(whole.ws.fields, ElementsAre(Pair("login", "joe"), Pair("passwd", "pw")));
}

TEST(StoredCredentials, ServeEveryCall) {
  WSCataProxy proxy(Options({}), Network());
  proxy.StoreCredentials("http://stored", "l", support::Secret("stored-pw"), "k");
  for (int call = 0; call < 2; ++call) {
    WebService ws{Network()};
    proxy.PPrepareWebService(&ws, "p");
    EXPECT_EQ(ws.fields["passwd"], "stored-pw");
  }
}

/// Stores an account with `password` in `*proxy`.
void StorePassword(const DisguisedSecret& password, WSCataProxy* proxy) {
  password.Reveal([&](const char* text) {
    proxy->StoreCredentials("http://stored", "l", support::Secret(text), "k");
  });
}

TEST(StoredCredentials, LeaveNoPasswordBehindWhenOthersComeOrTheProxyGoes) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret first(length);
    const DisguisedSecret second(length);
    auto proxy = std::make_unique<WSCataProxy>(Options({}), Network());
    StorePassword(first, proxy.get());
    EXPECT_EQ(first.Copies(), 1U);
    StorePassword(second, proxy.get());
    EXPECT_EQ(first.Copies(), 0U);
    EXPECT_EQ(second.Copies(), 1U);
    proxy.reset();
    EXPECT_EQ(second.Copies(), 0U);
  }
}

// The agent page.

/// The fields of an agent call with option "agentid" set to `agentId`.
FormFields AgentFields(const std::string& agentId) {
  Preparation call({"--url", "http://s", "--login", "l", "--passwd", "p", "--agentid", agentId});
  ExpectSuccess(call.PrepareAgent());
  EXPECT_EQ(call.ws.url, "http://s/ws_agent.php");
  return call.ws.fields;
}

TEST(PPrepareAgentWebService, SendsAPositiveAgentId) {
  for (const std::string id : {"1", "4294967296", "9223372036854775807"}) {
    EXPECT_THAT(AgentFields(id), ElementsAre(Pair("action", "act"), Pair("id", id),
                                             Pair("login", "l"), Pair("passwd", "p")));
  }
}

TEST(PPrepareAgentWebService, SendsNoAgentIdThatIsNotPositiveWhenTakenAsSigned) {
  for (const std::string id : {"0", "9223372036854775808", "18446744073709551615"}) {
    SCOPED_TRACE(id);
    EXPECT_THAT(AgentFields(id),
                ElementsAre(Pair("action", "act"), Pair("login", "l"), Pair("passwd", "p")));
  }
}

TEST(PPrepareAgentWebService, RefusesAMissingAgentId) {
  Preparation call({"--url", "http://s", "--login", "l", "--passwd", "p"});
  ExpectFailure(call.PrepareAgent(), {6, 7, "WSCataProxy", "can't find agentid"});
}

TEST(PPrepareAgentWebService, PreparesTheRequestBeforeItLooksForTheAgentId) {
  Preparation call({"--url", "http://s"});
  ExpectFailure(call.PrepareAgent(), kMissing);
  ExpectFailure(OutcomeOf([&] { call.proxy.PPrepareAgentWebService(nullptr, "act", 0); }),
                {16, 7, "WSCataProxy", "missing ws"});
}

TEST(PPrepareAgentWebService, AddsTheKeyDirectoryUnlessOneIsStored) {
  const std::vector<std::string> arguments = {
      "--agentid", "5", "--keydir", "/k", "--url", "http://s", "--login", "l", "--passwd", "p"};
  Preparation call(arguments);
  ExpectSuccess(call.PrepareAgent());
  EXPECT_THAT(call.ws.fields, Contains(Pair("keydir", "/k")));
  Preparation stored(arguments);
  stored.proxy.StoreCredentials("http://stored", "l", support::Secret("p"), "/stored");
  ExpectSuccess(stored.PrepareAgent());
  EXPECT_THAT(stored.ws.fields, Contains(Pair("keydir", "/stored")));
  EXPECT_THAT(AgentFields("5"), Not(Contains(Key("keydir"))));
}

// The call.

/// A request over fakes, and the set that its answer goes into.
struct Call {
  Call() { ws.url = "http://h/p"; }

  Outcome Perform() {
    return OutcomeOf([&] { WSCataProxy::PCallWebService(&ws, &records); });
  }

  FakeNetwork fake;
  WebService ws{fake.network};
  RecordSet records;
};

TEST(PCallWebService, ReturnsOnATable) {
  Call call;
  call.fake.http.Answer("***BEGIN***\n1\na\nS\nx\n***DONE***\n");
  ExpectSuccess(call.Perform());
  EXPECT_EQ(call.records.recordCount, 1);
}

TEST(PCallWebService, KeepsATableOnlyOnce) {
  Call call;
  call.fake.http.Answer("***BEGIN***\n1\na\nS\nx\n***DONE***\n");
  ExpectSuccess(call.Perform());
  EXPECT_EQ(call.ws.buffer.data, nullptr);
  EXPECT_EQ(call.ws.buffer.size, 0u);
}

TEST(PCallWebService, ReturnsOnATableWhateverTheHttpStatus) {
  Call call;
  call.fake.http.Answer("***BEGIN***\n0\na\nS\n").httpStatus = 500;
  ExpectSuccess(call.Perform());
  EXPECT_EQ(call.records.recordCount, 0);
}

TEST(PCallWebService, RefusesAMissingRequestOrSet) {
  FakeNetwork fake;
  WebService ws(fake.network);
  RecordSet records;
  for (const auto& [request, set] : {std::pair<WebService*, RecordSet*>{nullptr, &records},
                                     {&ws, nullptr},
                                     {nullptr, nullptr}}) {
    ExpectFailure(
        OutcomeOf([&request = request, &set = set] { WSCataProxy::PCallWebService(request, set); }),
        {6, 7, "WSCataProxy", "null ws or res"}, "null ws or res\n");
  }
  EXPECT_TRUE(fake.http.calls.empty());
}

TEST(PCallWebService, FailsWhenTheTransferDoes) {
  Call call;
  call.fake.http.Answer("***BEGIN***\n0\na\nS\n").transferResult = CURLE_COULDNT_CONNECT;
  ExpectFailure(call.Perform(), kCallFailed,
                "Network error during webservice call\nServer's HTTP response code was 0\n");
  Call nowhere;
  nowhere.ws.url = "";
  ExpectFailure(nowhere.Perform(), kCallFailed,
                "No URL specified\nServer's HTTP response code was 0\n");
}

TEST(PCallWebService, FailsOnAnAnswerThatCannotBeRead) {
  for (const char* answer : {"", "<html>", "***BEGIN***\n1\n", "***ERROR***\n5"}) {
    SCOPED_TRACE(answer);
    Call call;
    call.fake.http.Answer(answer);
    ExpectFailure(call.Perform(), kCallFailed, kNotParsed);
  }
}

TEST(PCallWebService, ShowsTheDescriptionOfAnErrorBlockAlone) {
  Call call;
  call.fake.http.Answer(
      "***ERROR***\n42\nseverity: 3\nserver: s\nsource: x\ndescription: no such "
      "pool\n***DONE***\n");
  ExpectFailure(call.Perform(), kCallFailed,
                "The webservice returned an error :no such pool\n\n"
                "Server's HTTP response code was 0\n");
  Call empty;
  empty.fake.http.Answer("***ERROR***\n42\ndescription:\n***DONE***\n");
  ExpectFailure(empty.Perform(), kCallFailed,
                "The webservice returned an error :\nServer's HTTP response code was 0\n");
}

TEST(PCallWebService, SaysWhenAnErrorBlockHasNoDescription) {
  Call call;
  call.fake.http.Answer("***ERROR***\n42\nseverity: 3\n");
  ExpectFailure(call.Perform(), kCallFailed,
                "The webservice returned an error :no description\n"
                "Server's HTTP response code was 0\n");
}

TEST(PCallWebService, ShowsTheStatusThatTheRequestHolds) {
  Call call;
  call.ws.httpStatus = 77;
  call.fake.http.Answer("");
  EXPECT_THAT(call.Perform().err, ::testing::EndsWith("\nServer's HTTP response code was 77\n"));
}

}  // namespace
}  // namespace corvel::storage::tzregister
