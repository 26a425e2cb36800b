#include "transport/libssh2_errors.h"

#include <log4cpp/Category.hh>

namespace tovel {
namespace libssh2pp {
namespace {

class Library {
 public:
  Library() { libssh2_init(0); }
  ~Library() { libssh2_exit(); }
};

}  // namespace

void ensureLibraryInitialized() { static Library library; }

std::string lastErrorText(LIBSSH2_SESSION* session) {
  char* message = nullptr;
  int length = 0;
  libssh2_session_last_error(session, &message, &length, 0);
  return message == nullptr ? std::string() : std::string(message, length);
}

bool isConnectionLoss(int rc) {
  switch (rc) {
    case LIBSSH2_ERROR_SOCKET_NONE:
    case LIBSSH2_ERROR_SOCKET_SEND:
    case LIBSSH2_ERROR_SOCKET_RECV:
    case LIBSSH2_ERROR_SOCKET_DISCONNECT:
    case LIBSSH2_ERROR_SOCKET_TIMEOUT:
    case LIBSSH2_ERROR_TIMEOUT:
    case LIBSSH2_ERROR_DECRYPT:
    case LIBSSH2_ERROR_INVALID_MAC:
    case LIBSSH2_ERROR_OUT_OF_BOUNDARY:
      return true;
    default:
      return false;
  }
}

void throwConnectionLost(LIBSSH2_SESSION* session, int rc,
                         const std::string& during) {
  log4cpp::Category::getInstance("p.libssh2pp")
      .error(during + " failed (" + std::to_string(rc) +
             "): " + lastErrorText(session));
  TOVEL_THROW(SshConnectionFault);
}

}  // namespace libssh2pp
}  // namespace tovel
