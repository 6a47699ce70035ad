#include "webservice/webservice.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/testing/disguised_secret.h"
#include "tests/testing/fake_network.h"
#include "tests/testing/outcome.h"
#include "tests/testing/scoped_environment.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::Pair;

constexpr long kStaleCode = 999;
constexpr std::size_t kLongestAnswer = std::size_t{256} << 20;

/// A request over fakes. The server's certificate is not looked for.
struct Request {
  Request() { ws.url = "http://h/p"; }

  Outcome Get() {
    return OutcomeOf([&] { return ws.get(&code); });
  }

  std::string Buffer() const {
    return ws.buffer.data == nullptr ? "(null)" : std::string(ws.buffer.data, ws.buffer.size);
  }

  const ScopedEnvironment unverified{"QUORVEX_SSL_VERIFY", "0"};
  FakeNetwork fake;
  WebService ws{fake.network};
  long code = kStaleCode;
};

/// The calls of a transfer of `passes` passes, the last of which is `end`.
std::vector<std::string> Calls(std::size_t passes, const std::string& end) {
  std::vector<std::string> calls(passes, "perform");
  calls.insert(calls.begin(), "start");
  calls.insert(calls.end(), {end, "destroy"});
  return calls;
}

constexpr char kTimedOut[] = "Webservice call timed out. (curl call did not)\n";
constexpr char kNetworkError[] = "Network error during webservice call\n";

TEST(WebService, StartsWithItsDefaults) {
  const WebService ws{Network()};
  EXPECT_TRUE(ws.fields.empty());
  EXPECT_FALSE(ws.hasFields);
  EXPECT_EQ(ws.buffer.data, nullptr);
  EXPECT_EQ(ws.buffer.size, 0u);
  EXPECT_EQ(ws.url, "");
  EXPECT_EQ(ws.timeout, 120);
  EXPECT_EQ(ws.shortTimeout, 30);
  EXPECT_EQ(ws.httpStatus, 0);
}

TEST(WebServiceField, KeepsNamesInByteOrder) {
  WebService ws{Network()};
  EXPECT_EQ(ws.field("type", "t"), 0);
  EXPECT_EQ(ws.field("action", "a"), 0);
  EXPECT_EQ(ws.field("hostName", "h"), 0);
  EXPECT_EQ(ws.field("Z", "z"), 0);
  EXPECT_THAT(ws.fields, ElementsAre(Pair("Z", "z"), Pair("action", "a"), Pair("hostName", "h"),
                                     Pair("type", "t")));
}

TEST(WebServiceField, KeepsTheFirstValueOfAName) {
  WebService ws{Network()};
  ws.field("a", "first");
  EXPECT_EQ(ws.field("a", "second"), 0);
  EXPECT_EQ(ws.field("a", 3), 0);
  EXPECT_THAT(ws.fields, ElementsAre(Pair("a", "first")));
}

TEST(WebServiceField, CopiesItsTexts) {
  WebService ws{Network()};
  std::string name = "name";
  std::string value = "value";
  ws.field(name.c_str(), value.c_str());
  name = value = "other";
  EXPECT_THAT(ws.fields, ElementsAre(Pair("name", "value")));
}

TEST(WebServiceField, WritesNumbersInDecimal) {
  WebService ws{Network()};
  ws.field("a", -5);
  ws.field("b", std::int64_t{0});
  ws.field("c", std::numeric_limits<std::int64_t>::max());
  ws.field("d", std::numeric_limits<std::int64_t>::min());
  ws.field("e", 1234567);
  EXPECT_THAT(ws.fields,
              ElementsAre(Pair("a", "-5"), Pair("b", "0"), Pair("c", "9223372036854775807"),
                          Pair("d", "-9223372036854775808"), Pair("e", "1234567")));
}

TEST(WebServiceGet, RefusesAnEmptyUrlBeforeAnythingIsDone) {
  Request request;
  request.ws.url = "";
  request.ws.field("action", "a");
  ExpectError(request.Get(), "No URL specified\n");
  EXPECT_EQ(request.code, 0);
  EXPECT_TRUE(request.fake.http.calls.empty());
  EXPECT_TRUE(request.fake.channel.calls.empty());
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

TEST(WebServiceGet, SendsItsFieldsAsAForm) {
  Request request;
  request.ws.field("type", "t");
  request.ws.field("action", "");
  request.ws.timeout = 7;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  ASSERT_EQ(request.fake.http.requests.size(), 1u);
  const auto& sent = request.fake.http.requests[0];
  EXPECT_EQ(sent.url, "http://h/p");
  EXPECT_TRUE(sent.hasForm);
  EXPECT_THAT(sent.form, ElementsAre(Pair("action", ""), Pair("type", "t")));
  EXPECT_EQ(sent.timeoutSeconds, 7);
  EXPECT_TRUE(request.fake.channel.calls.empty());
}

TEST(WebServiceGet, SendsNoFormWithoutFields) {
  Request request;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  EXPECT_FALSE(request.fake.http.requests.at(0).hasForm);
  EXPECT_EQ(request.fake.http.requests.at(0).timeoutSeconds, 120);
}

TEST(WebServiceGet, DecidesByTheMarkWhetherThereIsAForm) {
  Request request;
  request.ws.hasFields = true;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  EXPECT_TRUE(request.fake.http.requests.at(0).hasForm);
}

TEST(WebServiceGet, SucceedsWhateverTheHttpStatus) {
  for (const long status : {0L, 200L, 404L, 500L}) {
    SCOPED_TRACE(status);
    Request request;
    request.fake.http.AnswerInParts({"bo", "dy"}).httpStatus = status;
    ExpectSuccess(request.Get());
    EXPECT_EQ(request.code, status);
    EXPECT_EQ(request.ws.httpStatus, 0);
    EXPECT_EQ(request.Buffer(), "body");
  }
}

TEST(WebServiceGet, DropsTheAnswerOfAnEarlierCall) {
  Request request;
  request.fake.http.Answer("a long first answer");
  request.fake.http.Answer("second");
  ExpectSuccess(request.Get());
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.Buffer(), "second");
  request.ws.url = "vrmo://h";
  request.fake.channel.text = "third";
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.Buffer(), "third");
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceGet, ReportsThatTheNetworkLayerCannotBeInitialised) {
  Request request;
  request.fake.http.Answer("").starts = false;
  ExpectError(request.Get(), "Can't initialize webservice network layer\n");
  EXPECT_EQ(request.code, 0);
  EXPECT_THAT(request.fake.http.calls, ElementsAre("start"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

TEST(WebServiceGet, ReportsATransferThatFailed) {
  Request request;
  ScriptedAnswer& answer = request.fake.http.Answer("part");
  answer.transferResult = CURLE_COULDNT_CONNECT;
  answer.httpStatus = 502;
  ExpectError(request.Get(), kNetworkError);
  EXPECT_EQ(request.code, 502);
  EXPECT_EQ(request.fake.http.calls, Calls(1, "finish"));
}

TEST(WebServiceGet, ReportsAPollThatFailed) {
  Request request;
  request.fake.http.Answer("").performResult = CURLM_BAD_HANDLE;
  ExpectError(request.Get(), kNetworkError);
  EXPECT_EQ(request.code, 200);
}

TEST(WebServiceGet, ReportsAnAnswerWhosePartsTogetherAreTooLong) {
  Request request;
  request.fake.http.AnswerInParts({std::string(kLongestAnswer, 'x'), "y"});
  ExpectError(request.Get(), kNetworkError);
  EXPECT_EQ(request.Buffer(), "(null)");
}

TEST(WebServiceGet, LetsOnlyTheLastPollCount) {
  Request good;
  good.fake.http.AnswerInParts({"a", "b"}).firstResults = {CURLM_OUT_OF_MEMORY};
  ExpectSuccess(good.Get());
  Request bad;
  ScriptedAnswer& answer = bad.fake.http.AnswerInParts({"a", "b"});
  answer.firstResults = {CURLM_OK};
  answer.performResult = CURLM_OUT_OF_MEMORY;
  ExpectError(bad.Get(), kNetworkError);
}

// The wait.

TEST(WebServiceWait, SleepsTwoSecondsAfterEveryPassTheLastOneToo) {
  Request request;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.fake.http.calls, Calls(1, "finish"));
  EXPECT_THAT(request.fake.clock.sleeps, ElementsAre(2u));

  Request longer;
  longer.fake.http.AnswerInParts({"a", "b", "c"});
  ExpectSuccess(longer.Get());
  EXPECT_EQ(longer.fake.http.calls, Calls(3, "finish"));
  EXPECT_THAT(longer.fake.clock.sleeps, ElementsAre(2u, 2u, 2u));
}

TEST(WebServiceWait, DoesNotSleepWhenItIsToPollAgainAtOnce) {
  Request request;
  request.fake.http.AnswerInParts({"a", "b", "c"}).firstResults = {CURLM_CALL_MULTI_PERFORM,
                                                                   CURLM_OK};
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.fake.http.calls, Calls(3, "finish"));
  EXPECT_THAT(request.fake.clock.sleeps, ElementsAre(2u, 2u));
}

TEST(WebServiceWait, EndsATransferWhoseLastPassAsksForAnother) {
  Request request;
  request.fake.http.AnswerInParts({"a", "b"}).performResult = CURLM_CALL_MULTI_PERFORM;
  ExpectError(request.Get(), kNetworkError);
  EXPECT_EQ(request.fake.http.calls, Calls(2, "finish"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

/// A request whose answer is complete with pass number `passes`; 0 for never.
Outcome WaitForPasses(Request* request, std::size_t passes) {
  request->fake.http.AnswerInParts(Words(passes, "x")).endless = passes == 0;
  return request->Get();
}

TEST(WebServiceWait, GivesUpAtTheFirstLookBehindTheDeadline) {
  const struct {
    int timeout;
    std::size_t passes;
  } cases[] = {{120, 61}, {121, 61}, {119, 60}, {1, 1}, {0, 1}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.timeout);
    Request request;
    request.ws.timeout = one.timeout;
    ExpectError(WaitForPasses(&request, 0), kTimedOut);
    EXPECT_EQ(request.fake.http.calls, Calls(one.passes, "abandon"));
    EXPECT_EQ(request.fake.clock.sleeps, std::vector<unsigned>(one.passes, 2));
    EXPECT_EQ(request.code, 0);
  }
}

TEST(WebServiceWait, GivesUpAtOnceWhenTheDeadlineLiesInThePast) {
  Request request;
  request.ws.timeout = -1;
  ExpectError(WaitForPasses(&request, 0), kTimedOut);
  EXPECT_EQ(request.fake.http.calls, Calls(0, "abandon"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

TEST(WebServiceWait, TakesHundredAndTwentyToHundredAndTwentyTwoSecondsAtMost) {
  Request request;
  const std::time_t start = request.fake.clock.now;
  ExpectError(WaitForPasses(&request, 0), kTimedOut);
  EXPECT_GT(request.fake.clock.now, start + 120);
  EXPECT_LE(request.fake.clock.now, start + 122);
}

TEST(WebServiceWait, AcceptsAnAnswerThatIsCompleteAtTheDeadline) {
  Request request;
  ExpectSuccess(WaitForPasses(&request, 60));
  EXPECT_EQ(request.fake.http.calls, Calls(60, "finish"));
  EXPECT_EQ(request.fake.clock.now, 1120);
  EXPECT_EQ(request.code, 200);
}

TEST(WebServiceWait, LooksAtTheDeadlineBeforeItLooksForTheEnd) {
  Request request;
  ExpectError(WaitForPasses(&request, 61), kTimedOut);
  EXPECT_EQ(request.fake.http.calls, Calls(61, "abandon"));
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceWait, CountsFromTheStartOfTheTransfer) {
  Request request;
  request.fake.http.onStart = [&] { request.fake.clock.now += 1000; };
  ExpectSuccess(WaitForPasses(&request, 60));
}

/// A clock on which every look takes a second.
class SlowClock : public FakeClock {
 public:
  std::time_t Now() override { return now++; }
};

TEST(WebServiceWait, KeepsItsDeadlineWithoutEverSleeping) {
  SlowClock clock;
  FakeNetwork fake;
  fake.network.clock = &clock;
  ScriptedAnswer& answer = fake.http.AnswerInParts({});
  answer.endless = true;
  answer.performResult = CURLM_CALL_MULTI_PERFORM;
  WebService ws(fake.network);
  ws.url = "http://h/p";
  long code = 0;
  ExpectError(OutcomeOf([&] { return ws.get(&code); }), kTimedOut);
  EXPECT_TRUE(clock.sleeps.empty());
  EXPECT_EQ(fake.http.calls, Calls(120, "abandon"));
}

// Which certificate the server is verified by.

/// How a request to `url` verifies its server, in words; the certificate file
/// stands without its directory.
std::string VerificationFor(const std::string& url, const char* verify) {
  const TempDirectory plugins;
  plugins.Write("known.pem", "");
  const ScopedEnvironment directory("QUORVEX_PLUGIN_PATH", plugins.path().c_str());
  Request request;
  const ScopedEnvironment variable("QUORVEX_SSL_VERIFY", verify);
  request.ws.url = url;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  const support::Verification& verification = request.fake.http.requests.at(0).verification;
  static const char* const kWords[] = {"unverified", "file", "file only", "system"};
  const std::string prefix = plugins.path() + "/";
  const std::string& file = verification.caFile;
  return std::string(kWords[static_cast<int>(verification.trust)]) + " " +
         (file.rfind(prefix, 0) == 0 ? file.substr(prefix.size()) : file);
}

TEST(WebServiceGet, VerifiesTheServerByItsFileInThePluginDirectory) {
  EXPECT_EQ(VerificationFor("https://known:8443/p", nullptr), "file known.pem");
  EXPECT_EQ(VerificationFor("https://KNOWN./p", "1"), "file known.pem");
  EXPECT_EQ(VerificationFor("http://known/p", "1"), "file known.pem");
}

TEST(WebServiceGet, DoesNotVerifyAServerWithoutAFile) {
  EXPECT_EQ(VerificationFor("https://other/p", nullptr), "unverified ");
  EXPECT_EQ(VerificationFor("https://", nullptr), "unverified ");
}

TEST(WebServiceGet, DoesNotVerifyWhenVerificationIsOff) {
  EXPECT_EQ(VerificationFor("https://known/p", "0"), "unverified ");
}

TEST(WebServiceGet, VerifiesEveryServerWhenThatIsRequired) {
  EXPECT_EQ(VerificationFor("https://known/p", "required"), "file only known.pem");
  EXPECT_EQ(VerificationFor("https://other/p", "required"), "system ");
  EXPECT_EQ(VerificationFor("https://other/p", "Required"), "unverified ");
}

// The channel.

/// A request over the channel with credentials and `fields`.
struct ChannelRequest : Request {
  explicit ChannelRequest(const std::vector<std::pair<std::string, std::string>>& fields = {}) {
    ws.url = "vrmo://h/p";
    for (const auto& [name, value] : fields) ws.field(name.c_str(), value.c_str());
  }
};

TEST(WebServiceChannel, TakesCredentialsOutOfTheRequestText) {
  ChannelRequest request({{"login", "joe"},
                          {"passwd", "pw"},
                          {"keydir", "/keys"},
                          {"action", "discover"},
                          {"name", "x"}});
  request.fake.channel.text = "***BEGIN***";
  ExpectSuccess(request.Get());
  EXPECT_THAT(request.fake.channel.calls,
              ElementsAre("init vrmo://h/p joe pw /keys 0", "request 13 action discover&name=x 0",
                          "shutdown"));
  EXPECT_TRUE(request.fake.http.calls.empty());
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
  EXPECT_EQ(request.Buffer(), "***BEGIN***");
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceChannel, JoinsThePairsInTheOrderOfTheirNames) {
  const struct {
    std::vector<std::pair<std::string, std::string>> fields;
    const char* text;
  } cases[] = {
      {{}, ""},
      {{{"b", "2"}, {"a", "1"}}, "a=1&b=2"},
      {{{"action", "get"}, {"id", ""}}, "get&id="},
      {{{"action", "get"}, {"Big", "1"}}, "Big=1get"},
      {{{"action", ""}, {"name", "x"}}, "name=x"},
      {{{"action", "get"}, {"a&b", "c=d%20&"}}, "a&b=c=d%20&get"},
      {{{"action", "get"}, {"logins", "x"}}, "get&logins=x"},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    ChannelRequest request(one.fields);
    ExpectSuccess(request.Get());
    EXPECT_THAT(request.fake.channel.calls,
                ElementsAre("init vrmo://h/p    0",
                            "request 13 action " + std::string(one.text) + " 0", "shutdown"));
  }
}

TEST(WebServiceChannel, IsChosenByTheWholeScheme) {
  for (const char* url : {"vrmo:/h", "vrmo", "VRMO://h", " vrmo://h", "http://vrmo://"}) {
    SCOPED_TRACE(url);
    Request request;
    request.ws.url = url;
    request.fake.http.Answer("text");
    ExpectSuccess(request.Get());
    EXPECT_TRUE(request.fake.channel.calls.empty());
  }
  ChannelRequest bare;
  bare.ws.url = "vrmo://";
  ExpectSuccess(bare.Get());
  EXPECT_TRUE(bare.fake.http.calls.empty());
}

TEST(WebServiceChannel, ReportsThatItCannotBeInitialised) {
  ChannelRequest request;
  request.fake.channel.init = false;
  ExpectError(request.Get(), "Can't initialize webservice.\n");
  EXPECT_EQ(request.fake.channel.calls.size(), 1u);
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceChannel, ReportsARequestThatWasNotDelivered) {
  ChannelRequest request;
  request.fake.channel.result = -1;
  request.fake.channel.status = 1;
  ExpectError(request.Get(), "Request failed.\n");
  EXPECT_EQ(request.fake.channel.calls.back(), "shutdown");
  EXPECT_EQ(request.Buffer(), "(null)");
}

TEST(WebServiceChannel, ReportsAReplyWithAStatus) {
  for (const int status : {1, -1, 200}) {
    SCOPED_TRACE(status);
    ChannelRequest request;
    request.fake.channel.status = status;
    request.fake.channel.text = "no";
    ExpectError(request.Get(), "return status failed.\n");
    EXPECT_EQ(request.fake.channel.calls.back(), "shutdown");
    EXPECT_EQ(request.Buffer(), "(null)");
    EXPECT_EQ(request.code, 0);
  }
}

TEST(WebServiceChannel, TakesAReplyWithoutText) {
  ChannelRequest request;
  request.fake.channel.hasText = false;
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.Buffer(), "(null)");
}

TEST(WebServiceChannel, AppendsTheReplyBeforeItShutsTheChannelDown) {
  ChannelRequest request;
  std::string atShutdown;
  request.fake.channel.text = "reply";
  request.fake.channel.onShutdown = [&] { atShutdown = request.Buffer(); };
  ExpectSuccess(request.Get());
  EXPECT_EQ(atShutdown, "reply");
}

TEST(WebServiceChannel, CutsAKeyDirectoryThatIsTooLong) {
  for (const std::size_t length : {5010u, 5011u, 5012u, 10000u}) {
    SCOPED_TRACE(length);
    ChannelRequest request({{"keydir", std::string(length, 'k')}});
    ExpectSuccess(request.Get());
    EXPECT_EQ(request.fake.channel.calls.front(),
              "init vrmo://h/p   " + std::string(std::min(length, std::size_t{5011}), 'k') + " 0");
  }
}

TEST(WebServiceChannel, LeavesNoCopyOfThePasswordButTheForms) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret secret(length);
    ChannelRequest request;
    request.ws.field("login", "joe");
    request.fake.channel.recordsCalls = false;
    secret.Reveal([&](const char* text) { request.ws.field("passwd", text); });
    EXPECT_EQ(request.ws.get(&request.code), 0);
    EXPECT_TRUE(secret.Is(request.ws.fields["passwd"]));
    EXPECT_EQ(secret.Copies(), 1U);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
