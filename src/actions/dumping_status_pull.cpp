#include "actions/dumping_status_pull.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "errors/ex_traceable.h"

namespace tovel {
namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.DumpingStatusPull");
}

}  // namespace

DumpingStatusPull::DumpingStatusPull(Ssh& ssh, const std::string& remote,
                                     const std::string& local)
    : ssh_(ssh), remote_(remote), local_(local) {}

bool DumpingStatusPull::operator()() {
  const std::string temporary = local_ + ".tmp";
  try {
    // Until the agent has written its status there is nothing to show, and
    // an empty file must not replace the last good one.
    if (ssh_.get(remote_, temporary) != 0) {
      unlink(temporary.c_str());
      return true;
    }
    if (rename(temporary.c_str(), local_.c_str()) == 0) return true;
    std::string reason = strerror(errno);
    logger().debug("Dumping status not pulled: cannot rename " + temporary +
                   ": " + reason);
  } catch (const MigrationTerminatedException&) {
    throw;
  } catch (const std::exception& e) {
    // The pull is a courtesy to the panel; the dump itself goes on.
    logger().debug(std::string("Dumping status not pulled: ") + e.what());
  }
  return false;
}

Periodic DumpingStatusPull::periodic() {
  return Periodic{kPeriod, [this] { return (*this)(); }};
}

}  // namespace tovel
