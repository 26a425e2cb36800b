#include "transport/socket.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <log4cpp/Category.hh>
#include <stdexcept>

namespace tovel {
namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.libssh2pp.Socket");
}

std::string endpoint(const std::string& host, unsigned short port) {
  return host + ":" + std::to_string(port);
}

[[noreturn]] void throwConnectError(int error, const std::string& host) {
  switch (error) {
    case ENETUNREACH:
      TOVEL_THROW(NetworkUnreachable) % host;
    case ETIMEDOUT:
      TOVEL_THROW(ConnectionTimedOut) % host;
    case ECONNREFUSED:
      TOVEL_THROW(ConnectionRefused) % host;
    case EHOSTUNREACH:
      TOVEL_THROW(HostUnreachable) % host;
    default:
      TOVEL_THROW(ConnectionFault) % host % strerror(error);
  }
}

// SSH sends many small messages (channel open, exec request, EOF, close)
// and waits for the answer to each; with Nagle's algorithm against the
// peer's delayed acknowledgement every new channel stalls for tens of
// milliseconds. A failure only costs speed, so it is logged, not thrown.
void disableNagle(int fd) {
  int one = 1;
  if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
    logger().error(std::string("Unable to set TCP_NODELAY: ") +
                   strerror(errno));
  }
}

}  // namespace

addrinfo* Socket::gethostbyname(const std::string& host, unsigned short port) {
  // Logged at ERROR on purpose: the panel's logs keep only errors by
  // default, and the host tried is what one looks for first.
  logger().error("Resolving " + host);
  addrinfo* result = nullptr;
  int rc =
      getaddrinfo(host.c_str(), std::to_string(port).c_str(), nullptr, &result);
  if (rc == 0) return result;
  std::string reason = gai_strerror(rc);
  logger().error("Unable to resolve " + host + ": " + reason);
  TOVEL_THROW(HostNotFound) % host % reason;
}

Socket::Socket(const std::string& host, unsigned short port) {
  logger().debug("Connecting to " + endpoint(host, port) + "\n");
  addr_.reset(gethostbyname(host, port));
  int firstError = 0;
  bool firstSocketFailed = false;
  for (const addrinfo* a = addr_.get(); a != nullptr; a = a->ai_next) {
    // Without hints every address comes once per socket type.
    if (a->ai_socktype != SOCK_STREAM) continue;
    bool socketFailed = false;
    int error = tryConnect(a, &socketFailed);
    if (error == 0) {
      logger().debug("Connected");
      return;
    }
    if (!socketFailed) {
      logger().error("Unable to open socket to " + endpoint(host, port) + ": " +
                     strerror(error) + "\n");
    }
    if (firstError != 0) continue;
    firstError = error;
    firstSocketFailed = socketFailed;
  }
  if (firstSocketFailed) {
    throw std::runtime_error(std::string("socket: ") + strerror(firstError));
  }
  throwConnectError(firstError == 0 ? EAFNOSUPPORT : firstError, host);
}

Socket::~Socket() {
  addr_.reset();
  if (fd_ >= 0) close(fd_);
}

int Socket::tryConnect(const addrinfo* address, bool* socketFailed) {
  int fd = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *socketFailed = true;
    return errno;
  }
  if (connect(fd, address->ai_addr, address->ai_addrlen) != 0) {
    int error = errno;
    close(fd);
    return error;
  }
  fd_ = fd;
  disableNagle(fd);
  return 0;
}

}  // namespace tovel
