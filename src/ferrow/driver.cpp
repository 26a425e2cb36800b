#include "ferrow/driver.h"

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <vector>

#include "actions/get_dumping_status_action.h"
#include "actions/remove_agent_action.h"
#include "actions/remove_dumping_status_action.h"
#include "actions/retrieve_content_action.h"
#include "actions/retrieve_dump_action.h"
#include "actions/send_agent_action.h"
#include "actions/send_scout_action.h"
#include "actions/terminal_progress.h"
#include "commons/dyr_conf.h"
#include "ferrow/dump_options.h"
#include "ferrow/options.h"
#include "log/start_stop_logger.h"
#include "transport/host_key_check.h"
#include "transport/libssh2_errors.h"
#include "transport/socket.h"
#include "transport/ssh_transfer.h"

namespace tovel {
namespace {

template <ExcTag Tag>
bool isA(const ExTraceable& e) {
  return dynamic_cast<const Exc<Tag>*>(&e) != nullptr;
}

struct ExitCodeRow {
  bool (*matches)(const ExTraceable&);
  int code;
};

// Tested in this order; the first match gives the code.
const ExitCodeRow kExitCodes[] = {
    {isA<&ConnectionRefused>, 11},     {isA<&ConnectionTimedOut>, 12},
    {isA<&NetworkUnreachable>, 13},    {isA<&HostUnreachable>, 14},
    {isA<&ConnectionFault>, 15},       {isA<&HostNotFound>, 16},
    {isA<&SshInvalidCredentials>, 17}, {isA<&SshConnectionFault>, 18},
    {isA<&SshHostKeyVerificationFailed>, 19},
};

int runAction(CommandLine& cfg, const SessionFiles& session, DebugLog& debugLog,
              Log& runRecord) {
  readStandardInputList(cfg, std::cin);
  // A person at a terminal gets a progress line; the panel reads standard
  // error through a pipe and sees the usual output only.
  std::unique_ptr<TerminalProgressView> progress = progressLineOnStandardError(
      cfg.action == kGetContent && !cfg.verbose && standardErrorIsTerminal());
  const RunContext run{cfg, session, runRecord, debugLog, progress.get()};
  std::unique_ptr<Action> action = getActionById(cfg, run);
  action->execute();
  runRecord.setSuccess(true);
  return 0;
}

int runSession(int argc, char** argv, CommandLine& cfg) {
  const SessionFiles session(cfg.sessionPath);
  RunDebugLog debugLog(session.getLogFileName(), false, cfg.verbose);
  StartStopLogger startStop(debugLog, "Ferrow", argc, argv);
  try {
    verify_options(&cfg);
  } catch (const Exc<&::OptParsingError>& e) {
    debugLog.log(e);
    startStop.setExitCode(1);
    return 1;
  }
  int code = do_actions(cfg, session, debugLog);
  startStop.setExitCode(code);
  return code;
}

}  // namespace

void readStandardInputList(CommandLine& cfg, std::istream& in) {
  for (std::string* list : {&cfg.resellers, &cfg.clients, &cfg.domains}) {
    if (*list != "-") continue;
    std::getline(in, *list);
    return;
  }
}

// A connection failure keeps its own code when an action has wrapped it:
// the caller must tell a lost connection from a failed step, whatever the
// step.
int exitCodeFor(const ExTraceable& e) {
  for (const ExTraceable* cause = &e; cause != nullptr;) {
    for (const ExitCodeRow& row : kExitCodes) {
      if (row.matches(*cause)) return row.code;
    }
    const auto* wrapper = dynamic_cast<const ExTaggedIncludable*>(cause);
    cause = wrapper != nullptr ? wrapper->inner() : nullptr;
  }
  return 2;
}

int do_actions(CommandLine& cfg, const SessionFiles& session,
               DebugLog& debugLog) {
  XmlLog runRecord(session, getLogName(cfg), debugLog);
  try {
    return runAction(cfg, session, debugLog, runRecord);
  } catch (const MigrationTerminatedException& e) {
    runRecord.setSuccess(true);
    debugLog.log(std::string(e.what()));
    std::cout << e.what() << std::flush;
    return 0;
  } catch (const ExTraceable& e) {
    debugLog.log(e);
    runRecord.log(e);
    std::cerr << e.what() << std::flush;
    return exitCodeFor(e);
  }
}

int real_main(int argc, char** argv) {
  autoprepend();
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  CommandLine cfg;
  if (!parse_options(argc, argv, &cfg)) return 1;
  if (cfg.action == kHelp) {
    usage();
    return 0;
  }
  if (cfg.action == kNoAction) {
    std::cerr << "Action required. See --help\n";
    return 1;
  }
  if (cfg.sessionPath.empty()) {
    std::cerr << "--session-path is required.\n";
    return 1;
  }
  return runSession(argc, argv, cfg);
}

Action* getActionByIdInternal(const CommandLine& cfg, const RunContext& run) {
  switch (cfg.action) {
    case kSendScout:
      return new SendScoutAction(run);
    case kDeployAgent:
      return new SendAgentAction(run);
    case kGetDumpingStatus:
      return new GetDumpingStatusAction(run);
    case kDumpSelected:
    case kDumpAll: {
      std::vector<std::string> arguments;
      std::string input;
      buildDumpArguments(cfg, arguments, input);
      return new RetrieveDumpAction(run, arguments, input);
    }
    case kGetContent:
      return new RetrieveContentAction(run);
    case kRemoveAgent:
      return new RemoveAgentAction(run);
    case kRemoveDumpingStatus:
      return new RemoveDumpingStatusAction(run);
    default:
      TOVEL_THROW(UnknownAction);
  }
}

std::unique_ptr<Action> getActionById(const CommandLine& cfg,
                                      const RunContext& run) {
  return std::unique_ptr<Action>(getActionByIdInternal(cfg, run));
}

std::string getLogName(const CommandLine& cfg) {
  return cfg.action == kGetContent ? "transfer.result" : "";
}

}  // namespace tovel
