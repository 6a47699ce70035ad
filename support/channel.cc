#include "support/channel.h"

#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "support/curl_transfer.h"
#include "support/file_system.h"
#include "support/receive_buffer.h"
#include "support/secret.h"
#include "support/server_trust.h"

namespace support = corvel::storage::support;

namespace {

constexpr char kDefaultPath[] = "/vrmo.php";
constexpr char kRequestKindHeader[] = "X-Quorvex-Request-Kind: ";
constexpr char kParameterHeader[] = "X-Quorvex-Parameter: ";
constexpr char kStatusHeader[] = "X-Quorvex-Status";
constexpr long kRequestTimeoutSeconds = 120;
constexpr long kHttpOk = 200;

/// The HTTPS address behind a "vrmo://" one; nothing when it names no host.
std::optional<std::string> HttpsAddress(const char* url) {
  const support::CurlUrlPtr address(curl_url());
  char* part = nullptr;
  if (address == nullptr ||
      curl_url_set(address.get(), CURLUPART_URL, url, CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
      curl_url_get(address.get(), CURLUPART_PATH, &part, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  const support::CurlTextPtr path(part);
  const char* target = std::strcmp(path.get(), "/") == 0 ? kDefaultPath : path.get();
  if (curl_url_set(address.get(), CURLUPART_SCHEME, "https", 0) != CURLUE_OK ||
      curl_url_set(address.get(), CURLUPART_USER, nullptr, 0) != CURLUE_OK ||
      curl_url_set(address.get(), CURLUPART_PASSWORD, nullptr, 0) != CURLUE_OK ||
      curl_url_set(address.get(), CURLUPART_PATH, target, 0) != CURLUE_OK ||
      curl_url_get(address.get(), CURLUPART_URL, &part, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  const support::CurlTextPtr text(part);
  return std::string(text.get());
}

/// The server is always verified: by its own file or the one of the key directory
/// alone, else by the system's authorities.
support::Verification ChooseTrust(const char* url, const std::string& keydir) {
  std::string file = support::ServerCertificateFile(url);
  const std::string authority = keydir + "/ca.pem";
  if (file.empty() && !keydir.empty() && support::PathExists(authority)) file = authority;
  return {file.empty() ? support::ServerTrust::kSystem : support::ServerTrust::kFileOnly, file};
}

/// Adds a header line to `*list`; false when memory is short.
bool AddHeader(const std::string& line, support::CurlListPtr* list) {
  curl_slist* longer = curl_slist_append(list->get(), line.c_str());
  if (longer == nullptr) return false;
  static_cast<void>(list->release());
  list->reset(longer);
  return true;
}

/// The reply's status; nothing unless the header stands there once, as a number.
std::optional<int> ReplyStatus(CURL* transfer) {
  curl_header* header = nullptr;
  if (curl_easy_header(transfer, kStatusHeader, 0, CURLH_HEADER, -1, &header) != CURLHE_OK ||
      header->amount != 1) {
    return std::nullopt;
  }
  int status = 0;
  const char* end = header->value + std::strlen(header->value);
  const auto [stop, error] = std::from_chars(header->value, end, status);
  if (error != std::errc() || stop != end) return std::nullopt;
  return status;
}

/// Runs the transfer; the reply's status when it was delivered and answered.
std::optional<int> RunTransfer(CURL* transfer) {
  long httpStatus = 0;
  if (curl_easy_perform(transfer) != CURLE_OK ||
      curl_easy_getinfo(transfer, CURLINFO_RESPONSE_CODE, &httpStatus) != CURLE_OK ||
      httpStatus != kHttpOk) {
    return std::nullopt;
  }
  return ReplyStatus(transfer);
}

}  // namespace

struct WSHandle {
  support::TransferSettings settings;
  std::string login;
  support::Secret password;
};

WSHandle* WSInit(const char* url, const char* login, const char* password, const char* keydir,
                 int /*flags*/) {
  const std::optional<std::string> address = HttpsAddress(url);
  if (!address || std::strchr(login, ':') != nullptr) return nullptr;
  auto handle = std::make_unique<WSHandle>();
  handle->settings.url = *address;
  handle->settings.timeoutSeconds = kRequestTimeoutSeconds;
  handle->settings.verification = ChooseTrust(url, keydir);
  handle->login = login;
  handle->password = support::Secret(password);
  return handle.release();
}

int WSRequestExt(WSHandle* handle, int kind, WSReply* reply, const char* parameter,
                 const char* text, int /*flags*/) {
  const std::string body = text;
  support::CurlListPtr headers;
  support::ReceiveBuffer answer;
  support::TransferSettings settings = handle->settings;
  settings.answer = &answer;
  if (!support::StartCurl()) return -1;
  const support::CurlEasyPtr transfer(curl_easy_init());
  if (transfer == nullptr || !AddHeader(kRequestKindHeader + std::to_string(kind), &headers) ||
      !AddHeader(kParameterHeader + std::string(parameter), &headers) ||
      !AddHeader("Content-Type: application/octet-stream", &headers) ||
      !support::ConfigureTransfer(transfer.get(), settings) ||
      !support::ConfigureChannelPost(transfer.get(),
                                     {&body, &handle->login, &handle->password, headers.get()})) {
    return -1;
  }
  const std::optional<int> status = RunTransfer(transfer.get());
  if (!status) return -1;
  reply->status = *status;
  reply->text = answer.TakeData();
  return 0;
}

void WSShutdown(WSHandle* handle) { delete handle; }
