#ifndef WEBSERVICE_WEBSERVICE_H_
#define WEBSERVICE_WEBSERVICE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "webservice/record_set.h"
#include "webservice/transport.h"

namespace corvel::storage::tzregister {

/// One request to a page of the Storage Pool Authority and the text of its
/// answer: add fields, get, parse, destroy. For use by one thread.
class WebService {
 public:
  /// `network` says through what the request goes; what it points to must
  /// outlive the object.
  explicit WebService(const Network& network);
  WebService(const WebService&) = delete;
  WebService& operator=(const WebService&) = delete;

  /// Adds a form field; a name that is there already keeps its first value.
  /// Both texts are zero-terminated and copied. Returns 0.
  int field(const char* name, const char* value);

  /// As above, with `value` in decimal.
  int field(const char* name, std::int64_t value);

  /// Sends the request and waits for the answer, about `timeout` seconds at
  /// most. "vrmo://" URLs go over the request channel, all others over HTTP(S):
  /// a multipart POST when fields were added, else a GET. Any earlier answer is
  /// dropped first.
  /// Returns 0 with the answer in `buffer`, whatever its HTTP status; -1 after
  /// one line on standard error otherwise. `*httpCode` receives the HTTP status,
  /// 0 when there was none. Does not throw but for std::bad_alloc.
  int get(long* httpCode);

  /// Reads the received text into `*records`, which is expected to be empty.
  /// Returns 0 for a table of records and for an error block, -1 for anything
  /// else; after a line on standard error when memory is short.
  int parse(RecordSet* records) const;

  /// libcurl's write function; see support/receive_buffer.h.
  static constexpr auto& data_callback = support::data_callback;

  FormFields fields;
  bool hasFields = false;  ///< set by every call of `field`
  WebServiceBuffer buffer;
  std::string url;                 ///< full URL of the page
  std::int32_t timeout = 120;      ///< seconds; deadline of one `get`
  std::int32_t shortTimeout = 30;  ///< seconds; not used by any request so far
  std::int32_t httpStatus = 0;     ///< shown in failure reports; `get` leaves it alone

 private:
  // Each returns null once the answer is in the buffer, else the line that says
  // why it is not.
  const char* Send(long* httpCode);
  const char* SendByHttp(long* httpCode);
  const char* SendByChannel();
  bool WaitForTransfer(HttpTransfer* transfer, int* performResult) const;

  Network network_;
};

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_WEBSERVICE_H_
