#include "support/transfer_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvel::storage::support {
namespace {

using std::chrono::milliseconds;

/// A link of 200 megabytes a second fills this in the 20 ms of a round trip. The
/// kernel grants less where net.core.rmem_max and wmem_max say so.
constexpr int kSocketBufferBytes = 4 << 20;

int OpenSocket(const curl_sockaddr& address) {
  const int socket =
      ::socket(address.family, address.socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.protocol);
  // Set before connecting: the window that TCP can offer is settled then.
  for (const int buffer : {SO_RCVBUF, SO_SNDBUF}) {
    setsockopt(socket, SOL_SOCKET, buffer, &kSocketBufferBytes, sizeof(kSocketBufferBytes));
  }
  return socket;
}

/// Waits until the connection is made or has failed; false when the time is up
/// before. Reduces `*left` by what it took.
bool WaitForConnection(int socket, milliseconds* left) {
  const auto start = std::chrono::steady_clock::now();
  pollfd connection = {socket, POLLOUT, 0};
  const int ready = poll(&connection, 1, static_cast<int>(left->count()));
  const auto spent = std::chrono::steady_clock::now() - start;
  *left -= std::min(*left, std::chrono::ceil<milliseconds>(spent));
  return ready > 0;
}

}  // namespace

curl_socket_t OpenTransferSocket(void* waitLeft, curlsocktype /*purpose*/, curl_sockaddr* address) {
  auto* const left = static_cast<milliseconds*>(waitLeft);
  const int socket = OpenSocket(*address);
  if (socket < 0 || left->count() == 0) return socket;
  const int connected = connect(socket, &address->addr, address->addrlen);
  // Linux tells the first connect call after the end of an attempt how that
  // ended, so libcurl's own call will learn it.
  if (connected != 0 && (errno != EINPROGRESS || WaitForConnection(socket, left))) return socket;
  // To a connect call during the attempt it tells EALREADY, which libcurl takes
  // for a failure: it gets a socket on which nothing was tried yet.
  close(socket);
  return OpenSocket(*address);
}

}  // namespace corvel::storage::support
