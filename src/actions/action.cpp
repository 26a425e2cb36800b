#include "actions/action.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <istream>
#include <log4cpp/Category.hh>
#include <sstream>
#include <streambuf>
#include <vector>

#include "commons/args_builder.h"
#include "commons/capped_output.h"
#include "commons/product_paths.h"
#include "commons/session_files.h"
#include "log/debug_log.h"

namespace tovel {

Action* pAction = nullptr;

namespace {

const char kSudoPrefix[] = "sudo -k; sudo -S -p ' ' ";
const int kStatusPullSeconds = 5;

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.Action");
}

// Reads a prefix, then everything `rest` holds, without copying `rest`
// into memory first.
class PrefixedStreamBuf : public std::streambuf {
 public:
  PrefixedStreamBuf(const std::string& prefix, std::istream& rest)
      : prefix_(prefix), rest_(rest), buffer_(65536) {
    char* begin = &prefix_[0];
    setg(begin, begin, begin + prefix_.size());
  }

 protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    if (!rest_.good()) return traits_type::eof();
    rest_.read(buffer_.data(), buffer_.size());
    std::streamsize got = rest_.gcount();
    if (got <= 0) return traits_type::eof();
    setg(buffer_.data(), buffer_.data(), buffer_.data() + got);
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string prefix_;
  std::istream& rest_;
  std::vector<char> buffer_;
};

}  // namespace

Action::Action(bool withStatus) {
  if (!withStatus) return;
  status_ = createMigrationStatusFile();
  status_->setIdle();
  status_->saveFile();
}

Action::~Action() {
  if (pAction == this) pAction = nullptr;
  if (ssh_) ssh_->setAlarm(nullptr);
  if (status_) {
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
    status_.reset();
  }
  ssh_.reset();
}

Ssh* Action::getSsh() {
  if (!ssh_) {
    unsigned short port = config_->port == 0 ? 22 : config_->port;
    HostKeyPolicy hostKeys;
    parseHostKeyChecking(config_->strictHostKeyChecking, &hostKeys.checking);
    hostKeys.fingerprint = config_->hostKeyFingerprint;
    hostKeys.knownHostsFile = files::getKnownHostsFileName();
    ssh_ = std::make_unique<Ssh>(config_->host, config_->login,
                                 config_->password, config_->noEncryption,
                                 port, hostKeys);
  }
  return ssh_.get();
}

int Action::execUser(const std::string& command, std::istream& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput) {
  ArgsBuilder line;
  line << "sh"
       << "-c"
       << "cd " + config_->agentDir + "; " + command;
  return getSsh()->exec(line.str(), in, out, err, quietOutput, quietInput,
                        Ssh::null_counter);
}

int Action::execRoot(const std::string& command, std::istream& in,
                     std::ostream& out, std::ostream& err, bool quietOutput,
                     bool quietInput) {
  if (!config_->sudo) {
    return execUser(command, in, out, err, quietOutput, quietInput);
  }
  checkSudoPresence();
  std::string prefixed = kSudoPrefix + command;
  if (config_->sudoPassword.empty()) {
    return execUser(prefixed, in, out, err, quietOutput, quietInput);
  }
  PrefixedStreamBuf buffer(config_->sudoPassword + "\n", in);
  std::istream input(&buffer);
  return execUser(prefixed, input, out, err, quietOutput, quietInput);
}

int Action::execRoot(const std::string& command, std::ostream& out,
                     std::ostream& err, bool quietOutput) {
  std::istringstream empty;
  return execRoot(command, empty, out, err, quietOutput, false);
}

void Action::checkSudoPresence() {
  if (sudoChecked_) return;
  CappedOutput out, err;
  std::istringstream none;
  int status = getSsh()->exec("sudo -V", none, out, err, false, false,
                              Ssh::null_counter);
  if (status == 127) TOVEL_THROW(SudoNotFound) % config_->host;
  std::istringstream password(config_->sudoPassword);
  status = getSsh()->exec(std::string(kSudoPrefix) + "true", password, out, err,
                          false, false, Ssh::null_counter);
  if (status != 0) {
    logger().error("sudo refused to run a command: " + err.str());
    TOVEL_THROW(SudoNotAllowed) % config_->login % config_->host;
  }
  sudoChecked_ = true;
}

void Action::takeFile(const std::string& path) {
  if (!config_->sudo) return;
  checkSudoPresence();
  ArgsBuilder chown;
  chown << "chown" << config_->login << path;
  CappedOutput out, err;
  if (execRoot(chown.str(), out, err, false) != 0) {
    TOVEL_THROW(CantTakeFileOwnership) % path % err.str();
  }
}

void Action::setAlarmFunction() {
  if (ssh_) ssh_->setAlarm(this);
}

void Action::doAlarm() {
  Action* armed = pAction;
  pAction = nullptr;
  try {
    std::string remote =
        config_->agentDir + "/" + files::getRemoteDumpingStatusFileName();
    ssh_->setAlarm(nullptr);
    std::string local = theSession->getDumpingStatusFileName();
    // Until the agent has written its status there is nothing to show, and
    // an empty file must not replace the last good one.
    if (getSsh()->get(remote, local + ".tmp") != 0) {
      unlink((local + ".tmp").c_str());
    } else if (rename((local + ".tmp").c_str(), local.c_str()) != 0) {
      return;
    }
    alarm(kStatusPullSeconds);
    pAction = armed;
  } catch (const std::exception& e) {
    // The pull is a courtesy to the panel; the dump itself goes on.
    logger().debug(std::string("Dumping status not pulled: ") + e.what());
  }
}

void installStatusAlarmHandler() {
  struct sigaction action = {};
  action.sa_handler = update_status;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGALRM, &action, nullptr);
}

void update_status(int) {
  // Once nobody is armed (the dump is over) the timer stops.
  if (pAction == nullptr) return;
  pAction->setAlarmFunction();
  installStatusAlarmHandler();
  alarm(kStatusPullSeconds);
}

}  // namespace tovel
