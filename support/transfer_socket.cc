#include "support/transfer_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvel::storage::support {
namespace {

using std::chrono::milliseconds;

/// What may arrive while nobody reads.
constexpr int kReceiveBytes = 16 << 20;

/// What may be handed over for sending at once: any form whose values came by the
/// command line. The kernel grants up to net.core.wmem_max, 208 KiB where nobody
/// changed it, and double that in practice.
constexpr int kSendBytes = 2 << 20;

bool SetSize(int socket, int option, int bytes) {
  return setsockopt(socket, SOL_SOCKET, option, &bytes, sizeof(bytes)) == 0;
}

/// Makes room for what arrives: all that is asked for when the process may set the
/// host's limits aside, as root may; else half of the maximum of net.ipv4.tcp_rmem,
/// 3 MiB where nobody changed it.
void WidenReceiveBuffer(int socket) {
  if (SetSize(socket, SO_RCVBUFFORCE, kReceiveBytes)) return;
  // The kernel widens the receive buffer of a socket that asks to be woken for so
  // much only, and leaves it wide. SO_RCVBUF stops at net.core.rmem_max, 208 KiB
  // where nobody changed it, and keeps the kernel from widening any further.
  SetSize(socket, SO_RCVLOWAT, kReceiveBytes);
  SetSize(socket, SO_RCVLOWAT, 1);
}

/// A socket with wide buffers. They are set before it connects, which settles the
/// scale of the window that TCP offers.
int OpenSocket(const curl_sockaddr& address) {
  const int socket =
      ::socket(address.family, address.socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.protocol);
  WidenReceiveBuffer(socket);
  SetSize(socket, SO_SNDBUF, kSendBytes);
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
