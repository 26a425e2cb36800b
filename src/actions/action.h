// The base of every command-line action. The driver creates one action,
// handing it the run's shared objects, and calls execute() once. The base owns
// the run's one SSH connection and runs commands on the source host as the
// login user or as root (directly, or through sudo with the password as
// the first line of the command's standard input).
#ifndef FERROW_ACTIONS_ACTION_H_
#define FERROW_ACTIONS_ACTION_H_

#include <iosfwd>
#include <memory>
#include <string>

#include "actions/agent_commands.h"
#include "actions/run_context.h"
#include "errors/exc.h"
#include "transport/input_feed.h"
#include "transport/periodic.h"
#include "transport/ssh_transfer.h"
#include "xml/migration_status.h"

namespace tovel {

// Root commands through sudo cannot run.
TOVEL_DECLARE_TAG(SudoNotFound)
TOVEL_DECLARE_TAG(SudoNotAllowed)

// Where an action may report a result beyond its files; reserved for
// callers that embed actions.
class Result;

class Action {
 public:
  // Everything run names must outlive the action. With withStatus, creates
  // the session's "migration.status" document and saves it as idle. Throws
  // what the XML layer throws.
  Action(const RunContext& run, bool withStatus);
  // Saves the status document (if any) as idle once more (a failure is
  // written to the debug log, never thrown), then closes the connection.
  virtual ~Action();
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  virtual void setResult(Result* result) { result_ = result; }
  virtual void execute() = 0;

 protected:
  const config& cfg() const { return run_.cfg; }
  const SessionFiles& session() const { return run_.session; }
  Log& runRecord() const { return run_.runRecord; }
  DebugLog& debugLog() const { return run_.debugLog; }
  // Null when nobody watches the transfer.
  TransferProgressListener* progress() const { return run_.progress; }

  // The connection, opened on first use (port 0 means 22). Throws what
  // Ssh's constructor throws.
  Ssh* getSsh();

  // The paths and command lines of the configured agent directory.
  AgentCommands agentCommands() const { return AgentCommands(cfg().agentDir); }

  // Runs `command` as the login user in the agent directory
  // (AgentCommands::inAgentDir). A failing cd does not stop the command.
  // `counter` and `periodic` act while this command runs (Ssh::exec).
  // Returns the remote exit status; throws what Ssh::exec throws.
  int execUser(const std::string& command, InputFeed& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput,
               Ssh::Counter& counter, const Periodic* periodic = nullptr);
  // Runs `command` as root: as execUser for a root login; with
  // --sudo-password as AgentCommands::asRoot(command) after
  // checkSudoPresence(), the sudo password (when not empty) and a line
  // break going ahead of `in`.
  int execRoot(const std::string& command, InputFeed& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput,
               Ssh::Counter& counter, const Periodic* periodic = nullptr);
  // The same with a stream's bytes as input, or none, and no counter.
  int execUser(const std::string& command, std::istream& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput,
               const Periodic* periodic = nullptr);
  int execRoot(const std::string& command, std::istream& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput,
               const Periodic* periodic = nullptr);
  int execRoot(const std::string& command, std::ostream& out, std::ostream& err,
               bool quietOutput, const Periodic* periodic = nullptr);

  // Once per action, with --sudo-password: throws SudoNotFound when the
  // login's shell cannot find sudo (status 127 of "sudo -V"), and
  // SudoNotAllowed when sudo refuses to run "true" with the given
  // password; the refusal's text goes to the debug log.
  void checkSudoPresence();

  // With --sudo-password, makes the login the owner of a remote file that
  // root wrote; throws CantTakeFileOwnership with chown's error text.
  void takeFile(const std::string& path);

  Result* result_ = nullptr;
  std::unique_ptr<MigrationStatus> status_;

 private:
  const RunContext run_;
  std::unique_ptr<Ssh> ssh_;
  bool sudoChecked_ = false;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(
    &tovel::SudoNotFound, "SudoNotFound",
    "sudo command not found on the host %1%. You should install sudo to this "
    "host or supply root password for the migration.");
TOVEL_EXC_TRAITS(&tovel::SudoNotAllowed, "SudoNotAllowed",
                 "sudo is not allowed for user %1% on host %2%.");

#endif  // FERROW_ACTIONS_ACTION_H_
