#include "support/curl_transfer.h"

#include "support/transfer_socket.h"

namespace corvel::storage::support {
namespace {

/// Sets options on one handle and remembers whether it can be used.
class OptionSetter {
 public:
  explicit OptionSetter(CURL* handle) : handle_(handle) {}

  /// An option that the transfer can do without, unless memory is short.
  template <typename Value>
  OptionSetter& Set(CURLoption option, Value value) {
    if (curl_easy_setopt(handle_, option, value) == CURLE_OUT_OF_MEMORY) usable_ = false;
    return *this;
  }

  /// An option without which nothing may be sent.
  template <typename Value>
  OptionSetter& Require(CURLoption option, Value value) {
    if (curl_easy_setopt(handle_, option, value) != CURLE_OK) usable_ = false;
    return *this;
  }

  bool usable() const { return usable_; }

 private:
  CURL* handle_;
  bool usable_ = true;
};

// libcurl reads and sends one buffer in a poll or a hundredth of it: these are the
// largest that it has.
constexpr long kReadBytes = 10 << 20;
constexpr long kSendBytes = 2 << 20;

constexpr long kVerifyNobody = 0;
constexpr long kVerifyChain = 1;
constexpr long kVerifyHostName = 2;

// The form interface is deprecated since libcurl 7.56 but not gone; this file
// is the only one that uses it.

void SetForm(const Form& form, OptionSetter* setter) {
  CURL_IGNORE_DEPRECATION(setter->Set(CURLOPT_HTTPPOST, form.parts());)
}

void SetTrust(const Verification& verification, OptionSetter* setter) {
  if (verification.trust == ServerTrust::kUnverified) {
    setter->Set(CURLOPT_SSL_VERIFYPEER, kVerifyNobody).Set(CURLOPT_SSL_VERIFYHOST, kVerifyNobody);
    return;
  }
  if (verification.trust != ServerTrust::kSystem) {
    setter->Require(CURLOPT_CAINFO, verification.caFile.c_str());
  }
  // The directory of system authorities stays in force beside a CA file unless
  // it is taken away.
  if (verification.trust == ServerTrust::kFileOnly) {
    setter->Require(CURLOPT_CAPATH, static_cast<char*>(nullptr));
  }
  setter->Require(CURLOPT_SSL_VERIFYPEER, kVerifyChain)
      .Require(CURLOPT_SSL_VERIFYHOST, kVerifyHostName);
}

}  // namespace

Form::~Form() { CURL_IGNORE_DEPRECATION(curl_formfree(first_);) }

bool Form::Add(const char* name, const char* value) {
  bool added = false;
  CURL_IGNORE_DEPRECATION(added = curl_formadd(&first_, &last_, CURLFORM_COPYNAME, name,
                                               CURLFORM_COPYCONTENTS, value,
                                               CURLFORM_END) == CURL_FORMADD_OK;)
  return added;
}

bool StartCurl() { return curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OUT_OF_MEMORY; }

bool ConfigureTransfer(CURL* handle, const TransferSettings& settings) {
  OptionSetter setter(handle);
  setter.Set(CURLOPT_URL, settings.url.c_str());
  if (settings.form != nullptr) SetForm(*settings.form, &setter);
  setter.Set(CURLOPT_WRITEFUNCTION, data_callback).Set(CURLOPT_WRITEDATA, settings.answer);
  SetTrust(settings.verification, &setter);
  if (settings.timeoutSeconds > 0) {
    settings.answer->deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(settings.timeoutSeconds);
  }
  return setter.Set(CURLOPT_NOSIGNAL, 1L)
      .Set(CURLOPT_TIMEOUT, settings.timeoutSeconds)
      .Set(CURLOPT_CONNECTTIMEOUT, settings.timeoutSeconds)
      .Set(CURLOPT_ERRORBUFFER, settings.errorText)
      .Require(CURLOPT_HEADERFUNCTION, header_callback)
      .Require(CURLOPT_HEADERDATA, settings.answer)
      .usable();
}

bool ConfigurePolling(CURL* handle, const Polling& polling) {
  OptionSetter setter(handle);
  return setter.Set(CURLOPT_BUFFERSIZE, kReadBytes)
      .Set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBytes)
      // Every encoding that libcurl can undo.
      .Set(CURLOPT_ACCEPT_ENCODING, "")
      .Set(CURLOPT_OPENSOCKETFUNCTION, OpenTransferSocket)
      .Set(CURLOPT_OPENSOCKETDATA, polling.connectWait)
      .Set(CURLOPT_SHARE, polling.share)
      .usable();
}

bool ConfigureChannelPost(CURL* handle, const ChannelPost& post) {
  OptionSetter setter(handle);
  return setter.Require(CURLOPT_PROTOCOLS_STR, "https")
      .Require(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2))
      .Require(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC))
      .Require(CURLOPT_USERNAME, post.login->c_str())
      .Require(CURLOPT_PASSWORD, post.password->text().c_str())
      .Require(CURLOPT_HTTPHEADER, post.headers)
      .Require(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post.text->size()))
      .Require(CURLOPT_POSTFIELDS, post.text->c_str())
      // A name look-up that is still under way must not hold the end of the
      // call up past its time-out.
      .Require(CURLOPT_QUICK_EXIT, 1L)
      .usable();
}

}  // namespace corvel::storage::support
