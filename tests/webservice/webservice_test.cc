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

#include "tests/testing/fake_network.h"
#include "tests/testing/heap_watch.h"
#include "tests/testing/output_capture.h"
#include "tests/testing/scoped_environment.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using storage::testing::CapturedCall;
using storage::testing::FakeNetwork;
using storage::testing::ScopedEnvironment;
using storage::testing::ScriptedAnswer;
using ::testing::ElementsAre;
using ::testing::Pair;

constexpr long kStaleCode = 999;

/// A request over fakes. The server's certificate is not looked for.
struct Request {
  Request() { ws.url = "http://h/p"; }

  CapturedCall Get() {
    return storage::testing::Captured([&] { return ws.get(&code); });
  }

  std::string Buffer() const {
    return ws.buffer.data == nullptr ? "(null)" : std::string(ws.buffer.data, ws.buffer.size);
  }

  const ScopedEnvironment unverified{"QUORVEX_SSL_VERIFY", "0"};
  FakeNetwork fake;
  WebService ws{fake.network};
  long code = kStaleCode;
};

void ExpectSuccess(const CapturedCall& get) {
  EXPECT_EQ(get.result, 0);
  EXPECT_EQ(get.out + get.err, "");
}

void ExpectFailure(const CapturedCall& get, const std::string& message) {
  EXPECT_EQ(get.result, -1);
  EXPECT_EQ(get.out, "");
  EXPECT_EQ(get.err, message);
}

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
  const WebService ws;
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
  WebService ws;
  EXPECT_EQ(ws.field("type", "t"), 0);
  EXPECT_EQ(ws.field("action", "a"), 0);
  EXPECT_EQ(ws.field("hostName", "h"), 0);
  EXPECT_EQ(ws.field("Z", "z"), 0);
  EXPECT_THAT(ws.fields, ElementsAre(Pair("Z", "z"), Pair("action", "a"), Pair("hostName", "h"),
                                     Pair("type", "t")));
}

TEST(WebServiceField, KeepsTheFirstValueOfAName) {
  WebService ws;
  ws.field("a", "first");
  EXPECT_EQ(ws.field("a", "second"), 0);
  EXPECT_EQ(ws.field("a", 3), 0);
  EXPECT_THAT(ws.fields, ElementsAre(Pair("a", "first")));
}

TEST(WebServiceField, CopiesItsTexts) {
  WebService ws;
  std::string name = "name";
  std::string value = "value";
  ws.field(name.c_str(), value.c_str());
  name = value = "other";
  EXPECT_THAT(ws.fields, ElementsAre(Pair("name", "value")));
}

TEST(WebServiceField, WritesNumbersInDecimal) {
  WebService ws;
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
  ExpectFailure(request.Get(), "No URL specified\n");
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
    request.fake.http.script.push_back({true, {"bo", "dy"}, false, CURLM_OK, {CURLE_OK, status}});
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
  request.fake.http.script.push_back({false, {}, false, CURLM_OK, {}});
  ExpectFailure(request.Get(), "Can't initialize webservice network layer\n");
  EXPECT_EQ(request.code, 0);
  EXPECT_THAT(request.fake.http.calls, ElementsAre("start"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

TEST(WebServiceGet, ReportsATransferThatFailed) {
  Request request;
  request.fake.http.script.push_back(
      {true, {"part"}, false, CURLM_OK, {CURLE_COULDNT_CONNECT, 502}});
  ExpectFailure(request.Get(), kNetworkError);
  EXPECT_EQ(request.code, 502);
  EXPECT_EQ(request.fake.http.calls, Calls(1, "finish"));
}

TEST(WebServiceGet, ReportsAPollThatFailed) {
  Request request;
  request.fake.http.script.push_back({true, {""}, false, CURLM_BAD_HANDLE, {CURLE_OK, 200}});
  ExpectFailure(request.Get(), kNetworkError);
  EXPECT_EQ(request.code, 200);
}

TEST(WebServiceGet, LetsOnlyTheLastPollCount) {
  Request good;
  good.fake.http.script.push_back({true, {"a", "b"}, false, CURLM_OK, {}, {CURLM_OUT_OF_MEMORY}});
  ExpectSuccess(good.Get());
  Request bad;
  bad.fake.http.script.push_back({true, {"a", "b"}, false, CURLM_OUT_OF_MEMORY, {}, {CURLM_OK}});
  ExpectFailure(bad.Get(), kNetworkError);
}

// The wait.

TEST(WebServiceWait, SleepsTwoSecondsAfterEveryPassTheLastOneToo) {
  Request request;
  request.fake.http.Answer("text");
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.fake.http.calls, Calls(1, "finish"));
  EXPECT_THAT(request.fake.clock.sleeps, ElementsAre(2u));

  Request longer;
  longer.fake.http.script.push_back({true, {"a", "b", "c"}, false, CURLM_OK, {}});
  ExpectSuccess(longer.Get());
  EXPECT_EQ(longer.fake.http.calls, Calls(3, "finish"));
  EXPECT_THAT(longer.fake.clock.sleeps, ElementsAre(2u, 2u, 2u));
}

TEST(WebServiceWait, DoesNotSleepWhenItIsToPollAgainAtOnce) {
  Request request;
  request.fake.http.script.push_back(
      {true, {"a", "b", "c"}, false, CURLM_OK, {}, {CURLM_CALL_MULTI_PERFORM, CURLM_OK}});
  ExpectSuccess(request.Get());
  EXPECT_EQ(request.fake.http.calls, Calls(3, "finish"));
  EXPECT_THAT(request.fake.clock.sleeps, ElementsAre(2u, 2u));
}

TEST(WebServiceWait, EndsATransferWhoseLastPassAsksForAnother) {
  Request request;
  request.fake.http.script.push_back({true, {"a", "b"}, false, CURLM_CALL_MULTI_PERFORM, {}});
  ExpectFailure(request.Get(), kNetworkError);
  EXPECT_EQ(request.fake.http.calls, Calls(2, "finish"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

/// A request whose answer is complete with pass number `passes`; 0 for never.
CapturedCall WaitForPasses(Request* request, std::size_t passes) {
  ScriptedAnswer answer;
  answer.endless = passes == 0;
  answer.parts.assign(passes, "x");
  answer.outcome = {CURLE_OK, 200};
  request->fake.http.script.push_back(answer);
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
    ExpectFailure(WaitForPasses(&request, 0), kTimedOut);
    EXPECT_EQ(request.fake.http.calls, Calls(one.passes, "abandon"));
    EXPECT_EQ(request.fake.clock.sleeps, std::vector<unsigned>(one.passes, 2));
    EXPECT_EQ(request.code, 0);
  }
}

TEST(WebServiceWait, GivesUpAtOnceWhenTheDeadlineLiesInThePast) {
  Request request;
  request.ws.timeout = -1;
  ExpectFailure(WaitForPasses(&request, 0), kTimedOut);
  EXPECT_EQ(request.fake.http.calls, Calls(0, "abandon"));
  EXPECT_TRUE(request.fake.clock.sleeps.empty());
}

TEST(WebServiceWait, TakesHundredAndTwentyToHundredAndTwentyTwoSecondsAtMost) {
  Request request;
  const std::time_t start = request.fake.clock.now;
  ExpectFailure(WaitForPasses(&request, 0), kTimedOut);
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
  ExpectFailure(WaitForPasses(&request, 61), kTimedOut);
  EXPECT_EQ(request.fake.http.calls, Calls(61, "abandon"));
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceWait, CountsFromTheStartOfTheTransfer) {
  Request request;
  request.fake.http.onStart = [&] { request.fake.clock.now += 1000; };
  ExpectSuccess(WaitForPasses(&request, 60));
}

/// A clock on which every look takes a second.
class SlowClock : public storage::testing::FakeClock {
 public:
  std::time_t Now() override { return now++; }
};

TEST(WebServiceWait, KeepsItsDeadlineWithoutEverSleeping) {
  SlowClock clock;
  FakeNetwork fake;
  fake.network.clock = &clock;
  fake.http.script.push_back({true, {}, true, CURLM_CALL_MULTI_PERFORM, {}});
  WebService ws(fake.network);
  ws.url = "http://h/p";
  long code = 0;
  ExpectFailure(storage::testing::Captured([&] { return ws.get(&code); }), kTimedOut);
  EXPECT_TRUE(clock.sleeps.empty());
  EXPECT_EQ(fake.http.calls, Calls(120, "abandon"));
}

// Which certificate the server is verified by.

/// How a request to `url` verifies its server, in words; the certificate file
/// stands without its directory.
std::string VerificationFor(const std::string& url, const char* verify) {
  const storage::testing::TempDirectory plugins;
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
  ExpectFailure(request.Get(), "Can't initialize webservice.\n");
  EXPECT_EQ(request.fake.channel.calls.size(), 1u);
  EXPECT_EQ(request.code, 0);
}

TEST(WebServiceChannel, ReportsARequestThatWasNotDelivered) {
  ChannelRequest request;
  request.fake.channel.result = -1;
  request.fake.channel.status = 1;
  ExpectFailure(request.Get(), "Request failed.\n");
  EXPECT_EQ(request.fake.channel.calls.back(), "shutdown");
  EXPECT_EQ(request.Buffer(), "(null)");
}

TEST(WebServiceChannel, ReportsAReplyWithAStatus) {
  for (const int status : {1, -1, 200}) {
    SCOPED_TRACE(status);
    ChannelRequest request;
    request.fake.channel.status = status;
    request.fake.channel.text = "no";
    ExpectFailure(request.Get(), "return status failed.\n");
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
  const std::string secret = "a password too long to lie inside an object";
  ChannelRequest request({{"login", "joe"}, {"passwd", secret}});
  request.fake.channel.recordsCalls = false;
  const storage::testing::FreedTextWatch watch(secret);
  ExpectSuccess(request.Get());
  EXPECT_FALSE(watch.seen());
}

}  // namespace
}  // namespace corvel::storage::tzregister
