#include "webservice/transport.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "support/handle.h"
#include "support/transfer_socket.h"
#include "tests/testing/allocation_limit.h"
#include "tests/testing/curl_double.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using storage::testing::CurlDouble;
using storage::testing::TempDirectory;
using ::testing::IsEmpty;

constexpr int kMaxPasses = 100000;
constexpr std::size_t kLongestAnswer = std::size_t{256} << 20;
constexpr std::size_t kLastParts = std::size_t{64} << 10;

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

/// The form that libcurl is given last.
std::string FormIn(const CurlDouble& curl) {
  std::string form;
  for (const auto* part = static_cast<curl_httppost*>(curl.pointers.at("HTTPPOST"));
       part != nullptr; part = part->next) {
    form += std::string(part->name) + "=" + part->contents + ";";
  }
  return form;
}

class CurlTransport : public ::testing::Test {
 protected:
  /// Performs `request` from beginning to end; the server's HTTP status is 418.
  HttpOutcome RunRequest(const HttpRequest& request, WebServiceBuffer* answer) {
    CurlDouble curl;
    curl.httpStatus = 418;
    const auto transfer = transport->Start(request, answer);
    EXPECT_NE(transfer, nullptr);
    return transfer == nullptr ? HttpOutcome() : RunToEnd(transfer.get());
  }

  /// The options that libcurl is given for `request`.
  std::string OptionsFor(const HttpRequest& request) {
    const CurlDouble curl;
    WebServiceBuffer answer;
    EXPECT_NE(transport->Start(request, &answer), nullptr);
    EXPECT_EQ(curl.pointers.at("WRITEDATA"), &answer);
    std::string options;
    for (const char* name :
         {"URL", "HTTPPOST", "CAINFO", "CAPATH", "SSL_VERIFYPEER", "SSL_VERIFYHOST", "NOSIGNAL",
          "TIMEOUT", "CONNECTTIMEOUT", "ERRORBUFFER"}) {
      options += (options.empty() ? "" : " ") + std::string(name) + "=" + curl.Option(name);
    }
    return options;
  }

  /// The multi code of a transfer's only pass, after which it must have ended
  /// without having received anything.
  int OnlyPass(const HttpRequest& request) {
    WebServiceBuffer answer;
    const auto transfer = transport->Start(request, &answer);
    EXPECT_NE(transfer, nullptr);
    int running = 1;
    const int result = transfer->Perform(&running);
    EXPECT_EQ(running, 0);
    EXPECT_EQ(answer.data, nullptr);
    transfer->Finish();
    return result;
  }

  std::unique_ptr<HttpTransport> transport = HttpTransport::Curl();
};

class CurlTransfer : public CurlTransport {};

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(RequestChannel, IsOneForTheWholeProcess) {
  EXPECT_EQ(&RequestChannel::System(), &RequestChannel::System());
}

TEST_F(CurlTransport, DeliversTheAnswerIntoTheBuffer) {
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

TEST_F(CurlTransport, StartsNothingBeforeTheFirstPass) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "text");
  WebServiceBuffer answer;
  const auto transfer = transport->Start(RequestFor("file://" + path), &answer);
  ASSERT_NE(transfer, nullptr);
  EXPECT_EQ(answer.data, nullptr);
}

TEST_F(CurlTransport, AsksForAPlainGetWithoutVerificationByItself) {
  EXPECT_EQ(OptionsFor(RequestFor("http://h/p")),
            "URL=http://h/p HTTPPOST=(unset) CAINFO=(unset) CAPATH=(unset) SSL_VERIFYPEER=0 "
            "SSL_VERIFYHOST=0 NOSIGNAL=1 TIMEOUT=120 CONNECTTIMEOUT=120 ERRORBUFFER=(set)");
}

TEST_F(CurlTransport, PostsAFormAndVerifiesTheServerByACertificateFile) {
  const FormFields fields = {{"action", "register"}, {"empty", ""}, {"hostName", "h"}};
  HttpRequest request = RequestFor("https://h/p");
  request.form = &fields;
  request.verification = {support::ServerTrust::kFile, "/certs/h.pem"};
  request.timeoutSeconds = 30;
  EXPECT_EQ(OptionsFor(request),
            "URL=https://h/p HTTPPOST=(set) CAINFO=/certs/h.pem CAPATH=(unset) SSL_VERIFYPEER=1 "
            "SSL_VERIFYHOST=2 NOSIGNAL=1 TIMEOUT=30 CONNECTTIMEOUT=30 ERRORBUFFER=(set)");
}

TEST_F(CurlTransport, BuildsTheFormInTheOrderOfItsNames) {
  const FormFields fields = {{"type", "t"}, {"action", ""}, {"hostName", "h"}};
  HttpRequest request = RequestFor("http://h/p");
  request.form = &fields;
  const CurlDouble curl;
  WebServiceBuffer answer;
  const auto transfer = transport->Start(request, &answer);
  ASSERT_NE(transfer, nullptr);
  EXPECT_EQ(FormIn(curl), "action=;hostName=h;type=t;");
}

TEST_F(CurlTransport, SendsNoFormThatLacksAFieldForWantOfMemory) {
  const TempDirectory directory;
  const FormFields fields = {{"action", "a"}, {"hostName", "h"}, {"type", "t"}};
  HttpRequest request = RequestFor("file://" + directory.Write("answer", "text"));
  request.form = &fields;
  CurlDouble curl;
  WebServiceBuffer answer;
  std::unique_ptr<HttpTransfer> transfer;
  const std::size_t failed = storage::testing::ForEachFailedAllocation(
      [&] {
        transfer.reset();
        curl.pointers.clear();
        transfer = transport->Start(request, &answer);
      },
      [&](bool threw) {
        int running = 1;
        if (threw || transfer == nullptr || transfer->Perform(&running) != CURLM_OK) return;
        EXPECT_EQ(FormIn(curl), "action=a;hostName=h;type=t;");
      });
  EXPECT_GT(failed, 20U);
}

TEST_F(CurlTransport, LetsRequestsShareWhatTheyLeaveBehind) {
  const CurlDouble curl;
  WebServiceBuffer answer;
  const auto first = transport->Start(RequestFor("http://h/p"), &answer);
  void* const share = curl.pointers.at("SHARE");
  const auto second = transport->Start(RequestFor("http://h/p"), &answer);
  EXPECT_NE(share, nullptr);
  EXPECT_EQ(curl.pointers.at("SHARE"), share);
}

TEST_F(CurlTransport, GrantsEachRequestItsOwnTimeForConnecting) {
  const CurlDouble curl;
  WebServiceBuffer answer;
  const auto first = transport->Start(RequestFor("http://h/p"), &answer);
  auto* const wait = static_cast<std::chrono::milliseconds*>(curl.pointers.at("OPENSOCKETDATA"));
  EXPECT_EQ(*wait, support::kConnectWait);
  const auto second = transport->Start(RequestFor("http://h/p"), &answer);
  EXPECT_NE(curl.pointers.at("OPENSOCKETDATA"), wait);
}

TEST_F(CurlTransport, StartsNothingWhenTheNetworkLayerCannotBeInitialised) {
  CurlDouble curl;
  WebServiceBuffer answer;
  curl.hasHandles = false;
  EXPECT_EQ(transport->Start(RequestFor("http://h/p"), &answer), nullptr);
}

TEST_F(CurlTransport, TouchesNothingOfALibraryThatCouldNotBeBroughtUp) {
  CurlDouble curl;
  WebServiceBuffer answer;
  curl.startResult = CURLE_OUT_OF_MEMORY;
  EXPECT_EQ(transport->Start(RequestFor("http://h/p"), &answer), nullptr);
  EXPECT_THAT(curl.options, IsEmpty());
}

TEST_F(CurlTransport, LeavesItToTheRequestWhatElseTheLibraryLacks) {
  CurlDouble curl;
  WebServiceBuffer answer;
  curl.startResult = CURLE_FAILED_INIT;
  EXPECT_NE(transport->Start(RequestFor("http://h/p"), &answer), nullptr);
}

TEST_F(CurlTransport, SendsNothingThatCannotBeSetUpAsItWasAsked) {
  const TempDirectory directory;
  HttpRequest request = RequestFor("file://" + directory.Write("answer", "text"));
  request.verification = {support::ServerTrust::kFile, "/certs/h.pem"};
  CurlDouble curl;
  for (const char* option : {"CAINFO", "SSL_VERIFYPEER", "SSL_VERIFYHOST"}) {
    SCOPED_TRACE(option);
    curl.refusedOption = option;
    EXPECT_NE(OnlyPass(request), CURLM_OK);
  }
  curl.refusal = CURLE_OUT_OF_MEMORY;
  for (const char* option : {"URL", "TIMEOUT", "ERRORBUFFER", "SHARE"}) {
    SCOPED_TRACE(option);
    curl.refusedOption = option;
    EXPECT_NE(OnlyPass(request), CURLM_OK);
  }
}

TEST_F(CurlTransport, GoesOnWithoutATimeOutThatIsRefused) {
  const TempDirectory directory;
  HttpRequest request = RequestFor("file://" + directory.Write("answer", "text"));
  request.timeoutSeconds = -1;
  WebServiceBuffer answer;
  EXPECT_EQ(RunRequest(request, &answer).transferResult, CURLE_OK);
  EXPECT_STREQ(answer.data, "text");
}

TEST_F(CurlTransport, ReportsHowATransferFailed) {
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

TEST_F(CurlTransport, FailsWhenTheBufferTakesNoMore) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "one byte too many");
  WebServiceBuffer answer;
  ASSERT_TRUE(answer.Append(std::string(kLongestAnswer, 'x').data(), kLongestAnswer));
  EXPECT_EQ(RunRequest(RequestFor("file://" + path), &answer).transferResult, CURLE_WRITE_ERROR);
  EXPECT_EQ(answer.data, nullptr);
}

TEST_F(CurlTransport, FailsWhenTheBufferTakesTheFirstPartsAlone) {
  const TempDirectory directory;
  const std::string path = directory.Write("answer", "");
  // Most of it is there already: a sanitizer's realloc copies at every part.
  const std::string most(kLongestAnswer - kLastParts, 'x');
  WebServiceBuffer whole;
  ASSERT_TRUE(whole.Append(most.data(), most.size()));
  std::filesystem::resize_file(path, kLastParts);
  EXPECT_EQ(RunRequest(RequestFor("file://" + path), &whole).transferResult, CURLE_OK);
  EXPECT_EQ(whole.size, kLongestAnswer);
  WebServiceBuffer tooLong;
  ASSERT_TRUE(tooLong.Append(most.data(), most.size()));
  std::filesystem::resize_file(path, kLastParts + 1);
  EXPECT_EQ(RunRequest(RequestFor("file://" + path), &tooLong).transferResult, CURLE_WRITE_ERROR);
  EXPECT_EQ(tooLong.data, nullptr);
}

TEST_F(CurlTransfer, CleansUpWhenItGoesBeforeItsEnd) {
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  auto transfer = transport->Start(RequestFor("nosuchscheme://host/"), &answer);
  ASSERT_NE(transfer, nullptr);
  EXPECT_GT(OpenDescriptors(), before);
  transfer.reset();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(CurlTransfer, CleansUpAsItFinishes) {
  const CurlDouble curl;
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  const auto transfer = transport->Start(RequestFor("nosuchscheme://host/"), &answer);
  ASSERT_NE(transfer, nullptr);
  RunToEnd(transfer.get());
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(CurlTransfer, CleansNothingUpOnceItIsAbandoned) {
  const std::ptrdiff_t before = OpenDescriptors();
  WebServiceBuffer answer;
  auto transfer = transport->Start(RequestFor("nosuchscheme://host/"), &answer);
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

TEST(Network, GoesThroughTheMachinesOwnClockAndChannel) {
  const Network network;
  EXPECT_EQ(network.clock, &support::Clock::System());
  EXPECT_EQ(network.channel, &RequestChannel::System());
}

}  // namespace
}  // namespace corvel::storage::tzregister
