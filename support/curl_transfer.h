#ifndef SUPPORT_CURL_TRANSFER_H_
#define SUPPORT_CURL_TRANSFER_H_

#include <cstddef>
#include <string>

#include "support/curl_handle.h"

namespace corvel::storage::support {

/// What an HTTPS server's certificate is checked against. Where it is checked
/// at all, the chain and the host name both count.
enum class ServerTrust {
  kUnverified,  ///< nothing: the server may be anybody
  kFile,        ///< `caFile`, beside the authorities that libcurl trusts by itself
  kFileOnly,    ///< `caFile` alone
  kSystem,      ///< the authorities that libcurl trusts by itself
};

/// Everything that one transfer needs. Texts and lists that are given by
/// pointer are borrowed and must outlive the transfer.
struct TransferSettings {
  std::string url;
  long timeoutSeconds = 0;  ///< for connecting, and for the transfer as a whole
  ServerTrust trust = ServerTrust::kUnverified;
  std::string caFile;  ///< PEM file, for kFile and kFileOnly

  /// Receives the answer, as CURLOPT_WRITEFUNCTION has it.
  std::size_t (*sink)(char* bytes, std::size_t size, std::size_t count, void* target) = nullptr;
  void* sinkTarget = nullptr;
  /// CURL_ERROR_SIZE bytes for libcurl's own account of a failure.
  char* errorText = nullptr;
};

/// A request of the channel, on top of the settings above: a POST of `text`
/// with HTTP Basic credentials, over TLS 1.2 or later only.
struct ChannelPost {
  const std::string* text = nullptr;
  const std::string* login = nullptr;
  const std::string* password = nullptr;
  curl_slist* headers = nullptr;
};

/// Applies `settings` to `handle`; with ConfigureChannelPost and Form the
/// one place where libcurl is configured. Whatever is not named here keeps
/// libcurl's default: proxies by environment, no redirects followed.
/// False when libcurl refuses a setting; the handle must not be used then.
bool ConfigureTransfer(CURL* handle, const TransferSettings& settings);

/// Makes `handle` send `post`; false as above.
bool ConfigureChannelPost(CURL* handle, const ChannelPost& post);

/// A multipart form in the making, owned with all its texts.
class Form {
 public:
  Form() = default;
  ~Form();
  Form(const Form&) = delete;
  Form& operator=(const Form&) = delete;

  /// Adds a part behind those there are; both texts are zero-terminated and
  /// copied. False when memory is short.
  bool Add(const char* name, const char* value);

  /// Makes `handle` post the form, which must outlive the transfer; false as
  /// above.
  bool Attach(CURL* handle) const;

 private:
  curl_httppost* first_ = nullptr;
  curl_httppost* last_ = nullptr;
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_CURL_TRANSFER_H_
