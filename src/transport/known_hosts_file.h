// KnownHostsFile: the host keys ferrow has accepted, in OpenSSH's
// known_hosts format, so that ssh-keygen -F/-R can inspect and edit it.
#ifndef FERROW_TRANSPORT_KNOWN_HOSTS_FILE_H_
#define FERROW_TRANSPORT_KNOWN_HOSTS_FILE_H_

#include <libssh2.h>

#include <string>
#include <vector>

#include "commons/unique_fd.h"

namespace tovel {

class KnownHostsFile {
 public:
  // Opens path, creating it mode 0600 owned by root when missing, and holds
  // an exclusive lock on it until destroyed: runs in parallel check and
  // append one after the other, so no entry is lost, torn or repeated.
  // Reads the whole file. Throws SystemError.
  explicit KnownHostsFile(const std::string& path);

  enum class Result { kMatch, kMismatch, kNotFound };
  struct Lookup {
    Result result;
    int line;  // 1-based line of the entry matched or contradicted; else 0
  };

  // Looks up the entries for name ("host", or "[host]:port" off port 22;
  // hashed entries included) and compares them with key, the raw key blob.
  // Any entry of name holding another key, whatever its type, is a
  // mismatch unless one holds this key. Lines the library cannot parse are
  // skipped. session is the one whose key is checked (the library's lists
  // belong to a session).
  Lookup find(LIBSSH2_SESSION* session, const std::string& name,
              const std::string& key) const;

  // Appends one entry for name with key (its LIBSSH2_KNOWNHOST_KEY_* type
  // in keyType), formatted by the library, in one write followed by
  // fdatasync; every other line stays as it is. Throws SystemError, and
  // InvalidHandle when the library cannot format the entry.
  void append(LIBSSH2_SESSION* session, const std::string& name,
              const std::string& key, int keyType);

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  UniqueFd fd_;
  std::vector<std::string> lines_;  // without their line ends
  bool endsWithNewline_ = true;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_KNOWN_HOSTS_FILE_H_
