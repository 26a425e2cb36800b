#include "actions/remove_dumping_status_action.h"

#include <unistd.h>

#include "commons/product_paths.h"

namespace tovel {

void RemoveDumpingStatusAction::execute() {
  std::string name =
      config_->agentDir + "/" + files::getRemoteDumpingStatusFileName();
  unlink(name.c_str());
}

}  // namespace tovel
