// Looking at the processes of this machine through /proc: who runs, with
// which arguments and environment.
#ifndef FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_
#define FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <cctype>
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
  if (!proc) return pids;
  while (dirent* entry = readdir(proc.get())) {
    if (std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
      pids.push_back(static_cast<pid_t>(atoi(entry->d_name)));
    }
  }
  return pids;
}

// The raw bytes of /proc/<pid>/<name> ("cmdline", "environ"); empty when
// the process is gone or the file unreadable.
inline std::string procFile(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/" + name,
                   std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// The program a process runs; empty when unknown.
inline std::string procExe(pid_t pid) {
  char target[PATH_MAX];
  std::string link = "/proc/" + std::to_string(pid) + "/exe";
  ssize_t size = readlink(link.c_str(), target, sizeof(target) - 1);
  return size > 0 ? std::string(target, size) : std::string();
}

// The running ferrow whose arguments hold marker (e.g. its session path);
// 0 when there is none.
inline pid_t findFerrow(const std::string& marker) {
  for (pid_t pid : allPids()) {
    if (procExe(pid) == FERROW_BINARY &&
        procFile(pid, "cmdline").find(marker) != std::string::npos) {
      return pid;
    }
  }
  return 0;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_PROCESS_SCAN_H_
