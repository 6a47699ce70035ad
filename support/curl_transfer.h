#ifndef SUPPORT_CURL_TRANSFER_H_
#define SUPPORT_CURL_TRANSFER_H_

#include <chrono>
#include <string>

#include "support/curl_handle.h"
#include "support/receive_buffer.h"
#include "support/secret.h"
#include "support/server_trust.h"

namespace corvel::storage::support {

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
  Verification verification;
  long timeoutSeconds = 0;    ///< for connecting, and for the transfer as a whole
  char* errorText = nullptr;  ///< CURL_ERROR_SIZE bytes for libcurl's account of a failure
};

/// What a transfer needs, on top of the settings above, to take few polls when
/// its caller pauses for seconds between them.
struct Polling {
  CURLSH* share = nullptr;  ///< keeps connections and names for later transfers; null: nothing does
  /// What may still be waited for connections; see OpenTransferSocket.
  std::chrono::milliseconds* connectWait = nullptr;
};

/// A request of the channel, on top of the settings above: a POST of `text`
/// with HTTP Basic credentials, over TLS 1.2 or later only.
struct ChannelPost {
  const std::string* text = nullptr;
  const std::string* login = nullptr;
  const Secret* password = nullptr;
  curl_slist* headers = nullptr;
};

/// Brings libcurl up; to be called before a handle is made. Not done at the start
/// of the process because most of what it takes is for TLS, and not every run makes
/// a request. Costs nothing once it was done. False when memory is short: libcurl
/// then crashes when it is used.
bool StartCurl();

/// Applies `settings` to `handle`; with the two functions below the one place
/// where libcurl is configured. Whatever is not named here keeps libcurl's default:
/// proxies by environment, no redirects followed.
/// False when memory is short or a setting is refused that verifying the server
/// rests on; the handle must not be used then. A refusal of anything else, such
/// as a negative time-out, leaves libcurl's default in force.
bool ConfigureTransfer(CURL* handle, const TransferSettings& settings);

/// Makes `handle` fit for `polling`. False when memory is short; the handle must
/// not be used then.
bool ConfigurePolling(CURL* handle, const Polling& polling);

/// Makes `handle` send `post`. False when any setting of it is refused; the
/// handle must not be used then.
bool ConfigureChannelPost(CURL* handle, const ChannelPost& post);

}  // namespace corvel::storage::support

#endif  // SUPPORT_CURL_TRANSFER_H_
