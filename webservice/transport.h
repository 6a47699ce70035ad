#ifndef WEBSERVICE_TRANSPORT_H_
#define WEBSERVICE_TRANSPORT_H_

#include <map>
#include <memory>
#include <string>

#include "support/channel.h"
#include "support/clock.h"
#include "support/receive_buffer.h"
#include "support/server_trust.h"

namespace corvel::storage::tzregister {

/// A request's form fields, in ascending byte order of their names.
using FormFields = std::map<std::string, std::string>;

/// The answer received so far; see support::ReceiveBuffer for what it promises.
using WebServiceBuffer = support::ReceiveBuffer;

/// One HTTP request, ready to be sent.
struct HttpRequest {
  std::string url;
  const FormFields* form = nullptr;  ///< borrowed; null for a plain GET without a body
  support::Verification verification;
  int timeoutSeconds = 0;  ///< for connecting, and for the transfer as a whole
};

/// How a transfer ended.
struct HttpOutcome {
  int transferResult = 0;  ///< libcurl's result code of the transfer, 0 for success
  long responseCode = 0;   ///< HTTP status, 0 when there was none
};

/// One transfer under way, driven by polling. Destroying it cleans up.
class HttpTransfer {
 public:
  virtual ~HttpTransfer() = default;

  /// Does what can be done at once, without waiting. Stores the number of
  /// transfers that still run in `*running`. Returns libcurl's multi code; a
  /// transfer that may not be sent as it was set up ends here with a code other
  /// than CURLM_OK.
  virtual int Perform(int* running) = 0;

  /// Reads the outcome of the finished transfer and cleans up. To be called
  /// once, as the last call.
  virtual HttpOutcome Finish() = 0;

  /// Lets go of the transfer without cleaning up: that could wait for a name
  /// look-up which is still under way. What it holds stays until the process
  /// ends; the answer's buffer is not touched any more. To be called as the last
  /// call.
  virtual void Abandon() = 0;
};

/// Starts HTTP and HTTPS transfers.
class HttpTransport {
 public:
  virtual ~HttpTransport() = default;

  /// Prepares `request`; the answer's bytes go to `*answer`. Both must outlive
  /// the transfer. Null when the network layer cannot be initialised.
  virtual std::unique_ptr<HttpTransfer> Start(const HttpRequest& request,
                                              WebServiceBuffer* answer) = 0;

  /// libcurl. Connections and looked-up names are kept from request to request
  /// until it goes. Requests that were abandoned may outlive it.
  static std::unique_ptr<HttpTransport> Curl();
};

/// The storage product's request channel; each operation is that of
/// support/channel.h.
class RequestChannel {
 public:
  virtual ~RequestChannel() = default;
  virtual WSHandle* Init(const char* url, const char* login, const char* password,
                         const char* keydir, int flags) = 0;
  virtual int Request(WSHandle* handle, int kind, WSReply* reply, const char* parameter,
                      const char* text, int flags) = 0;
  virtual void Shutdown(WSHandle* handle) = 0;

  /// The channel itself. It has no state and lives as long as the process.
  static RequestChannel& System();
};

/// What a request needs of the world around it. All three are borrowed and must
/// outlive whoever holds a copy.
struct Network {
  support::Clock* clock = &support::Clock::System();
  HttpTransport* http = nullptr;
  RequestChannel* channel = &RequestChannel::System();
};

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_TRANSPORT_H_
