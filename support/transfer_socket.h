#ifndef SUPPORT_TRANSFER_SOCKET_H_
#define SUPPORT_TRANSFER_SOCKET_H_

#include <curl/curl.h>

#include <chrono>

namespace corvel::storage::support {

/// The longest that one transfer's connections are waited for, all its addresses
/// together: longer than a round trip to anywhere takes, and short beside the
/// time that a transfer has.
inline constexpr std::chrono::milliseconds kConnectWait{1000};

/// libcurl's open-socket function for a transfer that is polled with long
/// pauses: opens a socket with room for what arrives and leaves while nobody
/// looks and, if the other side answers in time, connects it already. libcurl's
/// own connect then succeeds at once, and the transfer goes on without a pause.
///
/// `waitLeft` points to what the transfer may still spend on waiting (a
/// std::chrono::milliseconds), which is the longest that the call blocks and is
/// reduced by what it took. Returns the socket, connected or not, which libcurl
/// then owns; CURL_SOCKET_BAD when there is none to be had.
curl_socket_t OpenTransferSocket(void* waitLeft, curlsocktype purpose, curl_sockaddr* address);

}  // namespace corvel::storage::support

#endif  // SUPPORT_TRANSFER_SOCKET_H_
