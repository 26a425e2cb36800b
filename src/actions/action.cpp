#include "actions/action.h"

#include "errors/text_msg_formatter.h"
#include "log/debug_log.h"

namespace tovel {

Action::Action(bool withStatus) {
  if (!withStatus) return;
  status_ = createMigrationStatusFile();
  status_->setIdle();
  status_->saveFile();
}

Action::~Action() {
  if (!status_) return;
  try {
    status_->setIdle();
    status_->saveFile();
  } catch (const ExTraceable& e) {
    if (theDebugLog) theDebugLog->log(e);
  } catch (const std::exception& e) {
    if (theDebugLog) {
      theDebugLog->log(std::string("Unable to save the status: ") + e.what());
    }
  }
}

}  // namespace tovel
