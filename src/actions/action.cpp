#include "actions/action.h"

#include <istream>
#include <log4cpp/Category.hh>
#include <sstream>
#include <streambuf>
#include <vector>

#include "commons/capped_output.h"
#include "commons/product_paths.h"

namespace tovel {

namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.Action");
}

}  // namespace

Action::Action(const RunContext& run, bool withStatus) : run_(run) {
  if (!withStatus) return;
  status_ = createMigrationStatusFile(session().getStatusFileName(),
                                      session().getDocumentOwner());
  status_->setIdle();
  status_->saveFile();
}

Action::~Action() {
  if (status_) {
    try {
      status_->setIdle();
      status_->saveFile();
    } catch (const ExTraceable& e) {
      debugLog().log(e);
    } catch (const std::exception& e) {
      debugLog().log(std::string("Unable to save the status: ") + e.what());
    }
    status_.reset();
  }
  ssh_.reset();
}

Ssh* Action::getSsh() {
  if (!ssh_) {
    unsigned short port = cfg().port == 0 ? 22 : cfg().port;
    HostKeyPolicy hostKeys;
    parseHostKeyChecking(cfg().strictHostKeyChecking, &hostKeys.checking);
    hostKeys.fingerprint = cfg().hostKeyFingerprint;
    hostKeys.knownHostsFile = files::getKnownHostsFileName();
    ssh_ = std::make_unique<Ssh>(cfg().host, cfg().login, cfg().password,
                                 cfg().noEncryption, port, hostKeys);
  }
  return ssh_.get();
}

int Action::execUser(const std::string& command, InputFeed& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput, Ssh::Counter& counter,
                     const Periodic* periodic) {
  return getSsh()->exec(agentCommands().inAgentDir(command), in, out, err,
                        quietOutput, quietInput, counter, periodic);
}

int Action::execRoot(const std::string& command, InputFeed& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput, Ssh::Counter& counter,
                     const Periodic* periodic) {
  if (!cfg().sudo) {
    return execUser(command, in, out, err, quietOutput, quietInput, counter,
                    periodic);
  }
  checkSudoPresence();
  std::string prefixed = AgentCommands::asRoot(command);
  if (cfg().sudoPassword.empty()) {
    return execUser(prefixed, in, out, err, quietOutput, quietInput, counter,
                    periodic);
  }
  PrefixedFeed input(cfg().sudoPassword + "\n", in);
  return execUser(prefixed, input, out, err, quietOutput, quietInput, counter,
                  periodic);
}

int Action::execUser(const std::string& command, std::istream& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput, const Periodic* periodic) {
  StreamFeed feed(in);
  return execUser(command, feed, out, err, quietOutput, quietInput,
                  Ssh::null_counter, periodic);
}

int Action::execRoot(const std::string& command, std::istream& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput, const Periodic* periodic) {
  StreamFeed feed(in);
  return execRoot(command, feed, out, err, quietOutput, quietInput,
                  Ssh::null_counter, periodic);
}

int Action::execRoot(const std::string& command, std::ostream& out,
                     std::ostream& err, bool quietOutput,
                     const Periodic* periodic) {
  std::istringstream empty;
  return execRoot(command, empty, out, err, quietOutput, false, periodic);
}

void Action::checkSudoPresence() {
  if (sudoChecked_) return;
  CappedOutput out, err;
  std::istringstream none;
  int status = getSsh()->exec(AgentCommands::sudoVersion(), none, out, err,
                              false, false, Ssh::null_counter);
  if (status == 127) TOVEL_THROW(SudoNotFound) % cfg().host;
  std::istringstream password(cfg().sudoPassword);
  status = getSsh()->exec(AgentCommands::asRoot("true"), password, out, err,
                          false, false, Ssh::null_counter);
  if (status != 0) {
    logger().error("sudo refused to run a command: " + err.str());
    TOVEL_THROW(SudoNotAllowed) % cfg().login % cfg().host;
  }
  sudoChecked_ = true;
}

void Action::takeFile(const std::string& path) {
  if (!cfg().sudo) return;
  checkSudoPresence();
  CappedOutput out, err;
  if (execRoot(AgentCommands::giveTo(cfg().login, path), out, err, false) !=
      0) {
    TOVEL_THROW(CantTakeFileOwnership) % path % err.str();
  }
}

}  // namespace tovel
