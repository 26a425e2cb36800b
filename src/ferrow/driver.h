// The program's spine: parses and checks the command line, brings up the
// session, the debug log and the run record in a fixed order, runs the one
// action and turns its outcome into the exit code.
//
// Exit codes: 0 success, "--help", or a terminated migration; 1 a refused
// command line; 2 any other failure of the action; 11 connection refused,
// 12 connection timed out, 13 network unreachable, 14 host unreachable,
// 15 other connection failure, 16 host name not found, 17 wrong login or
// password, 18 connection lost.
#ifndef FERROW_FERROW_DRIVER_H_
#define FERROW_FERROW_DRIVER_H_

#include <istream>
#include <memory>
#include <string>

#include "actions/action.h"
#include "actions/run_context.h"
#include "errors/ex_traceable.h"
#include "errors/exc.h"
#include "ferrow/command_line.h"

namespace tovel {

// The factory was asked for an id that has no action.
TOVEL_DECLARE_TAG(UnknownAction)

// The whole run; returns the exit code. Throws only what escapes the run's
// objects and the action (main catches it).
int real_main(int argc, char** argv);

// Runs the action of cfg under a new run record of session; returns its
// exit code. Exceptions outside the ExTraceable family pass through.
int do_actions(CommandLine& cfg, const SessionFiles& session,
               DebugLog& debugLog);

// The exit code of a failure of the family: 11 to 18 for the connection
// failures listed above, also when an action wrapped one (the outermost
// match counts), 2 for the rest.
int exitCodeFor(const ExTraceable& e);

// Replaces the first of cfg's resellers, clients and domains (in this
// order) whose value is "-" by one line read from in; a later "-" is kept.
void readStandardInputList(CommandLine& cfg, std::istream& in);

// The action for cfg.action, made with run (whose objects, cfg normally
// among them, must outlive it); the dump selection is read from cfg.
// Throws Exc<&UnknownAction> for an id without an action, and what
// buildDumpArguments throws.
std::unique_ptr<Action> getActionById(const CommandLine& cfg,
                                      const RunContext& run);
Action* getActionByIdInternal(const CommandLine& cfg, const RunContext& run);

// "transfer.result" for "--get-content", else "" (the default record name).
std::string getLogName(const CommandLine& cfg);

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::UnknownAction, "UnknownAction",
                 "Unknown action passed to the function. Probably bug in the "
                 "options parser");

#endif  // FERROW_FERROW_DRIVER_H_
