#include "webservice/transport.h"

#include <utility>
#include <vector>

#include "support/curl_transfer.h"
#include "webservice/webservice.h"

namespace corvel::storage::tzregister {
namespace {

std::size_t ReceiveAnswer(char* bytes, std::size_t size, std::size_t count, void* answer) {
  return WebService::data_callback(bytes, size, count, static_cast<WebServiceBuffer*>(answer));
}

support::TransferSettings SettingsFor(const HttpRequest& request) {
  support::TransferSettings settings;
  settings.url = request.url;
  settings.timeoutSeconds = request.timeoutSeconds;
  settings.caFile = request.caFile;
  settings.trust =
      request.caFile.empty() ? support::ServerTrust::kUnverified : support::ServerTrust::kFile;
  settings.sink = ReceiveAnswer;
  return settings;
}

/// The handles of one transfer, in the order in which they depend on each
/// other: the easy handle goes first, then its form, then the multi handle.
struct CurlHandles {
  support::CurlMultiPtr multi;
  support::Form form;
  support::CurlEasyPtr easy;
  char errorText[CURL_ERROR_SIZE] = {};
  bool added = false;

  ~CurlHandles() {
    if (added) curl_multi_remove_handle(multi.get(), easy.get());
  }

  bool Prepare(const HttpRequest& request, WebServiceBuffer* answer);
};

bool AddFields(const FormFields& fields, support::Form* form) {
  for (const auto& field : fields) {
    if (!form->Add(field.first.c_str(), field.second.c_str())) return false;
  }
  return true;
}

bool CurlHandles::Prepare(const HttpRequest& request, WebServiceBuffer* answer) {
  multi.reset(curl_multi_init());
  if (multi == nullptr) return false;
  easy.reset(curl_easy_init());
  if (easy == nullptr) return false;
  if (request.form != nullptr && !(AddFields(*request.form, &form) && form.Attach(easy.get()))) {
    return false;
  }
  support::TransferSettings settings = SettingsFor(request);
  settings.sinkTarget = answer;
  settings.errorText = errorText;
  if (!support::ConfigureTransfer(easy.get(), settings)) return false;
  added = curl_multi_add_handle(multi.get(), easy.get()) == CURLM_OK;
  return added;
}

class CurlTransfer final : public HttpTransfer {
 public:
  explicit CurlTransfer(std::unique_ptr<CurlHandles> handles) : handles_(std::move(handles)) {}

  int Perform(int* running) override { return curl_multi_perform(handles_->multi.get(), running); }

  HttpOutcome Finish() override {
    HttpOutcome outcome;
    int remaining = 0;
    const CURLMsg* const message = curl_multi_info_read(handles_->multi.get(), &remaining);
    if (message != nullptr && message->msg == CURLMSG_DONE) {
      outcome.transferResult = message->data.result;
    }
    curl_multi_remove_handle(handles_->multi.get(), handles_->easy.get());
    handles_->added = false;
    curl_easy_getinfo(handles_->easy.get(), CURLINFO_RESPONSE_CODE, &outcome.responseCode);
    return outcome;
  }

  void Abandon() override {
    // Kept where leak checkers see that nobody lost it.
    static auto* const abandoned = new std::vector<CurlHandles*>();
    abandoned->push_back(handles_.release());
  }

 private:
  std::unique_ptr<CurlHandles> handles_;
};

class CurlTransport final : public HttpTransport {
 public:
  std::unique_ptr<HttpTransfer> Start(const HttpRequest& request,
                                      WebServiceBuffer* answer) override {
    auto handles = std::make_unique<CurlHandles>();
    if (!handles->Prepare(request, answer)) return nullptr;
    return std::make_unique<CurlTransfer>(std::move(handles));
  }
};

}  // namespace

HttpTransport& HttpTransport::Curl() {
  static CurlTransport transport;
  return transport;
}

WSHandle* RequestChannel::Init(const char* url, const char* login, const char* password,
                               const char* keydir, int flags) {
  return WSInit(url, login, password, keydir, flags);
}

int RequestChannel::Request(WSHandle* handle, int kind, WSReply* reply, const char* parameter,
                            const char* text, int flags) {
  return WSRequestExt(handle, kind, reply, parameter, text, flags);
}

void RequestChannel::Shutdown(WSHandle* handle) { WSShutdown(handle); }

RequestChannel& RequestChannel::System() {
  static RequestChannel channel;
  return channel;
}

}  // namespace corvel::storage::tzregister
