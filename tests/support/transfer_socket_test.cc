#include "support/transfer_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace corvel::storage::support {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShortWait{50};

/// An open socket, closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) { EXPECT_GE(number, 0); }
  ~Descriptor() { close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }

  int Option(int option) const {
    int value = 0;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(number_, SOL_SOCKET, option, &value, &size), 0);
    return value;
  }

 private:
  int number_;
};

/// The address of a loopback port, as libcurl hands addresses out.
curl_sockaddr Loopback(in_port_t port) {
  sockaddr_in inner = {};
  inner.sin_family = AF_INET;
  inner.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  inner.sin_port = port;
  curl_sockaddr address = {AF_INET, SOCK_STREAM, IPPROTO_TCP, sizeof(inner), {}};
  std::memcpy(&address.addr, &inner, sizeof(inner));
  return address;
}

/// Binds a loopback port; nobody listens on it yet.
class Port {
 public:
  Port() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    curl_sockaddr any = Loopback(0);
    EXPECT_EQ(bind(socket_.number(), &any.addr, any.addrlen), 0);
    sockaddr_in bound = {};
    socklen_t size = sizeof(bound);
    EXPECT_EQ(getsockname(socket_.number(), reinterpret_cast<sockaddr*>(&bound), &size), 0);
    address = Loopback(bound.sin_port);
  }

  void Listen(int backlog) { EXPECT_EQ(listen(socket_.number(), backlog), 0); }

  curl_sockaddr address;

 private:
  Descriptor socket_;
};

/// What libcurl's connect call on `socket` comes to: 0 or an errno value.
int Connect(const Descriptor& socket, const Port& port) {
  return connect(socket.number(), &port.address.addr, port.address.addrlen) == 0 ? 0 : errno;
}

/// Takes the right to set the host's limits aside from this thread while it lives.
class WithoutNetworkAdministration {
 public:
  WithoutNetworkAdministration() {
    EXPECT_EQ(syscall(SYS_capget, &header_, before_), 0);
    __user_cap_data_struct less[_LINUX_CAPABILITY_U32S_3] = {before_[0], before_[1]};
    less[CAP_TO_INDEX(CAP_NET_ADMIN)].effective &= ~CAP_TO_MASK(CAP_NET_ADMIN);
    EXPECT_EQ(syscall(SYS_capset, &header_, less), 0);
  }
  ~WithoutNetworkAdministration() { EXPECT_EQ(syscall(SYS_capset, &header_, before_), 0); }
  WithoutNetworkAdministration(const WithoutNetworkAdministration&) = delete;
  WithoutNetworkAdministration& operator=(const WithoutNetworkAdministration&) = delete;

 private:
  __user_cap_header_struct header_ = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct before_[_LINUX_CAPABILITY_U32S_3] = {};
};

class TransferSocket : public ::testing::Test {
 protected:
  int Open() { return OpenTransferSocket(&wait, CURLSOCKTYPE_IPCXN, &port.address); }

  Port port;
  milliseconds wait = kConnectWait;
};

TEST_F(TransferSocket, IsConnectedWhenTheOtherSideAnswers) {
  port.Listen(1);
  const Descriptor socket(Open());
  EXPECT_EQ(Connect(socket, port), 0);
  EXPECT_LE(wait, kConnectWait);
}

TEST_F(TransferSocket, TellsARefusalToWhoConnectsIt) {
  const Descriptor socket(Open());
  EXPECT_EQ(Connect(socket, port), ECONNREFUSED);
}

TEST_F(TransferSocket, IsStillToBeConnectedWhenNobodyAnswersInTime) {
  port.Listen(0);
  const Descriptor occupant(Open());
  wait = kShortWait;
  const Descriptor socket(Open());
  EXPECT_EQ(wait.count(), 0);
  EXPECT_EQ(Connect(socket, port), EINPROGRESS);
}

TEST_F(TransferSocket, IsNotWaitedForWhenTheTimeIsUp) {
  port.Listen(1);
  wait = milliseconds(0);
  const Descriptor socket(Open());
  EXPECT_EQ(Connect(socket, port), EINPROGRESS);
}

TEST_F(TransferSocket, LeavesAnAddressThatCannotBeConnectedToLibcurl) {
  port.address.addrlen = 1;
  const Descriptor socket(Open());
  port.address.addrlen = sizeof(sockaddr_in);
  port.Listen(1);
  EXPECT_EQ(Connect(socket, port), EINPROGRESS);
  EXPECT_EQ(wait, kConnectWait);
}

TEST_F(TransferSocket, IsBadWhenThereIsNoneToBeHad) {
  port.address.family = -1;
  EXPECT_EQ(Open(), CURL_SOCKET_BAD);
}

TEST_F(TransferSocket, HasRoomForWhatArrivesAndLeavesBetweenTwoPolls) {
  port.Listen(0);
  const Descriptor plain(socket(AF_INET, SOCK_STREAM, 0));
  const Descriptor connected(Open());
  wait = kShortWait;
  const Descriptor unconnected(Open());
  for (const Descriptor* const socket : {&connected, &unconnected}) {
    EXPECT_GT(socket->Option(SO_RCVBUF), plain.Option(SO_RCVBUF));
    EXPECT_GT(socket->Option(SO_SNDBUF), plain.Option(SO_SNDBUF));
    // A single byte wakes it all the same.
    EXPECT_EQ(socket->Option(SO_RCVLOWAT), 1);
  }
}

TEST_F(TransferSocket, HasMoreRoomForWhatArrivesThanAPlainOneWithoutAnyRight) {
  const WithoutNetworkAdministration without;
  const Descriptor plain(socket(AF_INET, SOCK_STREAM, 0));
  const Descriptor wide(Open());
  EXPECT_GT(wide.Option(SO_RCVBUF), plain.Option(SO_RCVBUF));
  EXPECT_EQ(wide.Option(SO_RCVLOWAT), 1);
}

/// True when this thread could be moved to a network of its own, whose sockets may
/// receive no more than a quarter of a megabyte ahead.
bool EnterNarrowNetwork() {
  if (unshare(CLONE_NEWNET) != 0) return false;
  std::ofstream limits("/proc/sys/net/ipv4/tcp_rmem");
  limits << "4096 131072 262144" << std::flush;
  return limits.good();
}

TEST_F(TransferSocket, HasMoreRoomThanTheHostsLimitsWithTheRightToSetThemAside) {
  bool tried = false;
  std::thread([&] {
    tried = EnterNarrowNetwork();
    if (!tried) return;
    const Descriptor widest(Open());
    const WithoutNetworkAdministration without;
    const Descriptor wide(Open());
    EXPECT_GT(widest.Option(SO_RCVBUF), wide.Option(SO_RCVBUF));
  }).join();
  if (!tried) GTEST_SKIP() << "needs the right to make a network namespace";
}

TEST_F(TransferSocket, NeitherBlocksNorPassesToChildProcesses) {
  port.Listen(1);
  const Descriptor socket(Open());
  EXPECT_NE(fcntl(socket.number(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(socket.number(), F_GETFD) & FD_CLOEXEC, 0);
}

}  // namespace
}  // namespace corvel::storage::support
