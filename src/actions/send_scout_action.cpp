#include "actions/send_scout_action.h"

#include <fstream>
#include <sstream>

#include "commons/capped_output.h"
#include "commons/product_paths.h"
#include "commons/session_files.h"

namespace tovel {

void SendScoutAction::execute() {
  std::string scoutPath = files::getScoutFileName();
  std::ifstream scout(scoutPath.c_str(), std::ios::binary);
  if (!scout) TOVEL_THROW(UnableToOpenScoutFile) % scoutPath;
  std::string resultPath = session().getScoutResultFileName();
  std::ofstream result(resultPath.c_str(), std::ios::binary | std::ios::trunc);
  if (!result) TOVEL_THROW(StreamWrite);
  CappedOutput err;
  int status = execRoot("perl", scout, result, err, false, true);
  result.close();
  if (status != 0) TOVEL_THROW(FailedToExecuteScout) % status % err.str();
  if (!result) TOVEL_THROW(StreamWrite);
}

}  // namespace tovel
