// Socket: the one TCP connection of a run to the source host, with its
// failures classified by tag so that the driver can tell them apart.
#ifndef FERROW_TRANSPORT_SOCKET_H_
#define FERROW_TRANSPORT_SOCKET_H_

#include <netdb.h>

#include <memory>
#include <string>

#include "errors/exc.h"

namespace tovel {

// Failures of the TCP connection, each with its own exit code.
TOVEL_DECLARE_TAG(ConnectionRefused)
TOVEL_DECLARE_TAG(ConnectionTimedOut)
TOVEL_DECLARE_TAG(NetworkUnreachable)
TOVEL_DECLARE_TAG(HostUnreachable)
TOVEL_DECLARE_TAG(ConnectionFault)
TOVEL_DECLARE_TAG(HostNotFound)

class Socket {
 public:
  // Resolves host, then connects to each stream address the resolver
  // returns, in order, until one accepts. When none does, throws what the
  // first address's failure maps to, as if only it had been tried:
  // NetworkUnreachable, ConnectionTimedOut, ConnectionRefused,
  // HostUnreachable or ConnectionFault (message with strerror); a failed
  // socket() gives std::runtime_error "socket: <strerror>". Resolution
  // failures throw what gethostbyname throws. The connect time-out is the
  // operating system's. The connected socket sends small segments at once
  // (TCP_NODELAY).
  Socket(const std::string& host, unsigned short port);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // The connected descriptor; owned by this object.
  int fd() const { return fd_; }

  // Resolves host and port (in decimal) with no hints. The caller owns the
  // list and frees it with freeaddrinfo. Throws HostNotFound "Unable to
  // resolve hostname <host>: <gai_strerror text>".
  static addrinfo* gethostbyname(const std::string& host, unsigned short port);

 private:
  struct AddrInfoFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
  };

  // Opens a stream socket for one address and connects it. Returns 0 and
  // keeps the descriptor, or returns the errno of the failure; sets
  // *socketFailed when socket() itself failed.
  int tryConnect(const addrinfo* address, bool* socketFailed);

  int fd_ = -1;
  std::unique_ptr<addrinfo, AddrInfoFree> addr_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::ConnectionRefused, "ConnectionRefused",
                 "No one listening on the remote address at host %1%");
TOVEL_EXC_TRAITS(&tovel::ConnectionTimedOut, "ConnectionTimedOut",
                 "Timeout while attempting connection to host %1%");
TOVEL_EXC_TRAITS(&tovel::NetworkUnreachable, "NetworkUnreachable",
                 "Specified network host %1% is unreachable");
TOVEL_EXC_TRAITS(&tovel::HostUnreachable, "HostUnreachable",
                 "No route to host %1%");
TOVEL_EXC_TRAITS(&tovel::ConnectionFault, "ConnectionFault",
                 "Unable to connect to host %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::HostNotFound, "HostNotFound",
                 "Unable to resolve hostname %1%: %2%");

#endif  // FERROW_TRANSPORT_SOCKET_H_
