#ifndef SUPPORT_CURL_TRANSFER_H_
#define SUPPORT_CURL_TRANSFER_H_

#include <string>

#include "support/curl_handle.h"
#include "support/receive_buffer.h"
#include "support/secret.h"

namespace corvel::storage::support {

/// What an HTTPS server's certificate is checked against. Where it is checked
/// at all, the chain and the host name both count.
enum class ServerTrust {
  kUnverified,  ///< nothing: the server may be anybody
  kFile,        ///< `caFile`, beside the authorities that libcurl trusts by itself
  kFileOnly,    ///< `caFile` alone
  kSystem,      ///< the authorities that libcurl trusts by itself
};

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

  /// The parts as libcurl has them; null when there are none.
  curl_httppost* parts() const { return first_; }

 private:
  curl_httppost* first_ = nullptr;
  curl_httppost* last_ = nullptr;
};

/// Everything that one transfer needs. What is given by pointer is borrowed and
/// must outlive the transfer.
struct TransferSettings {
  std::string url;
  const Form* form = nullptr;       ///< null for a request without a form
  ReceiveBuffer* answer = nullptr;  ///< receives the body of the answer
  ServerTrust trust = ServerTrust::kUnverified;
  std::string caFile;         ///< PEM file, for kFile and kFileOnly
  long timeoutSeconds = 0;    ///< for connecting, and for the transfer as a whole
  char* errorText = nullptr;  ///< CURL_ERROR_SIZE bytes for libcurl's account of a failure
};

/// A request of the channel, on top of the settings above: a POST of `text`
/// with HTTP Basic credentials, over TLS 1.2 or later only.
struct ChannelPost {
  const std::string* text = nullptr;
  const std::string* login = nullptr;
  const Secret* password = nullptr;
  curl_slist* headers = nullptr;
};

/// Applies `settings` to `handle`; with ConfigureChannelPost the one place where
/// libcurl is configured. Whatever is not named here keeps libcurl's default:
/// proxies by environment, no redirects followed.
/// False when memory is short or a setting is refused that verifying the server
/// rests on; the handle must not be used then. A refusal of anything else, such
/// as a negative time-out, leaves libcurl's default in force.
bool ConfigureTransfer(CURL* handle, const TransferSettings& settings);

/// Makes `handle` send `post`. False when any setting of it is refused; the
/// handle must not be used then.
bool ConfigureChannelPost(CURL* handle, const ChannelPost& post);

}  // namespace corvel::storage::support

#endif  // SUPPORT_CURL_TRANSFER_H_
