// Verification of the source host's key, right after the key exchange and
// before any authentication request: no login name or password reaches a
// host whose key fails.
#ifndef FERROW_TRANSPORT_HOST_KEY_CHECK_H_
#define FERROW_TRANSPORT_HOST_KEY_CHECK_H_

#include <libssh2.h>

#include <string>

#include "errors/exc.h"

namespace tovel {

// --strict-host-key-checking, with OpenSSH's meanings: kYes refuses a host
// without an entry, kAcceptNew records its key and goes on; both refuse a
// key other than the recorded one. kNo checks and records nothing.
enum class HostKeyChecking { kYes, kAcceptNew, kNo };

struct HostKeyPolicy {
  HostKeyChecking checking = HostKeyChecking::kAcceptNew;
  // "SHA256:<base64>" as ssh-keygen -lf prints it; empty: none. The offered
  // key must have it whatever the file says; a matching key is recorded
  // when the host has no entry.
  std::string fingerprint;
  std::string knownHostsFile;
};

// "yes", "accept-new" or "no" into *checking; false for anything else.
bool parseHostKeyChecking(const std::string& text, HostKeyChecking* checking);
// True for "SHA256:" followed by the 43 characters of unpadded base64 of a
// 32-byte digest.
bool isSha256Fingerprint(const std::string& text);
// The name of host in a known_hosts file: "host" on port 22, else
// "[host]:port".
std::string knownHostsName(const std::string& host, unsigned short port);

TOVEL_DECLARE_TAG(SshHostKeyVerificationFailed)

// Checks the key session offers against policy, recording it where the
// policy says; logs the key's type and SHA256 fingerprint at INFO. Throws
// SshHostKeyVerificationFailed (host, port, reason: the offered key's type
// and fingerprint, for a changed key the file and line it contradicts and
// the ssh-keygen -R command that accepts a legitimate change), SystemError
// for the file, InvalidHandle when the session has no key.
void verifyHostKey(LIBSSH2_SESSION* session, const std::string& host,
                   unsigned short port, const HostKeyPolicy& policy);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::SshHostKeyVerificationFailed,
                 "SshHostKeyVerificationFailed",
                 "Host key verification failed for %1% port %2%: %3%");

#endif  // FERROW_TRANSPORT_HOST_KEY_CHECK_H_
