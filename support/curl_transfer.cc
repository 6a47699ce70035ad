#include "support/curl_transfer.h"

namespace corvel::storage::support {
namespace {

/// Sets options on one handle and remembers whether all of them were taken.
class OptionSetter {
 public:
  explicit OptionSetter(CURL* handle) : handle_(handle) {}

  template <typename Value>
  OptionSetter& Set(CURLoption option, Value value) {
    if (result_ == CURLE_OK) result_ = curl_easy_setopt(handle_, option, value);
    return *this;
  }
  bool taken() const { return result_ == CURLE_OK; }

 private:
  CURL* handle_;
  CURLcode result_ = CURLE_OK;
};

constexpr long kVerifyNobody = 0;
constexpr long kVerifyChain = 1;
constexpr long kVerifyHostName = 2;

void SetTrust(const TransferSettings& settings, OptionSetter* setter) {
  if (settings.trust == ServerTrust::kUnverified) {
    setter->Set(CURLOPT_SSL_VERIFYPEER, kVerifyNobody).Set(CURLOPT_SSL_VERIFYHOST, kVerifyNobody);
    return;
  }
  setter->Set(CURLOPT_SSL_VERIFYPEER, kVerifyChain).Set(CURLOPT_SSL_VERIFYHOST, kVerifyHostName);
  if (settings.trust == ServerTrust::kSystem) return;
  setter->Set(CURLOPT_CAINFO, settings.caFile.c_str());
  // The directory of system authorities stays in force beside a CA file unless
  // it is taken away.
  if (settings.trust == ServerTrust::kFileOnly) {
    setter->Set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
  }
}

}  // namespace

bool ConfigureTransfer(CURL* handle, const TransferSettings& settings) {
  OptionSetter setter(handle);
  setter.Set(CURLOPT_URL, settings.url.c_str())
      .Set(CURLOPT_WRITEFUNCTION, settings.sink)
      .Set(CURLOPT_WRITEDATA, settings.sinkTarget);
  SetTrust(settings, &setter);
  return setter.Set(CURLOPT_NOSIGNAL, 1L)
      .Set(CURLOPT_TIMEOUT, settings.timeoutSeconds)
      .Set(CURLOPT_CONNECTTIMEOUT, settings.timeoutSeconds)
      .Set(CURLOPT_ERRORBUFFER, settings.errorText)
      .taken();
}

bool ConfigureChannelPost(CURL* handle, const ChannelPost& post) {
  OptionSetter setter(handle);
  return setter.Set(CURLOPT_PROTOCOLS_STR, "https")
      .Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2))
      .Set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC))
      .Set(CURLOPT_USERNAME, post.login->c_str())
      .Set(CURLOPT_PASSWORD, post.password->c_str())
      .Set(CURLOPT_HTTPHEADER, post.headers)
      .Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post.text->size()))
      .Set(CURLOPT_POSTFIELDS, post.text->c_str())
      // A name look-up that is still under way must not hold the end of the
      // call up past its time-out.
      .Set(CURLOPT_QUICK_EXIT, 1L)
      .taken();
}

// The form interface is deprecated since libcurl 7.56 but not gone; this class
// is the only place that uses it.

Form::~Form() { CURL_IGNORE_DEPRECATION(curl_formfree(first_);) }

bool Form::Add(const char* name, const char* value) {
  bool added = false;
  CURL_IGNORE_DEPRECATION(added = curl_formadd(&first_, &last_, CURLFORM_COPYNAME, name,
                                               CURLFORM_COPYCONTENTS, value,
                                               CURLFORM_END) == CURL_FORMADD_OK;)
  return added;
}

bool Form::Attach(CURL* handle) const {
  OptionSetter setter(handle);
  CURL_IGNORE_DEPRECATION(setter.Set(CURLOPT_HTTPPOST, first_);)
  return setter.taken();
}

}  // namespace corvel::storage::support
