#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <boost/any.hpp>
#include <string>
#include <vector>

#include "tests/registration/scripted_registrator.h"
#include "tests/testing/authority_answers.h"
#include "tests/testing/outcome.h"

namespace corvel::storage::testing {
namespace {

/// What the host says of its own name while one of these lives.
class ScopedHostName {
 public:
  explicit ScopedHostName(std::string name, int result = 0) : name_(std::move(name)) {
    result_ = result;
    current = this;
  }
  ~ScopedHostName() { current = nullptr; }
  ScopedHostName(const ScopedHostName&) = delete;
  ScopedHostName& operator=(const ScopedHostName&) = delete;

  int Give(char* buffer, std::size_t size) {
    bufferSizes.push_back(size);
    const std::size_t length = std::min(size, name_.size());
    std::copy_n(name_.data(), length, buffer);
    if (length < size) buffer[length] = '\0';
    return result_;
  }

  static ScopedHostName* current;
  std::vector<std::size_t> bufferSizes;

 private:
  std::string name_;
  int result_;
};

ScopedHostName* ScopedHostName::current = nullptr;

}  // namespace
}  // namespace corvel::storage::testing

// Takes the place of the system's own function for the code that is linked
// into this program. Under a name of its own, because fortified headers define
// that function inline.
extern "C" int DoubleOfGetHostName(char* name, std::size_t size) noexcept asm("gethostname");

int DoubleOfGetHostName(char* name, std::size_t size) noexcept {
  auto* const host = corvel::storage::testing::ScopedHostName::current;
  return host == nullptr ? -1 : host->Give(name, size);
}

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// A registration and what became of its outputs.
struct Registration {
  std::int64_t agentId = 0;
  std::string login = "old login";
  std::string password = "old password";
  Outcome outcome;
};

Registration Register(ScriptedRegistrator* host, const std::string& type,
                      const std::string& hostname, std::int64_t agentId = 0) {
  Registration done;
  done.agentId = agentId;
  done.outcome = OutcomeOf([&] {
    host->registrator.RegisterComponent(type, &done.agentId, hostname, &done.login, &done.password);
  });
  return done;
}

TEST(RegisterComponent, SendsWhatDescribesTheHostAndReceivesIdAndAccount) {
  ScriptedRegistrator host(AccountWith({"--agentType", "0"}));
  host.network.http.Answer(AgentAnswer("42", "sys", "p\\x7cw"));
  const Registration done = Register(&host, "Agent", "My.Host", 5);
  ExpectSuccess(done.outcome);
  EXPECT_EQ(done.agentId, 42);
  EXPECT_EQ(done.login, "sys");
  EXPECT_EQ(done.password, "p|w");
  ASSERT_EQ(host.requests().size(), 1U);
  EXPECT_EQ(host.requests()[0].url, "http://spa/ws_agent.php");
  EXPECT_THAT(
      host.requests()[0].form,
      ElementsAre(Pair("action", "register"), Pair("agentVersion", "6.6.0.12345"),
                  Pair("agentid", "5"), Pair("hostName", "My.Host"), Pair("isServerAgent", "0"),
                  Pair("login", "me"), Pair("macAddress", "000000000000"), Pair("osType", "20"),
                  Pair("osextensions", ""), Pair("osvariantid", "0"), Pair("passwd", "pw"),
                  Pair("type", "0"), Pair("version", "6.6.0.12345")));
}

TEST(RegisterComponent, SendsTheAgentTypeInDecimal) {
  for (const std::string type : {"0", "1", "3", "99", "18446744073709551615"}) {
    ScriptedRegistrator host(AccountWith({"--agentType", type}));
    host.network.http.Answer(AgentAnswer("1", "l", "p"));
    ExpectSuccess(Register(&host, "Agent", "h").outcome);
    EXPECT_EQ(FormValue(host.requests().at(0), "type"), type);
  }
}

TEST(RegisterComponent, RefusesUnknownTypesFirst) {
  for (const Words& options : {Words{}, Words{"--agentType", "0"}}) {
    for (const std::string type : {"agent", "Foo", ""}) {
      SCOPED_TRACE(type);
      ScriptedRegistrator host(AccountWith(options));
      ExpectFailure(Register(&host, type, "h").outcome, UnknownType(type));
      EXPECT_THAT(host.requests(), IsEmpty());
    }
  }
}

TEST(RegisterComponent, SupportsAgentsAlone) {
  for (const std::string type : {"ContentRouter", "StoragePoolAuthority", "MetabaseEngine",
                                 "MetabaseServer", "Controller", "qxwfe", "storagepool"}) {
    ScriptedRegistrator host(AccountWith({"--agentType", "0"}));
    const Registration done = Register(&host, type, "h");
    ExpectFailure(done.outcome, {16, 7, "Registrator",
                                 "Registering component type " + type + " is not supported."});
    EXPECT_THAT(host.requests(), IsEmpty());
  }
}

TEST(RegisterComponent, NeedsAnAgentType) {
  ScriptedRegistrator host(AccountWith({}));
  ExpectFailure(Register(&host, "Agent", "h").outcome,
                {16, 7, "Registrator", "Registering component type Agent is not supported."});
  EXPECT_THAT(host.requests(), IsEmpty());
}

TEST(RegisterComponent, FailsForAnAgentTypeOfAnotherKind) {
  boost::program_options::variables_map options = Options(AccountWith({}));
  options.insert({"agentType", {boost::any(std::string("0")), false}});
  ScriptedRegistrator host(options);
  EXPECT_THROW(Register(&host, "Agent", "h"), boost::bad_any_cast);
  EXPECT_THAT(host.requests(), IsEmpty());
}

/// The host name that a registration under `hostname` carries.
std::string SentHostName(const std::string& hostname) {
  ScriptedRegistrator host(AccountWith({"--agentType", "0"}));
  host.network.http.Answer(AgentAnswer("1", "l", "p"));
  ExpectSuccess(Register(&host, "Agent", hostname).outcome);
  return FormValue(host.requests().at(0), "hostName");
}

TEST(RegisterComponent, UsesAGivenHostNameAsItIsWithoutAskingForTheOwnOne) {
  ScopedHostName own("own");
  for (const std::string name : {"other.example", " ", "UPPER", "a|b"}) {
    EXPECT_EQ(SentHostName(name), name);
  }
  EXPECT_THAT(own.bufferSizes, IsEmpty());
}

TEST(RegisterComponent, UsesTheHostsOwnNameWhenNoneIsGiven) {
  for (const std::string& name : {std::string("own.example"), std::string(255, 'h')}) {
    ScopedHostName own(name);
    EXPECT_EQ(SentHostName(""), name);
    EXPECT_THAT(own.bufferSizes, ElementsAre(256U));
  }
}

TEST(RegisterComponent, EndsAHostNameThatFillsTheBuffer) {
  const ScopedHostName own(std::string(300, 'h'));
  EXPECT_EQ(SentHostName(""), std::string(256, 'h'));
}

TEST(RegisterComponent, SendsNoHostNameWhenTheHostCannotTellItsOwn) {
  const ScopedHostName own("leftover", -1);
  EXPECT_EQ(SentHostName(""), "(none)");
}

TEST(RegisterComponent, PassesFailuresOfTheRequestOnAndKeepsTheOutputs) {
  ScriptedRegistrator host(AccountWith({"--agentType", "0"}));
  host.network.http.Answer("***ERROR***\n3\ndescription: no more agents***DONE***\n");
  const Registration done = Register(&host, "Agent", "h", 5);
  ExpectFailure(done.outcome, kCallFailed,
                "The webservice returned an error :no more agents\n"
                "Server's HTTP response code was 0\n");
  EXPECT_EQ(done.agentId, 5);
  EXPECT_EQ(done.login, "old login");
  EXPECT_EQ(done.password, "old password");
}

TEST(RegisterComponent, KeepsWhatTheAnswerGaveBeforeItsGap) {
  ScriptedRegistrator host(AccountWith({"--agentType", "0"}));
  host.network.http.Answer(OneRecord("agentid|login", "I|S", "42|sys"));
  const Registration done = Register(&host, "Agent", "h", 5);
  ExpectFailure(done.outcome, {6, 5, "Record", "Missing required field: password"});
  EXPECT_EQ(done.agentId, 42);
  EXPECT_EQ(done.login, "sys");
  EXPECT_EQ(done.password, "old password");
}

}  // namespace
}  // namespace corvel::storage::tzregister
