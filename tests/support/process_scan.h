// The processes of this machine seen through /proc.
#ifndef FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_
#define FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_

#include <dirent.h>
#include <stdlib.h>
#include <sys/types.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ferrow_test {

// Every process id listed in /proc at the moment.
inline std::vector<pid_t> allPids() {
  std::vector<pid_t> pids;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  while (dirent* entry = proc ? readdir(proc.get()) : nullptr)
    if (atoi(entry->d_name) > 0) pids.push_back(atoi(entry->d_name));
  return pids;
}

// The bytes of /proc/<pid>/<name> ("cmdline", "environ", "comm", ...);
// empty when the process is gone or the file unreadable.
inline std::string procFile(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/" + name);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline std::vector<pid_t> childrenOf(pid_t pid) {
  std::istringstream in(
      procFile(pid, "task/" + std::to_string(pid) + "/children"));
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

// The running built ferrow whose arguments hold marker; 0 when none does.
inline pid_t findFerrow(const std::string& marker) {
  for (pid_t pid : allPids()) {
    std::string cmdline = procFile(pid, "cmdline");
    if (cmdline.rfind(FERROW_BINARY + std::string(1, '\0'), 0) == 0 &&
        cmdline.find(marker) != std::string::npos)
      return pid;
  }
  return 0;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_
