#include "webservice/transport.h"

#include <chrono>
#include <utility>
#include <vector>

#include "support/curl_transfer.h"
#include "support/transfer_socket.h"

namespace corvel::storage::tzregister {
namespace {

/// What one transfer needs until it ends, in the order in which it depends on
/// each other: the easy handle goes first, then its form, then the multi handle.
struct CurlHandles {
  support::CurlMultiPtr multi;
  support::Form form;
  support::CurlEasyPtr easy;
  std::chrono::milliseconds connectWait = support::kConnectWait;
  char errorText[CURL_ERROR_SIZE] = {};
  bool added = false;  ///< the easy handle is in the multi handle, ready to be sent

  ~CurlHandles() {
    if (added) curl_multi_remove_handle(multi.get(), easy.get());
  }
};

bool AddFields(const FormFields& fields, support::Form* form) {
  for (const auto& field : fields) {
    if (!form->Add(field.first.c_str(), field.second.c_str())) return false;
  }
  return true;
}

support::TransferSettings SettingsFor(const HttpRequest& request, WebServiceBuffer* answer,
                                      CurlHandles* handles) {
  support::TransferSettings settings;
  settings.url = request.url;
  if (request.form != nullptr) settings.form = &handles->form;
  settings.answer = answer;
  settings.verification = request.verification;
  settings.timeoutSeconds = request.timeoutSeconds;
  settings.errorText = handles->errorText;
  return settings;
}

/// Makes the transfer ready to be sent; `handles->added` says whether it is.
void SetUp(const HttpRequest& request, WebServiceBuffer* answer, CURLSH* share,
           CurlHandles* handles) {
  if (request.form != nullptr && !AddFields(*request.form, &handles->form)) return;
  if (!ConfigureTransfer(handles->easy.get(), SettingsFor(request, answer, handles))) return;
  if (!support::ConfigurePolling(handles->easy.get(), {share, &handles->connectWait})) return;
  handles->added = curl_multi_add_handle(handles->multi.get(), handles->easy.get()) == CURLM_OK;
}

class CurlTransfer final : public HttpTransfer {
 public:
  explicit CurlTransfer(std::unique_ptr<CurlHandles> handles) : handles_(std::move(handles)) {}

  int Perform(int* running) override {
    if (handles_->added) return curl_multi_perform(handles_->multi.get(), running);
    *running = 0;
    return CURLM_INTERNAL_ERROR;
  }

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
    handles_.reset();
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

/// Null when there is none to be had: each request then does everything anew.
support::CurlSharePtr MakeShare() {
  support::CurlSharePtr share(curl_share_init());
  if (share == nullptr) return nullptr;
  for (const curl_lock_data kept : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_DNS}) {
    curl_share_setopt(share.get(), CURLSHOPT_SHARE, kept);
  }
  return share;
}

class CurlTransport final : public HttpTransport {
 public:
  std::unique_ptr<HttpTransfer> Start(const HttpRequest& request,
                                      WebServiceBuffer* answer) override {
    if (!support::StartCurl()) return nullptr;
    auto handles = std::make_unique<CurlHandles>();
    handles->multi.reset(curl_multi_init());
    if (handles->multi == nullptr) return nullptr;
    handles->easy.reset(curl_easy_init());
    if (handles->easy == nullptr) return nullptr;
    if (share_ == nullptr) share_ = MakeShare();
    SetUp(request, answer, share_.get(), handles.get());
    return std::make_unique<CurlTransfer>(std::move(handles));
  }

 private:
  support::CurlSharePtr share_;
};

class SystemChannel final : public RequestChannel {
 public:
  WSHandle* Init(const char* url, const char* login, const char* password, const char* keydir,
                 int flags) override {
    return WSInit(url, login, password, keydir, flags);
  }

  int Request(WSHandle* handle, int kind, WSReply* reply, const char* parameter, const char* text,
              int flags) override {
    return WSRequestExt(handle, kind, reply, parameter, text, flags);
  }

  void Shutdown(WSHandle* handle) override { WSShutdown(handle); }
};

}  // namespace

std::unique_ptr<HttpTransport> HttpTransport::Curl() { return std::make_unique<CurlTransport>(); }

RequestChannel& RequestChannel::System() {
  static SystemChannel channel;
  return channel;
}

}  // namespace corvel::storage::tzregister
