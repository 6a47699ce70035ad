#include "webservice/webservice.h"

#include <curl/curl.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "support/bounded_text.h"
#include "support/diagnostic.h"
#include "support/handle.h"
#include "support/secret.h"
#include "support/server_trust.h"
#include "webservice/answer_parser.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kChannelScheme[] = "vrmo://";
constexpr unsigned kPollSeconds = 2;
constexpr std::size_t kKeydirBytes = 5012;
constexpr int kChannelRequestKind = 13;
constexpr char kChannelParameter[] = "action";

/// A request as the channel carries it: credentials beside the text.
struct ChannelRequest {
  std::string login;
  support::Secret password;
  std::string keydir;
  std::string text;
};

void AppendPair(const std::string& name, const std::string& value, std::string* text) {
  if (!text->empty()) text->append("&");
  text->append(name).append("=").append(value);
}

ChannelRequest SplitFields(const FormFields& fields) {
  ChannelRequest request;
  for (const auto& [name, value] : fields) {
    if (name == "login") {
      request.login = value;
    } else if (name == "passwd") {
      request.password = support::Secret(value);
    } else if (name == "keydir") {
      request.keydir = value;
    } else if (name == "action") {
      request.text += value;
    } else {
      AppendPair(name, value, &request.text);
    }
  }
  return request;
}

struct ChannelCloser {
  RequestChannel* channel;
  void operator()(WSHandle* handle) const { channel->Shutdown(handle); }
};

using ChannelPtr = std::unique_ptr<WSHandle, ChannelCloser>;

}  // namespace

WebService::WebService(const Network& network) : network_(network) {}

int WebService::field(const char* name, const char* value) {
  hasFields = true;
  fields.emplace(name, value);
  return 0;
}

int WebService::field(const char* name, std::int64_t value) {
  return field(name, std::to_string(value).c_str());
}

int WebService::get(long* httpCode) {
  *httpCode = 0;
  const char* const failure = Send(httpCode);
  if (failure == nullptr) return 0;
  support::PrintDiagnostic(failure);
  return -1;
}

const char* WebService::Send(long* httpCode) {
  if (url.empty()) return "No URL specified";
  buffer.Release();
  return url.rfind(kChannelScheme, 0) == 0 ? SendByChannel() : SendByHttp(httpCode);
}

const char* WebService::SendByHttp(long* httpCode) {
  HttpRequest request;
  request.url = url;
  request.form = hasFields ? &fields : nullptr;
  request.verification = support::VerificationOf(url);
  request.timeoutSeconds = timeout;
  const std::unique_ptr<HttpTransfer> transfer = network_.http->Start(request, &buffer);
  if (transfer == nullptr) return "Can't initialize webservice network layer";

  int performResult = CURLM_OK;
  if (!WaitForTransfer(transfer.get(), &performResult)) {
    transfer->Abandon();
    return "Webservice call timed out. (curl call did not)";
  }
  const HttpOutcome outcome = transfer->Finish();
  *httpCode = outcome.responseCode;
  const bool sent = performResult == CURLM_OK && outcome.transferResult == CURLE_OK;
  return sent ? nullptr : "Network error during webservice call";
}

/// Polls until the transfer has ended; false when the deadline passed first.
/// The deadline is looked at before the end is, so a transfer that libcurl's own
/// time-out ended during the last pause counts as timed out.
bool WebService::WaitForTransfer(HttpTransfer* transfer, int* performResult) const {
  const std::time_t deadline = network_.clock->Now() + timeout;
  int running = 1;
  while (network_.clock->Now() <= deadline) {
    if (running == 0) return true;
    *performResult = transfer->Perform(&running);
    if (*performResult != CURLM_CALL_MULTI_PERFORM) network_.clock->Sleep(kPollSeconds);
  }
  return false;
}

const char* WebService::SendByChannel() {
  const ChannelRequest request = SplitFields(fields);
  char keydir[kKeydirBytes];
  support::BoundedCopy(keydir, sizeof(keydir), request.keydir.c_str());
  const ChannelPtr handle(network_.channel->Init(url.c_str(), request.login.c_str(),
                                                 request.password.text().c_str(), keydir, 0),
                          ChannelCloser{network_.channel});
  if (handle == nullptr) return "Can't initialize webservice.";
  WSReply reply;
  const int result = network_.channel->Request(handle.get(), kChannelRequestKind, &reply,
                                               kChannelParameter, request.text.c_str(), 0);
  const support::HeapText text(reply.text);
  if (result != 0) return "Request failed.";
  if (reply.status != 0) return "return status failed.";
  if (text != nullptr) data_callback(text.get(), 1, std::strlen(text.get()), &buffer);
  return nullptr;
}

int WebService::parse(RecordSet* records) const {
  if (buffer.data == nullptr) return -1;
  const support::HeapText copy(strdup(buffer.data));
  if (copy == nullptr) {
    support::PrintDiagnostic(
        "Could not convert webservice result to wide character string from UTF-8: %m.");
    return -1;
  }
  return ParseAnswer(copy.get(), records);
}

}  // namespace corvel::storage::tzregister
