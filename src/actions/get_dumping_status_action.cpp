#include "actions/get_dumping_status_action.h"

#include <iostream>
#include <log4cpp/Category.hh>


namespace tovel {

void GetDumpingStatusAction::execute() {
  try {
    status_->setAgentParams(cfg().host);
    status_->setAgentOperation(MigrationStatus::wait);
    status_->saveFile();
    const std::string remote = agentCommands().dumpingStatusFile();
    takeFile(remote);
    int status = getSsh()->get(std::cout, remote);
    std::cout.flush();
    // The agent may not have written its status yet; the caller polls again.
    if (status != 0) {
      log4cpp::Category::getInstance("p.GetDumpingStatusAction")
          .error("Unable to read " + remote + " on the remote host");
    }
  } catch (const ExTraceable& e) {
    TOVEL_THROW_WRAP(DumpStatusError, e);
  }
}

}  // namespace tovel
