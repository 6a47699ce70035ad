// What the channel makes of a server's reply: its HTTP status, its status headers
// and its text, in whatever pieces they come.

#include "support/channel.h"

#include <charconv>
#include <cstring>

#include "fuzz/fuzzing.h"
#include "support/handle.h"
#include "tests/testing/curl_double.h"

namespace {

using namespace corvel::storage::fuzzing;
namespace support = corvel::storage::support;

constexpr long kHttpOk = 200;
constexpr std::size_t kMostHeaders = 4;

/// The reply that the input describes: the HTTP status on its first line, one
/// status header per line up to an empty one, then the text.
void Script(std::string input, corvel::storage::testing::CurlDouble* curl) {
  const std::string status = TakeUntil('\n', &input);
  curl->httpStatus = std::atol(status.c_str());
  curl->statusHeaders.clear();
  while (curl->statusHeaders.size() < kMostHeaders) {
    const std::string header = TakeUntil('\n', &input);
    if (header.empty()) break;
    curl->statusHeaders.emplace_back(header.c_str());
  }
  // Pieces of one, two, three and more bytes.
  for (std::size_t length = 1; !input.empty(); ++length) {
    curl->parts.push_back(input.substr(0, length));
    input.erase(0, length);
  }
}

/// True for a decimal number of 32 bits with nothing around it.
bool IsStatus(const std::string& text) {
  const std::string digits = text.substr(text.rfind('-', 0) == 0 ? 1 : 0);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  const std::size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) return true;
  if (digits.size() - first > 10) return false;
  const long long value = std::atoll(text.c_str());
  return value >= INT32_MIN && value <= INT32_MAX;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  corvel::storage::testing::CurlDouble curl;
  Script(TextOf(data, size), &curl);
  std::string text;
  for (const std::string& part : curl.parts) text += part;
  WSHandle* const handle = WSInit("vrmo://spa.example", "login", "password", "", 0);
  WSReply reply;
  const int result = WSRequestExt(handle, 13, &reply, "action", "discover", 0);
  WSShutdown(handle);
  const support::HeapText owned(reply.text);
  const bool answered = curl.httpStatus == kHttpOk && curl.statusHeaders.size() == 1 &&
                        IsStatus(curl.statusHeaders[0]);
  Expect((result == 0) == answered, "a reply is one with one status");
  if (result != 0) {
    Expect(reply.text == nullptr && reply.status == 0, "a failure leaves the reply alone");
    return 0;
  }
  Expect(reply.status == std::atoll(curl.statusHeaders[0].c_str()), "the status is the header's");
  Expect(text.empty() == (reply.text == nullptr), "an empty text is none");
  if (reply.text == nullptr) return 0;
  Expect(std::memcmp(reply.text, text.c_str(), text.size() + 1) == 0, "the text is the reply's");
  return 0;
}
