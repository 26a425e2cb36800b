// Turns libssh2 results into ferrow's tagged exceptions, and keeps the
// library initialised for the life of the process.
#ifndef FERROW_TRANSPORT_LIBSSH2_ERRORS_H_
#define FERROW_TRANSPORT_LIBSSH2_ERRORS_H_

#include <libssh2.h>

#include <string>

#include "errors/exc.h"

namespace tovel {

// The connection to the remote host is gone.
TOVEL_DECLARE_TAG(SshConnectionFault)

namespace libssh2pp {

// Calls libssh2_init once per process (libssh2_exit runs at exit).
void ensureLibraryInitialized();

// The text of the session's last error; empty when there is none.
std::string lastErrorText(LIBSSH2_SESSION* session);

// True when rc says the connection itself is gone or unusable: socket
// errors, time-outs, a disconnect, undecryptable data.
bool isConnectionLoss(int rc);

// Logs what was being done with rc and the library's text to "p.libssh2pp",
// then throws SshConnectionFault "Lost connection with the remote host".
[[noreturn]] void throwConnectionLost(LIBSSH2_SESSION* session, int rc,
                                      const std::string& during);

}  // namespace libssh2pp
}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::SshConnectionFault, "SshConnectionFault",
                 "Lost connection with the remote host");

#endif  // FERROW_TRANSPORT_LIBSSH2_ERRORS_H_
