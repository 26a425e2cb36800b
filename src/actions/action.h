// The base of every command-line action. The driver creates one action,
// hands it the configuration and calls execute() once. The base owns the
// run's one SSH connection and runs commands on the source host as the
// login user or as root (directly, or through sudo with the password as
// the first line of the command's standard input).
#ifndef FERROW_ACTIONS_ACTION_H_
#define FERROW_ACTIONS_ACTION_H_

#include <iosfwd>
#include <memory>
#include <string>

#include "commons/config.h"
#include "errors/exc.h"
#include "transport/alarm.h"
#include "transport/ssh_transfer.h"
#include "xml/migration_status.h"

namespace tovel {

// Root commands through sudo cannot run.
TOVEL_DECLARE_TAG(SudoNotFound)
TOVEL_DECLARE_TAG(SudoNotAllowed)

// Where an action may report a result beyond its files; reserved for
// callers that embed actions.
class Result;

class Action : public Alarm {
 public:
  // With withStatus, creates the session's "migration.status" document and
  // saves it as idle. Throws what the XML layer throws.
  explicit Action(bool withStatus);
  // Saves the status document (if any) as idle once more (a failure is
  // written to the debug log, never thrown), then closes the connection.
  ~Action() override;
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  // Copies the remote dumping status file into the session (through a
  // ".tmp" file and a rename) and re-arms the timer. Any failure ends the
  // periodic pulls for the run, silently.
  void doAlarm() override;

  // cfg must outlive the action.
  virtual void setConfig(const config* cfg) { config_ = cfg; }
  virtual void setResult(Result* result) { result_ = result; }
  virtual void execute() = 0;

  // Registers this action as the alarm of its connection; called from the
  // SIGALRM handler, so it only stores a pointer.
  void setAlarmFunction();

 protected:
  // The connection, opened on first use (port 0 means 22). Throws what
  // Ssh's constructor throws.
  Ssh* getSsh();

  // Runs `command` as the login user: "sh -c 'cd AGENT_DIR; COMMAND'", the
  // three words shell-quoted. A failing cd does not stop the command.
  // Returns the remote exit status; throws what Ssh::exec throws.
  int execUser(const std::string& command, std::istream& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput);
  // Runs `command` as root: as execUser for a root login; with
  // --sudo-password as "sudo -k; sudo -S -p ' ' COMMAND" after
  // checkSudoPresence(), the sudo password (when not empty) and a line
  // break going ahead of `in`.
  int execRoot(const std::string& command, std::istream& in, std::ostream& out,
               std::ostream& err, bool quietOutput, bool quietInput);
  int execRoot(const std::string& command, std::ostream& out, std::ostream& err,
               bool quietOutput);

  // Once per action, with --sudo-password: throws SudoNotFound when the
  // login's shell cannot find sudo (status 127 of "sudo -V"), and
  // SudoNotAllowed when sudo refuses to run "true" with the given
  // password; the refusal's text goes to the debug log.
  void checkSudoPresence();

  // With --sudo-password, makes the login the owner of a remote file that
  // root wrote; throws CantTakeFileOwnership with chown's error text.
  void takeFile(const std::string& path);

  const config* config_ = nullptr;
  Result* result_ = nullptr;
  std::unique_ptr<MigrationStatus> status_;

 private:
  std::unique_ptr<Ssh> ssh_;
  bool sudoChecked_ = false;
};

// The action that the SIGALRM handler arms; null when none should be.
extern Action* pAction;

// Installs update_status as the SIGALRM handler (flags 0).
void installStatusAlarmHandler();

// The SIGALRM handler: while pAction is set, arms it, reinstalls itself and
// asks for the next signal in 5 seconds; otherwise does nothing.
void update_status(int signal);

}  // namespace tovel

TOVEL_EXC_TRAITS(
    &tovel::SudoNotFound, "SudoNotFound",
    "sudo command not found on the host %1%. You should install sudo to this "
    "host or supply root password for the migration.");
TOVEL_EXC_TRAITS(&tovel::SudoNotAllowed, "SudoNotAllowed",
                 "sudo is not allowed for user %1% on host %2%.");

#endif  // FERROW_ACTIONS_ACTION_H_
