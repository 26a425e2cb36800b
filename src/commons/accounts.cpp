#include "commons/accounts.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "commons/host_log.h"

namespace tovel {

const char kPanelAccount[] = "dyradm";

AccountIds lookupAccount(const std::string& name) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? hint : 16384);
  passwd entry;
  passwd* found = nullptr;
  int rc;
  while ((rc = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(),
                          &found)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  AccountIds ids;
  if (!found) {
    hostLog(HostLogLevel::kError, "Unable to find uid for user %s: %s",
            name.c_str(), rc != 0 ? std::strerror(rc) : "no such account");
    return ids;
  }
  ids.uid = found->pw_uid;
  ids.gid = found->pw_gid;
  return ids;
}

}  // namespace tovel
