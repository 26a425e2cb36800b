#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "commons/socket.h"

namespace tovel {
namespace {

// A listening socket on a free port of 127.0.0.1; connections wait in its
// backlog, which is all a connect needs.
class Listener {
 public:
  Listener() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), length) ||
        listen(fd_, 4) ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &length)) {
      ADD_FAILURE() << "no listener: " << strerror(errno);
    }
    port_ = ntohs(addr.sin_port);
  }
  ~Listener() { close(fd_); }
  unsigned short port() const { return port_; }

 private:
  int fd_;
  unsigned short port_ = 0;
};

int socketOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(0, getsockopt(fd, level, name, &value, &length));
  return value;
}

// Small SSH messages (channel requests, EOF) must leave at once rather
// than wait for the acknowledgement of the previous segment.
TEST(SocketOptionsTest, ConnectedSocketSendsSmallSegmentsAtOnce) {
  Listener listener;
  Socket socket("127.0.0.1", listener.port());
  ASSERT_GE(socket.fd(), 0);
  EXPECT_NE(0, socketOption(socket.fd(), IPPROTO_TCP, TCP_NODELAY));
  EXPECT_EQ(SOCK_STREAM, socketOption(socket.fd(), SOL_SOCKET, SO_TYPE));
}

}  // namespace
}  // namespace tovel
