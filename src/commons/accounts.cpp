#include "commons/accounts.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "commons/host_log.h"

namespace tovel {

const char kPanelAccount[] = "dyradm";

namespace {

std::mutex cacheMutex;
std::map<std::string, AccountIds>& cache() {
  static std::map<std::string, AccountIds> found;
  return found;
}

bool readPasswordDatabase(const std::string& name, AccountIds* ids) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? hint : 16384);
  passwd entry;
  passwd* found = nullptr;
  int rc;
  while ((rc = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(),
                          &found)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (!found) {
    hostLog(HostLogLevel::kError, "Unable to find uid for user %s: %s",
            name.c_str(), rc != 0 ? std::strerror(rc) : "no such account");
    return false;
  }
  ids->uid = found->pw_uid;
  ids->gid = found->pw_gid;
  return true;
}

}  // namespace

AccountIds lookupAccount(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(cacheMutex);
    auto it = cache().find(name);
    if (it != cache().end()) return it->second;
  }
  AccountIds ids;
  if (!readPasswordDatabase(name, &ids)) return AccountIds();
  std::lock_guard<std::mutex> lock(cacheMutex);
  cache()[name] = ids;
  return ids;
}

void forgetAccountLookups() {
  std::lock_guard<std::mutex> lock(cacheMutex);
  cache().clear();
}

}  // namespace tovel
