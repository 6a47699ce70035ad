#include "webservice/transport.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "support/handle.h"
#include "tests/testing/curl_double.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using storage::testing::CurlDouble;
using storage::testing::TempDirectory;

constexpr int kMaxPasses = 1000;
constexpr std::size_t kLongestAnswer = std::size_t{64} << 20;
constexpr std::size_t kBytesOfManyParts = 100000;

HttpRequest RequestFor(const std::string& url) {
  HttpRequest request;
  request.url = url;
  request.timeoutSeconds = 120;
  return request;
}

/// Polls until the transfer has ended. Nothing here waits for anybody, so it
/// ends at once or the test fails.
HttpOutcome RunToEnd(HttpTransfer* transfer) {
  int running = 1;
  for (int pass = 0; running != 0 && pass < kMaxPasses; ++pass) {
    EXPECT_EQ(transfer->Perform(&running), CURLM_OK);
  }
  EXPECT_EQ(running, 0);
  return transfer->Finish();
}

/// Performs `request` from beginning to end; the server's HTTP status is 418.
HttpOutcome RunRequest(const HttpRequest& request, WebServiceBuffer* answer) {
  CurlDouble curl;
  curl.httpStatus = 418;
  const auto transfer = HttpTransport::System().Start(request, answer);
  EXPECT_NE(transfer, nullptr);
  return transfer == nullptr ? HttpOutcome() : RunToEnd(transfer.get());
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(CurlTransport, IsOneForTheWholeProcess) {
  EXPECT_EQ(&HttpTransport::System(), &HttpTransport::System());
  EXPECT_EQ(&RequestChannel::System(), &RequestChannel::System());
}

TEST(CurlTransport, DeliversTheAnswerIntoTheBuffer) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "***BEGIN***\n0\na\nS\n");
  WebServiceBuffer answer;
  const HttpOutcome outcome = RunRequest(RequestFor("file://" + path), &answer);
  EXPECT_EQ(outcome.transferResult, CURLE_OK);
  EXPECT_EQ(outcome.responseCode, 418);
  ASSERT_NE(answer.data, nullptr);
  EXPECT_EQ(answer.size, 18u);
  EXPECT_STREQ(answer.data, "***BEGIN***\n0\na\nS\n");
}

TEST(CurlTransport, StartsNothingBeforeTheFirstPass) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "text");
  WebServiceBuffer answer;
  const auto transfer = HttpTransport::System().Start(RequestFor("file://" + path), &answer);
  ASSERT_NE(transfer, nullptr);
  EXPECT_EQ(answer.data, nullptr);
}

/// The options that libcurl is given for `request`.
std::string OptionsFor(const HttpRequest& request) {
  const CurlDouble curl;
  WebServiceBuffer answer;
  EXPECT_NE(HttpTransport::System().Start(request, &answer), nullptr);
  EXPECT_EQ(curl.pointers.at("WRITEDATA"), &answer);
  std::string options;
  for (const char* name :
       {"URL", "HTTPPOST", "CAINFO", "CAPATH", "SSL_VERIFYPEER", "SSL_VERIFYHOST", "NOSIGNAL",
        "TIMEOUT", "CONNECTTIMEOUT", "ERRORBUFFER"}) {
    options += (options.empty() ? "" : " ") + std::string(name) + "=" + curl.Option(name);
  }
  return options;
}

TEST(CurlTransport, AsksForAPlainGetWithoutVerificationByItself) {
  EXPECT_EQ(OptionsFor(RequestFor("http://h/p")),
            "URL=http://h/p HTTPPOST=(unset) CAINFO=(unset) CAPATH=(unset) SSL_VERIFYPEER=0 "
            "SSL_VERIFYHOST=0 NOSIGNAL=1 TIMEOUT=120 CONNECTTIMEOUT=120 ERRORBUFFER=(set)");
}

TEST(CurlTransport, PostsAFormAndVerifiesTheServerByACertificateFile) {
  const FormFields fields = {{"action", "register"}, {"empty", ""}, {"hostName", "h"}};
  HttpRequest request = RequestFor("https://h/p");
  request.form = &fields;
  request.caFile = "/certs/h.pem";
  request.timeoutSeconds = 30;
  EXPECT_EQ(OptionsFor(request),
            "URL=https://h/p HTTPPOST=(set) CAINFO=/certs/h.pem CAPATH=(unset) SSL_VERIFYPEER=1 "
            "SSL_VERIFYHOST=2 NOSIGNAL=1 TIMEOUT=30 CONNECTTIMEOUT=30 ERRORBUFFER=(set)");
}

TEST(CurlTransport, BuildsTheFormInTheOrderOfItsNames) {
  const FormFields fields = {{"type", "t"}, {"action", ""}, {"hostName", "h"}};
  HttpRequest request = RequestFor("http://h/p");
  request.form = &fields;
  const CurlDouble curl;
  WebServiceBuffer answer;
  const auto transfer = HttpTransport::System().Start(request, &answer);
  ASSERT_NE(transfer, nullptr);
  std::string form;
  for (const auto* part = static_cast<curl_httppost*>(curl.pointers.at("HTTPPOST"));
       part != nullptr; part = part->next) {
    form += std::string(part->name) + "=" + part->contents + ";";
  }
  EXPECT_EQ(form, "action=;hostName=h;type=t;");
}

TEST(CurlTransport, StartsNothingWhenTheNetworkLayerCannotBeInitialised) {
  CurlDouble curl;
  WebServiceBuffer answer;
  curl.hasHandles = false;
  EXPECT_EQ(HttpTransport::System().Start(RequestFor("http://h/p"), &answer), nullptr);
}

/// The multi code of a transfer's only pass, after which it must have ended
/// without having received anything.
int OnlyPass(const HttpRequest& request) {
  WebServiceBuffer answer;
  const auto transfer = HttpTransport::System().Start(request, &answer);
  EXPECT_NE(transfer, nullptr);
  int running = 1;
  const int result = transfer->Perform(&running);
  EXPECT_EQ(running, 0);
  EXPECT_EQ(answer.data, nullptr);
  transfer->Finish();
  return result;
}

TEST(CurlTransport, SendsNothingThatCannotBeSetUpAsItWasAsked) {
  const TempDirectory directory;
  HttpRequest request = RequestFor("file://" + directory.Write("answer", "text"));
  request.caFile = "/certs/h.pem";
  CurlDouble curl;
  for (const char* option : {"CAINFO", "SSL_VERIFYPEER", "SSL_VERIFYHOST"}) {
    SCOPED_TRACE(option);
    curl.refusedOption = option;
    EXPECT_NE(OnlyPass(request), CURLM_OK);
  }
  curl.refusal = CURLE_OUT_OF_MEMORY;
  for (const char* option : {"URL", "TIMEOUT", "ERRORBUFFER"}) {
    SCOPED_TRACE(option);
    curl.refusedOption = option;
    EXPECT_NE(OnlyPass(request), CURLM_OK);
  }
}

TEST(CurlTransport, GoesOnWithoutATimeOutThatIsRefused) {
  const TempDirectory directory;
  HttpRequest request = RequestFor("file://" + directory.Write("answer", "text"));
  request.timeoutSeconds = -1;
  WebServiceBuffer answer;
  EXPECT_EQ(RunRequest(request, &answer).transferResult, CURLE_OK);
  EXPECT_STREQ(answer.data, "text");
}

TEST(CurlTransport, ReportsHowATransferFailed) {
  const TempDirectory directory;
  const struct {
    std::string url;
    int result;
  } cases[] = {{"file://" + directory.File("none"), CURLE_FILE_COULDNT_READ_FILE},
               {"nosuchscheme://host/", CURLE_UNSUPPORTED_PROTOCOL},
               {"http://[half/", CURLE_URL_MALFORMAT}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.url);
    WebServiceBuffer answer;
    const HttpOutcome outcome = RunRequest(RequestFor(one.url), &answer);
    EXPECT_EQ(outcome.transferResult, one.result);
    EXPECT_EQ(outcome.responseCode, 418);
    EXPECT_EQ(answer.data, nullptr);
  }
}

TEST(CurlTransport, FailsWhenTheBufferTakesNoMore) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "one byte too many");
  WebServiceBuffer answer;
  ASSERT_TRUE(answer.Append(std::string(kLongestAnswer, 'x').data(), kLongestAnswer));
  EXPECT_EQ(RunRequest(RequestFor("file://" + path), &answer).transferResult, CURLE_WRITE_ERROR);
  EXPECT_EQ(answer.data, nullptr);
}

/// Receives an answer of several parts into `*answer`, which has room for `room`
/// bytes more; how the transfer ended.
int ReceiveParts(std::size_t room, WebServiceBuffer* answer) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", std::string(kBytesOfManyParts, 'y'));
  const std::string before(kLongestAnswer - room, 'x');
  EXPECT_TRUE(answer->Append(before.data(), before.size()));
  return RunRequest(RequestFor("file://" + path), answer).transferResult;
}

TEST(CurlTransport, FailsWhenTheBufferTakesTheFirstPartsAlone) {
  WebServiceBuffer whole;
  EXPECT_EQ(ReceiveParts(kBytesOfManyParts, &whole), CURLE_OK);
  EXPECT_EQ(whole.size, kLongestAnswer);
  WebServiceBuffer tooLong;
  EXPECT_EQ(ReceiveParts(kBytesOfManyParts - 1, &tooLong), CURLE_WRITE_ERROR);
  EXPECT_EQ(tooLong.data, nullptr);
}

TEST(CurlTransfer, CleansUpWhenItGoesBeforeItsEnd) {
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  auto transfer = HttpTransport::System().Start(RequestFor("nosuchscheme://host/"), &answer);
  ASSERT_NE(transfer, nullptr);
  EXPECT_GT(OpenDescriptors(), before);
  transfer.reset();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(CurlTransfer, CleansUpAsItFinishes) {
  const CurlDouble curl;
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  const auto transfer = HttpTransport::System().Start(RequestFor("nosuchscheme://host/"), &answer);
  ASSERT_NE(transfer, nullptr);
  RunToEnd(transfer.get());
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(CurlTransfer, CleansNothingUpOnceItIsAbandoned) {
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  auto transfer = HttpTransport::System().Start(RequestFor("nosuchscheme://host/"), &answer);
  ASSERT_NE(transfer, nullptr);
  const std::ptrdiff_t during = OpenDescriptors();
  ASSERT_GT(during, before);
  transfer->Abandon();
  transfer.reset();
  EXPECT_EQ(OpenDescriptors(), during);
}

// A login with a colon cannot be expressed; it alone makes Init refuse, which
// shows in which order the texts arrive.
TEST(RequestChannel, PassesAddressLoginAndPasswordOn) {
  RequestChannel& channel = RequestChannel::System();
  EXPECT_EQ(channel.Init("vrmo://h", "l:x", "p", "/k", 0), nullptr);
  EXPECT_EQ(channel.Init("vrmo://", "l", "p", "/k", 0), nullptr);
  WSHandle* const handle = channel.Init("vrmo://h", "l", "p:x", "/k:x", 0);
  EXPECT_NE(handle, nullptr);
  channel.Shutdown(handle);
}

TEST(RequestChannel, PassesARequestOnAndItsReplyBack) {
  CurlDouble curl;
  curl.statusHeaders = {"7"};
  curl.parts = {"reply"};
  RequestChannel& channel = RequestChannel::System();
  WSHandle* const handle = channel.Init("vrmo://h", "l", "p", "", 0);
  ASSERT_NE(handle, nullptr);
  WSReply reply;
  EXPECT_EQ(channel.Request(handle, 13, &reply, "action", "discover&a=b", 0), 0);
  channel.Shutdown(handle);
  const support::HeapText text(reply.text);
  EXPECT_EQ(reply.status, 7);
  EXPECT_STREQ(text.get(), "reply");
  EXPECT_THAT(curl.bodies, ::testing::ElementsAre("discover&a=b"));
  EXPECT_EQ(curl.Option("USERNAME") + "/" + curl.Option("PASSWORD"), "l/p");
  EXPECT_THAT(curl.Option("HTTPHEADER"),
              ::testing::HasSubstr("Request-Kind: 13|X-Quorvex-Parameter: action|"));
}

TEST(RequestChannel, PassesTheFailureOfARequestBack) {
  CurlDouble curl;
  curl.performResult = CURLE_COULDNT_CONNECT;
  RequestChannel& channel = RequestChannel::System();
  WSHandle* const handle = channel.Init("vrmo://h", "l", "p", "", 0);
  ASSERT_NE(handle, nullptr);
  WSReply reply;
  EXPECT_NE(channel.Request(handle, 13, &reply, "action", "discover", 0), 0);
  EXPECT_EQ(reply.text, nullptr);
  channel.Shutdown(handle);
}

TEST(Network, GoesThroughTheMachinesOwnClockAndTransports) {
  const Network network;
  EXPECT_EQ(network.clock, &support::Clock::System());
  EXPECT_EQ(network.http, &HttpTransport::System());
  EXPECT_EQ(network.channel, &RequestChannel::System());
}

}  // namespace
}  // namespace corvel::storage::tzregister
