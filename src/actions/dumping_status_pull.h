// DumpingStatusPull: while the agent dumps, its dumping status file on the
// source host is copied into the session every 5 seconds, so that the
// panel can follow the dump without a connection of its own.
#ifndef FERROW_ACTIONS_DUMPING_STATUS_PULL_H_
#define FERROW_ACTIONS_DUMPING_STATUS_PULL_H_

#include <chrono>
#include <string>

#include "transport/periodic.h"
#include "transport/ssh_transfer.h"

namespace tovel {

class DumpingStatusPull {
 public:
  static constexpr std::chrono::seconds kPeriod{5};

  // remote: the agent's status file; local: the session's copy. ssh must
  // outlive the pull.
  DumpingStatusPull(Ssh& ssh, const std::string& remote,
                    const std::string& local);

  // One pull: copies remote to local + ".tmp", then renames that onto
  // local, so that readers never see a partial file. While the remote file
  // cannot be read (the agent has not written it yet) the last good copy
  // stays. Returns false, the reason in the debug log, when the pull failed
  // otherwise: the pulls end there, the dump goes on. Throws only
  // MigrationTerminatedException.
  bool operator()();

  // Pulls every kPeriod while the command it is handed to runs; valid as
  // long as this object.
  Periodic periodic();

 private:
  Ssh& ssh_;
  const std::string remote_;
  const std::string local_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_DUMPING_STATUS_PULL_H_
