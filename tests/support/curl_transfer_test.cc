#include "support/curl_transfer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/testing/curl_double.h"

namespace corvel::storage::support {
namespace {

using storage::testing::CurlDouble;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

using Lines = std::vector<std::string>;

std::size_t Swallow(char* /*bytes*/, std::size_t size, std::size_t count, void* /*target*/) {
  return size * count;
}

int target = 0;
char errorText[CURL_ERROR_SIZE];

TransferSettings Settings(ServerTrust trust) {
  return {"https://spa/ws_agent.php", 120, trust, "/certs/spa.pem", Swallow, &target, errorText};
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
  options.insert(options.end(),
                 {"NOSIGNAL=1", "TIMEOUT=120", "CONNECTTIMEOUT=120", "ERRORBUFFER=(set)"});
  return options;
}

TEST_F(CurlTransferTest, AnUnverifiedServerMayBeAnybody) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kUnverified)),
              ElementsAreArray(WithTrust({"SSL_VERIFYPEER=0", "SSL_VERIFYHOST=0"})));
}

TEST_F(CurlTransferTest, AFileIsTrustedBesideTheSystemsAuthorities) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kFile)),
              ElementsAreArray(
                  WithTrust({"SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2", "CAINFO=/certs/spa.pem"})));
}

TEST_F(CurlTransferTest, AFileAloneTakesThePlaceOfTheSystemsAuthorities) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kFileOnly)),
              ElementsAreArray(WithTrust({"SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2",
                                          "CAINFO=/certs/spa.pem", "CAPATH=(null)"})));
}

TEST_F(CurlTransferTest, TheSystemsAuthoritiesAreThoseOfTheLibrary) {
  EXPECT_THAT(Configured(Settings(ServerTrust::kSystem)),
              ElementsAreArray(WithTrust({"SSL_VERIFYPEER=1", "SSL_VERIFYHOST=2"})));
}

TEST_F(CurlTransferTest, TheAnswerGoesToTheGivenSink) {
  Configured(Settings(ServerTrust::kUnverified));
  EXPECT_EQ(curl.pointers["WRITEFUNCTION"], reinterpret_cast<void*>(Swallow));
  EXPECT_EQ(curl.pointers["WRITEDATA"], &target);
  EXPECT_EQ(curl.pointers["ERRORBUFFER"], errorText);
}

TEST_F(CurlTransferTest, TimeOutsAreThoseOfTheSettings) {
  TransferSettings settings = Settings(ServerTrust::kUnverified);
  settings.timeoutSeconds = 7;
  EXPECT_THAT(Configured(settings), Contains("TIMEOUT=7"));
  EXPECT_THAT(curl.options, Contains("CONNECTTIMEOUT=7"));
}

TEST_F(CurlTransferTest, ATransferThatCannotBeConfiguredIsReported) {
  const Lines options = Configured(Settings(ServerTrust::kFileOnly));
  for (std::size_t index = 0; index < options.size(); ++index) {
    curl.refusedOption = options[index].substr(0, options[index].find('='));
    SCOPED_TRACE(curl.refusedOption);
    curl.options.clear();
    EXPECT_FALSE(ConfigureTransfer(handle.get(), Settings(ServerTrust::kFileOnly)));
    EXPECT_THAT(curl.options,
                ElementsAreArray(Lines(options.begin(),
                                       options.begin() + static_cast<std::ptrdiff_t>(index) + 1)));
  }
}

/// A channel request and what it borrows.
struct Request {
  std::string text = "discover&name=x";
  std::string login = "me";
  std::string password = "pw";
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
std::string FormBody(void* form) {
  std::string body;
  CURL_IGNORE_DEPRECATION(
      EXPECT_EQ(curl_formget(static_cast<curl_httppost*>(form), &body, AppendTo), 0);)
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

TEST_F(CurlTransferTest, AFormHoldsItsPartsInTheOrderOfTheirAdding) {
  Form form;
  EXPECT_TRUE(form.Add("b", "second"));
  EXPECT_TRUE(form.Add("a", ""));
  EXPECT_TRUE(form.Add("c", "two\nlines & = more"));
  EXPECT_TRUE(form.Attach(handle.get()));
  EXPECT_THAT(curl.options, ElementsAre("HTTPPOST=(set)"));
  EXPECT_EQ(
      FormBody(curl.pointers["HTTPPOST"]),
      Part("b", "second") + Part("a", "") + Part("c", "two\nlines & = more") + "--BOUNDARY--\r\n");
}

TEST_F(CurlTransferTest, AFormOwnsItsTexts) {
  Form form;
  {
    std::string name = "name";
    std::string value = "value";
    ASSERT_TRUE(form.Add(name.c_str(), value.c_str()));
    name[0] = value[0] = 'X';
  }
  ASSERT_TRUE(form.Attach(handle.get()));
  EXPECT_EQ(FormBody(curl.pointers["HTTPPOST"]), Part("name", "value") + "--BOUNDARY--\r\n");
}

TEST_F(CurlTransferTest, AFormThatCannotBeAttachedIsReported) {
  Form form;
  ASSERT_TRUE(form.Add("a", "b"));
  curl.refusedOption = "HTTPPOST";
  EXPECT_FALSE(form.Attach(handle.get()));
}

}  // namespace
}  // namespace corvel::storage::support
