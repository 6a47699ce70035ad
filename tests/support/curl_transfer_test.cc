#include "support/curl_transfer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "support/transfer_socket.h"
#include "tests/testing/curl_double.h"

namespace corvel::storage::support {
namespace {

using storage::testing::CurlDouble;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

using Lines = std::vector<std::string>;

ReceiveBuffer answer;
char errorText[CURL_ERROR_SIZE];

TransferSettings Settings(ServerTrust trust) {
  TransferSettings settings;
  settings.url = "https://spa/ws_agent.php";
  settings.answer = &answer;
  settings.verification = {trust, "/certs/spa.pem"};
  settings.timeoutSeconds = 120;
  settings.errorText = errorText;
  return settings;
}

class CurlTransferTest : public ::testing::Test {
 protected:
  /// The options that `settings` give a handle.
  Lines Configured(const TransferSettings& settings) {
    curl.options.clear();
    EXPECT_TRUE(ConfigureTransfer(handle.get(), settings));
    return curl.options;
  }

  CurlDouble curl;
  CurlEasyPtr handle{curl_easy_init()};
};

/// The options of every transfer, with those of its trust in between.
Lines WithTrust(const Lines& trust) {
  Lines options = {"URL=https://spa/ws_agent.php", "WRITEFUNCTION=(set)", "WRITEDATA=(set)"};
  options.insert(options.end(), trust.begin(), trust.end());
  options.insert(options.end(), {"NOSIGNAL=1", "TIMEOUT=120", "CONNECTTIMEOUT=120",
                                 "ERRORBUFFER=(set)", "HEADERFUNCTION=(set)", "HEADERDATA=(set)"});
  return options;
}

TEST_F(CurlTransferTest, AnUnverifiedServerMayBeAnybody) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kUnverified)),
              ElementsAreArray(WithTrust({"SSL_VERIFYPEER=0", "SSL_VERIFYHOST=0"})));
}

TEST_F(CurlTransferTest, AFileIsTrustedBesideTheSystemsAuthorities) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kFile)),
              ElementsAreArray(
                  WithTrust({"CAINFO=/certs/spa.pem", "SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2"})));
}

TEST_F(CurlTransferTest, AFileAloneTakesThePlaceOfTheSystemsAuthorities) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kFileOnly)),
              ElementsAreArray(WithTrust({"CAINFO=/certs/spa.pem", "CAPATH=(null)",
                                          "SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2"})));
}

TEST_F(CurlTransferTest, TheSystemsAuthoritiesAreThoseOfTheLibrary) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kSystem)),
              ElementsAreArray(WithTrust({"SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2"})));
}

TEST_F(CurlTransferTest, TheAnswerGoesToTheGivenBuffer) {
  Configured(Settings(ServerTrust::kUnverified));
  EXPECT_EQ(curl.pointers["WRITEFUNCTION"], reinterpret_cast<void*>(data_callback));
  EXPECT_EQ(curl.pointers["WRITEDATA"], &answer);
  EXPECT_EQ(curl.pointers["ERRORBUFFER"], errorText);
  EXPECT_EQ(curl.pointers["HEADERFUNCTION"], reinterpret_cast<void*>(header_callback));
  EXPECT_EQ(curl.pointers["HEADERDATA"], &answer);
}

TEST_F(CurlTransferTest, TheAnswerHasUntilTheTimeOut) {
  for (const long seconds : {1L, 120L}) {
    TransferSettings settings = Settings(ServerTrust::kUnverified);
    settings.timeoutSeconds = seconds;
    const auto before = std::chrono::steady_clock::now();
    Configured(settings);
    EXPECT_GE(answer.deadline, before + std::chrono::seconds(seconds));
    EXPECT_LE(answer.deadline, std::chrono::steady_clock::now() + std::chrono::seconds(seconds));
  }
}

TEST_F(CurlTransferTest, AFormIsAttachedBehindTheUrl) {
  Form form;
  ASSERT_TRUE(form.Add("name", "value"));
  TransferSettings settings = Settings(ServerTrust::kUnverified);
  settings.form = &form;
  Lines expected = WithTrust({"SSL_VERIFYPEER=0", "SSL_VERIFYHOST=0"});
  expected.insert(expected.begin() + 1, "HTTPPOST=(set)");
  EXPECT_THAT(Configured(settings), ElementsAreArray(expected));
  EXPECT_EQ(curl.pointers["HTTPPOST"], form.parts());
}

TEST_F(CurlTransferTest, TimeOutsAreThoseOfTheSettings) {
  TransferSettings settings = Settings(ServerTrust::kUnverified);
  settings.timeoutSeconds = 7;
  EXPECT_THAT(Configured(settings), Contains("TIMEOUT=7"));
  EXPECT_THAT(curl.options, Contains("CONNECTTIMEOUT=7"));
}

std::string OptionName(const std::string& line) { return line.substr(0, line.find('=')); }

TEST_F(CurlTransferTest, NothingIsSentWithoutWhatVerificationAndLimitsRestOn) {
  const Lines needed = {"CAINFO",         "CAPATH",         "SSL_VERIFYPEER",
                        "SSL_VERIFYHOST", "HEADERFUNCTION", "HEADERDATA"};
  for (const std::string& line : Configured(Settings(ServerTrust::kFileOnly))) {
    curl.refusedOption = OptionName(line);
    const bool required = std::count(needed.begin(), needed.end(), curl.refusedOption) > 0;
    EXPECT_EQ(ConfigureTransfer(handle.get(), Settings(ServerTrust::kFileOnly)), !required) << line;
  }
}

TEST_F(CurlTransferTest, ARefusalThatEndsNothingLeavesTheOtherOptionsInForce) {
  const Lines all = Configured(Settings(ServerTrust::kUnverified));
  curl.refusedOption = "TIMEOUT";
  EXPECT_EQ(Configured(Settings(ServerTrust::kUnverified)), all);
}

TEST_F(CurlTransferTest, ANegativeTimeOutLeavesTheTransferUsable) {
  TransferSettings settings = Settings(ServerTrust::kUnverified);
  settings.timeoutSeconds = -1;
  EXPECT_TRUE(ConfigureTransfer(handle.get(), settings));
}

TEST_F(CurlTransferTest, NothingIsSentWhenMemoryIsShort) {
  const Lines options = Configured(Settings(ServerTrust::kFileOnly));
  curl.refusal = CURLE_OUT_OF_MEMORY;
  for (const std::string& line : options) {
    curl.refusedOption = OptionName(line);
    EXPECT_FALSE(ConfigureTransfer(handle.get(), Settings(ServerTrust::kFileOnly))) << line;
  }
}

TEST_F(CurlTransferTest, APolledTransferReadsAndSendsMuchAtATimeAndTakesCompressedAnswers) {
  const CurlSharePtr share(curl_share_init());
  std::chrono::milliseconds wait = kConnectWait;
  EXPECT_TRUE(ConfigurePolling(handle.get(), {share.get(), &wait}));
  EXPECT_THAT(curl.options, ElementsAre("BUFFERSIZE=10485760", "UPLOAD_BUFFERSIZE=2097152",
                                        "ACCEPT_ENCODING=", "OPENSOCKETFUNCTION=(set)",
                                        "OPENSOCKETDATA=(set)", "SHARE=(set)"));
  EXPECT_EQ(curl.pointers["OPENSOCKETFUNCTION"], reinterpret_cast<void*>(OpenTransferSocket));
  EXPECT_EQ(curl.pointers["OPENSOCKETDATA"], &wait);
  EXPECT_EQ(curl.pointers["SHARE"], share.get());
  // The share may go once the transfer that uses it has gone.
  handle.reset();
}

TEST_F(CurlTransferTest, APolledTransferIsSlowerWithoutAnOptionThatIsRefused) {
  std::chrono::milliseconds wait = kConnectWait;
  ASSERT_TRUE(ConfigurePolling(handle.get(), {nullptr, &wait}));
  for (const std::string& line : Lines(curl.options)) {
    curl.refusedOption = OptionName(line);
    curl.refusal = CURLE_UNKNOWN_OPTION;
    EXPECT_TRUE(ConfigurePolling(handle.get(), {nullptr, &wait})) << line;
    curl.refusal = CURLE_OUT_OF_MEMORY;
    EXPECT_FALSE(ConfigurePolling(handle.get(), {nullptr, &wait})) << line;
  }
}

/// A channel request and what it borrows.
struct Request {
  std::string text = "discover&name=x";
  std::string login = "me";
  Secret password{"pw"};
  CurlListPtr headers{curl_slist_append(nullptr, "A: b")};

  ChannelPost Post() const { return {&text, &login, &password, headers.get()}; }
};

TEST_F(CurlTransferTest, AChannelRequestIsAPostWithCredentialsOverTlsAlone) {
  const Request request;
  EXPECT_TRUE(ConfigureChannelPost(handle.get(), request.Post()));
  EXPECT_THAT(
      curl.options,
      ElementsAre("PROTOCOLS_STR=https", "SSLVERSION=" + std::to_string(CURL_SSLVERSION_TLSv1_2),
                  "HTTPAUTH=" + std::to_string(CURLAUTH_BASIC), "USERNAME=me", "PASSWORD=pw",
                  "HTTPHEADER=A: b", "POSTFIELDSIZE_LARGE=15", "POSTFIELDS=(set)", "QUICK_EXIT=1"));
  EXPECT_STREQ(static_cast<const char*>(curl.pointers["POSTFIELDS"]), request.text.c_str());
}

TEST_F(CurlTransferTest, AChannelRequestThatCannotBeConfiguredIsReported) {
  const Request request;
  ASSERT_TRUE(ConfigureChannelPost(handle.get(), request.Post()));
  for (const std::string& option : Lines(curl.options)) {
    curl.refusedOption = option.substr(0, option.find('='));
    EXPECT_FALSE(ConfigureChannelPost(handle.get(), request.Post())) << option;
  }
}

std::size_t AppendTo(void* text, const char* bytes, std::size_t count) {
  static_cast<std::string*>(text)->append(bytes, count);
  return count;
}

/// The body that the form at `form` makes, its boundary written as "BOUNDARY".
std::string FormBody(curl_httppost* form) {
  std::string body;
  CURL_IGNORE_DEPRECATION(EXPECT_EQ(curl_formget(form, &body, AppendTo), 0);)
  // The head that names the boundary comes with it.
  const std::string mark = "boundary=";
  const std::size_t start = body.find(mark) + mark.size();
  const std::string boundary = body.substr(start, body.find("\r\n") - start);
  body.erase(0, body.find("\r\n\r\n") + 4);
  for (std::size_t place = 0; (place = body.find(boundary)) != std::string::npos;) {
    body.replace(place, boundary.size(), "BOUNDARY");
  }
  return body;
}

std::string Part(const std::string& name, const std::string& value) {
  return "--BOUNDARY\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
         "\r\n";
}

TEST(Form, HoldsItsPartsInTheOrderOfTheirAdding) {
  Form form;
  EXPECT_TRUE(form.Add("b", "second"));
  EXPECT_TRUE(form.Add("a", ""));
  EXPECT_TRUE(form.Add("c", "two\nlines & = more"));
  EXPECT_EQ(FormBody(form.parts()), Part("b", "second") + Part("a", "") +
                                        Part("c", "two\nlines & = more") + "--BOUNDARY--\r\n");
}

TEST(Form, OwnsItsTexts) {
  Form form;
  {
    std::string name = "name";
    std::string value = "value";
    ASSERT_TRUE(form.Add(name.c_str(), value.c_str()));
    name[0] = value[0] = 'X';
  }
  EXPECT_EQ(FormBody(form.parts()), Part("name", "value") + "--BOUNDARY--\r\n");
}

TEST(Form, HasNoPartsWhenNew) { EXPECT_EQ(Form().parts(), nullptr); }

}  // namespace
}  // namespace corvel::storage::support
