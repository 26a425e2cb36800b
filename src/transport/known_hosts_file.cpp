#include "transport/known_hosts_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "commons/handle.h"
#include "errors/system_error.h"

namespace tovel {
namespace {

struct KnownHostsFree {
  void operator()(LIBSSH2_KNOWNHOSTS* hosts) const {
    libssh2_knownhost_free(hosts);
  }
};
typedef Handle<LIBSSH2_KNOWNHOSTS*, KnownHostsFree> KnownHosts;

constexpr int kRawPlain =
    LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW;

// A new file gets its mode and owner here, not from the umask and the
// caller's account.
UniqueFd openLocked(const std::string& path) {
  UniqueFd fd(open(path.c_str(),
                   O_RDWR | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (fd) {
    if (fchown(fd.get(), 0, 0) != 0 || fchmod(fd.get(), 0600) != 0) {
      throwSystemError("cannot set the owner and mode of " + path, errno);
    }
  } else if (errno == EEXIST) {
    fd.reset(open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
  }
  if (!fd) throwSystemError("cannot open " + path, errno);
  while (flock(fd.get(), LOCK_EX) != 0) {
    if (errno != EINTR) throwSystemError("cannot lock " + path, errno);
  }
  return fd;
}

std::string readAll(int fd, const std::string& path) {
  std::string text;
  char buffer[8192];
  for (off_t at = 0;;) {
    ssize_t got = pread(fd, buffer, sizeof buffer, at);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwSystemError("cannot read " + path, errno);
    if (got == 0) return text;
    text.append(buffer, static_cast<size_t>(got));
    at += got;
  }
}

}  // namespace

KnownHostsFile::KnownHostsFile(const std::string& path)
    : path_(path), fd_(openLocked(path)) {
  std::string text = readAll(fd_.get(), path_);
  endsWithNewline_ = text.empty() || text.back() == '\n';
  for (std::string::size_type start = 0; start < text.size();) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines_.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

// Line by line, because the library gives up on the whole file at the
// first line it cannot parse, and because the contradicted line is named.
KnownHostsFile::Lookup KnownHostsFile::find(LIBSSH2_SESSION* session,
                                            const std::string& name,
                                            const std::string& key) const {
  Lookup mismatch{Result::kNotFound, 0};
  for (size_t i = 0; i < lines_.size(); ++i) {
    KnownHosts hosts(libssh2_knownhost_init(session));
    const std::string& line = lines_[i];
    if (libssh2_knownhost_readline(hosts.get(), line.data(), line.size(),
                                   LIBSSH2_KNOWNHOST_FILE_OPENSSH) != 0) {
      continue;
    }
    // Key type 0: an entry of another type for the same name counts too.
    int rc = libssh2_knownhost_checkp(hosts.get(), name.c_str(), -1,
                                      key.data(), key.size(), kRawPlain,
                                      nullptr);
    int line_number = static_cast<int>(i) + 1;
    if (rc == LIBSSH2_KNOWNHOST_CHECK_MATCH) {
      return {Result::kMatch, line_number};
    }
    if (rc == LIBSSH2_KNOWNHOST_CHECK_MISMATCH &&
        mismatch.result == Result::kNotFound) {
      mismatch = {Result::kMismatch, line_number};
    }
  }
  return mismatch;
}

void KnownHostsFile::append(LIBSSH2_SESSION* session, const std::string& name,
                            const std::string& key, int keyType) {
  KnownHosts hosts(libssh2_knownhost_init(session));
  struct libssh2_knownhost* entry = nullptr;
  if (libssh2_knownhost_addc(hosts.get(), name.c_str(), nullptr, key.data(),
                             key.size(), nullptr, 0, kRawPlain | keyType,
                             &entry) != 0) {
    TOVEL_THROW(InvalidHandle);
  }
  char line[16384];
  size_t length = 0;
  if (libssh2_knownhost_writeline(hosts.get(), entry, line, sizeof line,
                                  &length,
                                  LIBSSH2_KNOWNHOST_FILE_OPENSSH) != 0) {
    TOVEL_THROW(InvalidHandle);
  }
  std::string text = endsWithNewline_ ? "" : "\n";
  text.append(line, length);
  if (text.back() != '\n') text += '\n';
  // One write on an O_APPEND descriptor: a reader without the lock sees
  // the line whole or not at all.
  ssize_t written = write(fd_.get(), text.data(), text.size());
  if (written != static_cast<ssize_t>(text.size())) {
    throwSystemError("cannot write " + path_, written < 0 ? errno : ENOSPC);
  }
  if (fdatasync(fd_.get()) != 0) throwSystemError("cannot sync " + path_, errno);
  std::string added = text.substr(endsWithNewline_ ? 0 : 1);
  added.pop_back();
  lines_.push_back(added);
  endsWithNewline_ = true;
}

}  // namespace tovel
