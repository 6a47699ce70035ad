#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/testing/authority_answers.h"
#include "tests/testing/command_line.h"
#include "tests/testing/fake_network.h"
#include "tests/testing/outcome.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::Pair;

const Thrown kNoRecords{6, 5, "WSCataProxy",
                        "An error occurred: no records returned by the server"};
constexpr char kEmptyTable[] = "***BEGIN***\n0\na\nS\n***DONE***\n";
constexpr char kErrorShown[] =
    "The webservice returned an error :no\n\nServer's HTTP response code was 0\n";
constexpr char kErrorBlock[] = "***ERROR***\n1\ndescription: no\n***DONE***\n";

/// A proxy over fakes with credentials and agent number 5 on its command line.
struct Catalog {
  explicit Catalog(const std::string& answer) { fake.http.Answer(answer); }

  FakeNetwork fake;
  WSCataProxy proxy{
      Options({"--url", "http://s", "--login", "l", "--passwd", "p", "--agentid", "5"}),
      fake.network};

  /// The request that was sent, "(none)" when there was none.
  std::string Url() const {
    return fake.http.requests.empty() ? "(none)" : fake.http.requests.at(0).url;
  }
  std::vector<std::pair<std::string, std::string>> Form() const {
    return fake.http.requests.at(0).form;
  }
};

TEST(DiscoverStoragePool, SendsItsRequest) {
  Catalog catalog(kEmptyTable);
  ExpectSuccess(OutcomeOf([&] { catalog.proxy.DiscoverStoragePool(); }));
  EXPECT_EQ(catalog.Url(), "http://s/ws_storagepool.php");
  EXPECT_THAT(catalog.Form(),
              ElementsAre(Pair("action", "discover"), Pair("login", "l"), Pair("passwd", "p")));
}

TEST(CreateDataSelection, SendsItsTextsUnchanged) {
  Catalog catalog(kEmptyTable);
  ExpectSuccess(OutcomeOf(
      [&] { catalog.proxy.CreateDataSelection("7", "2", "<rules>\n &a=b|\\n", "my selection"); }));
  EXPECT_EQ(catalog.Url(), "http://s/ws_dataselection.php");
  EXPECT_THAT(catalog.Form(),
              ElementsAre(Pair("action", "createDS"), Pair("agentid", "7"),
                          Pair("dataselection", "<rules>\n &a=b|\\n"), Pair("dstypeid", "2"),
                          Pair("login", "l"), Pair("name", "my selection"), Pair("passwd", "p")));
}

TEST(CreateDataSelection, SendsEmptyTextsToo) {
  Catalog catalog(kEmptyTable);
  ExpectSuccess(OutcomeOf([&] { catalog.proxy.CreateDataSelection("", "", "", ""); }));
  EXPECT_THAT(
      catalog.Form(),
      ElementsAre(Pair("action", "createDS"), Pair("agentid", ""), Pair("dataselection", ""),
                  Pair("dstypeid", ""), Pair("login", "l"), Pair("name", ""), Pair("passwd", "p")));
}

// RegisterAgent.

/// A registration: what is sent, and what the caller holds afterwards.
struct Registration : Catalog {
  explicit Registration(const std::string& answer) : Catalog(answer) {}

  Outcome Register() {
    return OutcomeOf([&] {
      proxy.RegisterAgent(macAddress, agentVersion, 0, 20, osExtensions, hostName, type, &agentId,
                          &login, &password);
    });
  }

  std::string macAddress = "00:11";
  std::string agentVersion = "6.6";
  std::string osExtensions = "ext";
  std::string hostName = "h";
  std::string type = "2";
  std::int64_t agentId = 0;
  std::string login = "old login";
  std::string password = "old password";
};

std::string Account(const std::string& agentId) {
  return OneRecord("login|agentid|password", "S|I|S", "joe|" + agentId + "|a\\x7cb");
}

TEST(RegisterAgent, SendsItsFields) {
  Registration registration(Account("12"));
  ExpectSuccess(registration.Register());
  EXPECT_EQ(registration.Url(), "http://s/ws_agent.php");
  EXPECT_THAT(registration.Form(),
              ElementsAre(Pair("action", "register"), Pair("agentVersion", "6.6"),
                          Pair("agentid", "0"), Pair("hostName", "h"), Pair("isServerAgent", "0"),
                          Pair("login", "l"), Pair("macAddress", "00:11"), Pair("osType", "20"),
                          Pair("osextensions", "ext"), Pair("osvariantid", "0"),
                          Pair("passwd", "p"), Pair("type", "2"), Pair("version", "6.6")));
}

TEST(RegisterAgent, LeavesOutWhatIsEmpty) {
  Registration registration(Account("12"));
  registration.macAddress = registration.agentVersion = registration.osExtensions = "";
  registration.hostName = registration.type = "";
  registration.agentId = -7;
  ExpectSuccess(registration.Register());
  EXPECT_THAT(registration.Form(),
              ElementsAre(Pair("action", "register"), Pair("agentid", "-7"),
                          Pair("isServerAgent", "0"), Pair("login", "l"), Pair("osType", "20"),
                          Pair("osextensions", ""), Pair("osvariantid", "0"), Pair("passwd", "p"),
                          Pair("type", "0"), Pair("version", "")));
}

TEST(RegisterAgent, SendsNumbersOfSixtyFourBits) {
  Catalog catalog(Account("12"));
  std::int64_t agentId = INT64_MIN;
  std::string login;
  std::string password;
  catalog.proxy.RegisterAgent("", "", INT64_MAX, -1, "", "", "", &agentId, &login, &password);
  EXPECT_THAT(catalog.Form(), ::testing::IsSupersetOf({std::pair<std::string, std::string>(
                                                           "agentid", "-9223372036854775808"),
                                                       {"osvariantid", "9223372036854775807"},
                                                       {"osType", "-1"}}));
}

TEST(RegisterAgent, GivesTheAccountOfTheFirstRecord) {
  Registration registration(
      "***BEGIN***\n2\nagentid|login|password\nI|S|S\n12|joe|a\\x7cb\n13|ann|c\n***DONE***\n");
  ExpectSuccess(registration.Register());
  EXPECT_EQ(registration.agentId, 12);
  EXPECT_EQ(registration.login, "joe");
  EXPECT_EQ(registration.password, "a|b");
}

TEST(RegisterAgent, ReadsTheAgentNumberAsDecimalText) {
  const std::map<std::string, std::int64_t> numbers = {
      {"0", 0},    {"-5", -5},         {"+5", 5},
      {" 12", 12}, {"\\x31\\x32", 12}, {"9223372036854775807", INT64_MAX}};
  for (const auto& [text, number] : numbers) {
    SCOPED_TRACE(text);
    Registration registration(Account(text));
    ExpectSuccess(registration.Register());
    EXPECT_EQ(registration.agentId, number);
  }
}

TEST(RegisterAgent, RefusesAnAgentNumberThatIsNone) {
  for (const std::string text : {"", "x", "12a", "12 ", "1.5", "0x10", "9223372036854775808"}) {
    SCOPED_TRACE(text);
    Registration registration(Account(text));
    ExpectFailure(registration.Register(),
                  {1, 6, "Namespace:Engine", "Conversion from string failed for string " + text});
    EXPECT_EQ(registration.agentId, 0);
    EXPECT_EQ(registration.login, "old login");
    EXPECT_EQ(registration.password, "old password");
  }
}

TEST(RegisterAgent, ThrowsForAMissingColumn) {
  Registration none(OneRecord("login|password", "S|S", "joe|pw"));
  ExpectFailure(none.Register(), {6, 5, "Record", "Missing required field: agentid"});
  EXPECT_EQ(none.agentId, 0);
  EXPECT_EQ(none.login, "old login");
  Registration noLogin(OneRecord("agentid|password", "I|S", "12|pw"));
  ExpectFailure(noLogin.Register(), {6, 5, "Record", "Missing required field: login"});
  EXPECT_EQ(noLogin.agentId, 12);
  EXPECT_EQ(noLogin.login, "old login");
  EXPECT_EQ(noLogin.password, "old password");
  Registration noPassword(OneRecord("agentid|login", "I|S", "12|joe"));
  ExpectFailure(noPassword.Register(), {6, 5, "Record", "Missing required field: password"});
  EXPECT_EQ(noPassword.agentId, 12);
  EXPECT_EQ(noPassword.password, "old password");
}

TEST(RegisterAgent, RefusesAMissingOutputBeforeAnythingElse) {
  FakeNetwork fake;
  const WSCataProxy proxy(Options({}), fake.network);
  std::int64_t id = 0;
  std::string text;
  const auto expectRefusal = [&](std::int64_t* agentId, std::string* login, std::string* password) {
    const Outcome outcome =
        OutcomeOf([&] { proxy.RegisterAgent("", "", 0, 0, "", "", "", agentId, login, password); });
    ExpectFailure(outcome, {6, 5, "WSCataProxy", "agentid, login or password is null."});
  };
  expectRefusal(nullptr, &text, &text);
  expectRefusal(&id, nullptr, &text);
  expectRefusal(&id, &text, nullptr);
  EXPECT_TRUE(fake.http.calls.empty());
}

// GetRoutingTables.

/// A call for pool 9's routing tables.
struct RoutingTables : Catalog {
  explicit RoutingTables(const std::string& answer) : Catalog(answer) {}

  Outcome Get() {
    return OutcomeOf([&] { proxy.GetRoutingTables(9, &recommended, &current); });
  }

  std::ostringstream recommended;
  std::ostringstream current;
};

const std::string& TwoTables() {
  static const std::string kText =
      OneRecord("cr_currentrt|cr_recommendedrt", "S|S", "cur\\x7c\\n|rec\\\\ommended");
  return kText;
}

TEST(GetRoutingTables, SendsItsRequest) {
  RoutingTables tables(TwoTables());
  ExpectSuccess(tables.Get());
  EXPECT_EQ(tables.Url(), "http://s/ws_agent.php");
  EXPECT_THAT(tables.Form(),
              ElementsAre(Pair("action", "getRoutingTables"), Pair("id", "5"), Pair("login", "l"),
                          Pair("passwd", "p"), Pair("storagepoolId", "9")));
}

TEST(GetRoutingTables, WritesBothTablesAndNothingElse) {
  RoutingTables tables(TwoTables());
  ExpectSuccess(tables.Get());
  EXPECT_EQ(tables.recommended.str(), "rec\\ommended");
  EXPECT_EQ(tables.current.str(), "cur|\n");
}

TEST(GetRoutingTables, NeedsTheAgentIdOption) {
  FakeNetwork fake;
  const WSCataProxy proxy(Options({"--url", "http://s", "--login", "l", "--passwd", "p"}),
                          fake.network);
  std::ostringstream out;
  ExpectFailure(OutcomeOf([&] { proxy.GetRoutingTables(9, &out, &out); }),
                {6, 7, "WSCataProxy", "can't find agentid"});
  EXPECT_TRUE(fake.http.calls.empty());
}

TEST(GetRoutingTables, RefusesAMissingStreamBeforeAnythingElse) {
  FakeNetwork fake;
  const WSCataProxy proxy(Options({}), fake.network);
  std::ostringstream out;
  for (const auto& [recommended, current] :
       {std::pair<std::ostream*, std::ostream*>{nullptr, &out}, {&out, nullptr}}) {
    const Outcome outcome = OutcomeOf([&proxy, first = recommended, second = current] {
      proxy.GetRoutingTables(9, first, second);
    });
    ExpectFailure(outcome, {6, 5, "WSCataProxy", "recommendedrt or currentrt is null."});
  }
  EXPECT_TRUE(fake.http.calls.empty());
}

TEST(GetRoutingTables, WritesNothingWhenTheFirstStreamIsBad) {
  for (const auto state : {std::ios::failbit, std::ios::badbit, std::ios::eofbit}) {
    // The stream is looked at before the column, which is missing here.
    RoutingTables tables(OneRecord("cr_currentrt", "S", "cur"));
    tables.recommended.setstate(state);
    ExpectFailure(tables.Get(),
                  {14, 5, "WSCataProxy", "Could not write to recommended routingtable file"});
    EXPECT_EQ(tables.recommended.str() + tables.current.str(), "");
    EXPECT_EQ(tables.fake.http.requests.size(), 1u);
  }
}

TEST(GetRoutingTables, LeavesTheFirstTableWrittenWhenTheSecondStreamIsBad) {
  RoutingTables tables(OneRecord("cr_recommendedrt", "S", "rec"));
  tables.current.setstate(std::ios::eofbit);
  ExpectFailure(tables.Get(),
                {14, 5, "WSCataProxy", "Could not write to current routingtable file"});
  EXPECT_EQ(tables.recommended.str(), "rec");
  EXPECT_EQ(tables.current.str(), "");
}

TEST(GetRoutingTables, ThrowsForAMissingColumn) {
  RoutingTables noRecommended(OneRecord("cr_currentrt", "S", "cur"));
  ExpectFailure(noRecommended.Get(), {6, 5, "Record", "Missing required field: cr_recommendedrt"});
  EXPECT_EQ(noRecommended.current.str(), "");
  RoutingTables noCurrent(OneRecord("cr_recommendedrt", "S", "rec"));
  ExpectFailure(noCurrent.Get(), {6, 5, "Record", "Missing required field: cr_currentrt"});
  EXPECT_EQ(noCurrent.recommended.str(), "rec");
}

/// A stream buffer that takes no byte.
class FullBuffer : public std::streambuf {};

TEST(GetRoutingTables, DoesNotExamineWhetherAWriteWorked) {
  Catalog catalog(TwoTables());
  FullBuffer full;
  std::ostream recommended(&full);
  std::ostringstream current;
  ExpectSuccess(OutcomeOf([&] { catalog.proxy.GetRoutingTables(9, &recommended, &current); }));
  EXPECT_FALSE(recommended.good());
  EXPECT_EQ(current.str(), "cur|\n");
}

// GetConfigFile.

TEST(GetConfigFile, SendsItsRequestAndWritesTheText) {
  Catalog catalog(OneRecord("returnvalue", "S", "[main]\\nagentid=7\\n"));
  std::ostringstream out;
  ExpectSuccess(OutcomeOf([&] { catalog.proxy.GetConfigFile(7, 3, &out); }));
  EXPECT_EQ(catalog.Url(), "http://s/ws_configfile.php");
  EXPECT_THAT(catalog.Form(), ElementsAre(Pair("action", "create"), Pair("agentid", "7"),
                                          Pair("configfiletemplateid", "3"), Pair("login", "l"),
                                          Pair("passwd", "p")));
  EXPECT_EQ(out.str(), "[main]\nagentid=7\n");
}

TEST(GetConfigFile, WritesNothingForAnEmptyText) {
  Catalog catalog(OneRecord("returnvalue", "S", ""));
  std::ostringstream out;
  ExpectSuccess(OutcomeOf([&] { catalog.proxy.GetConfigFile(7, 3, &out); }));
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(out.good());
}

TEST(GetConfigFile, RefusesAMissingStreamBeforeAnythingElse) {
  FakeNetwork fake;
  const WSCataProxy proxy(Options({}), fake.network);
  ExpectFailure(OutcomeOf([&] { proxy.GetConfigFile(7, 3, nullptr); }),
                {6, 5, "WSCataProxy", "configfilestr is null"});
  EXPECT_TRUE(fake.http.calls.empty());
}

TEST(GetConfigFile, RefusesABadStreamAfterTheCall) {
  Catalog catalog(OneRecord("other", "S", "x"));
  std::ostringstream out;
  out.setstate(std::ios::eofbit);
  ExpectFailure(OutcomeOf([&] { catalog.proxy.GetConfigFile(7, 3, &out); }),
                {14, 5, "WSCataProxy", "Could not write to configuration file"});
  EXPECT_EQ(catalog.fake.http.requests.size(), 1u);
}

TEST(GetConfigFile, ThrowsForAMissingColumn) {
  Catalog catalog(OneRecord("other", "S", "x"));
  std::ostringstream out;
  ExpectFailure(OutcomeOf([&] { catalog.proxy.GetConfigFile(7, 3, &out); }),
                {6, 5, "Record", "Missing required field: returnvalue"});
}

// All five.

using Operation = std::function<void(const WSCataProxy&)>;

std::map<std::string, Operation> ReadingOperations() {
  return {{"RegisterAgent",
           [](const WSCataProxy& proxy) {
             std::int64_t agentId = 0;
             std::string login;
             std::string password;
             proxy.RegisterAgent("", "", 0, 0, "", "", "", &agentId, &login, &password);
           }},
          {"GetRoutingTables",
           [](const WSCataProxy& proxy) {
             std::ostringstream bad;
             bad.setstate(std::ios::badbit);
             proxy.GetRoutingTables(9, &bad, &bad);
           }},
          {"GetConfigFile", [](const WSCataProxy& proxy) {
             std::ostringstream bad;
             bad.setstate(std::ios::badbit);
             proxy.GetConfigFile(7, 3, &bad);
           }}};
}

std::map<std::string, Operation> AllOperations() {
  std::map<std::string, Operation> operations = ReadingOperations();
  operations["DiscoverStoragePool"] = [](const WSCataProxy& proxy) { proxy.DiscoverStoragePool(); };
  operations["CreateDataSelection"] = [](const WSCataProxy& proxy) {
    proxy.CreateDataSelection("7", "2", "rules", "name");
  };
  return operations;
}

TEST(CatalogOperations, FailOnATableWithoutRecordsWhenTheyReadOne) {
  for (const auto& [name, operation] : ReadingOperations()) {
    SCOPED_TRACE(name);
    Catalog catalog(kEmptyTable);
    const Outcome outcome = OutcomeOf([&, &call = operation] { call(catalog.proxy); });
    ExpectFailure(outcome, kNoRecords);
  }
}

TEST(CatalogOperations, FailOnAnErrorBlock) {
  for (const auto& [name, operation] : AllOperations()) {
    SCOPED_TRACE(name);
    Catalog catalog(kErrorBlock);
    const Outcome outcome = OutcomeOf([&, &call = operation] { call(catalog.proxy); });
    ExpectFailure(outcome, kCallFailed, kErrorShown);
  }
}

TEST(CatalogOperations, SendNothingWithoutCredentials) {
  for (const auto& [name, operation] : AllOperations()) {
    SCOPED_TRACE(name);
    FakeNetwork fake;
    const WSCataProxy proxy(Options({"--agentid", "5"}), fake.network);
    ExpectFailure(OutcomeOf([&, &call = operation] { call(proxy); }),
                  {16, 7, "WSCataProxy",
                   "Required parameter url or login or passwd not present, or missing ws"});
    EXPECT_TRUE(fake.http.calls.empty());
  }
}

TEST(CatalogOperations, UseTheStoredCredentialsAndTheChannel) {
  for (const auto& [name, operation] : AllOperations()) {
    SCOPED_TRACE(name);
    FakeNetwork fake;
    fake.channel.text = kErrorBlock;
    WSCataProxy proxy(Options({"--agentid", "5"}), fake.network);
    proxy.StoreCredentials("vrmo://h", "joe", support::Secret("pw"), "/k");
    ExpectFailure(OutcomeOf([&, &call = operation] { call(proxy); }), kCallFailed, kErrorShown);
    ASSERT_EQ(fake.channel.calls.size(), 3u);
    EXPECT_EQ(fake.channel.calls[0], "init vrmo://h joe pw /k 0");
    EXPECT_TRUE(fake.http.calls.empty());
  }
}

TEST(CatalogOperations, FailWhenTheChannelsReplyIsLongerThanIsKept) {
  FakeNetwork fake;
  fake.channel.text = kEmptyTable + std::string(std::size_t{256} << 20, 'x');
  WSCataProxy proxy(Options({}), fake.network);
  proxy.StoreCredentials("vrmo://h", "joe", support::Secret("pw"), "/k");
  ExpectFailure(OutcomeOf([&] { proxy.DiscoverStoragePool(); }), kCallFailed, kNotParsed);
}

TEST(CatalogOperations, ThrowAndSendNoSecondRequestAfterAFailure) {
  for (const auto& [name, operation] : AllOperations()) {
    SCOPED_TRACE(name);
    Catalog catalog("");
    ExpectFailure(OutcomeOf([&, &call = operation] { call(catalog.proxy); }), kCallFailed,
                  kNotParsed);
    EXPECT_EQ(catalog.fake.http.requests.size(), 1u);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
