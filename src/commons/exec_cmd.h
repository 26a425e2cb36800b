// Running local programs with given standard input and captured standard
// output and error.
#ifndef FERROW_COMMONS_EXEC_CMD_H_
#define FERROW_COMMONS_EXEC_CMD_H_

#include <sys/types.h>

#include <map>
#include <new>
#include <string>

#include "commons/arg_list.h"
#include "errors/exc.h"

namespace tovel {

typedef std::map<std::string, std::string> EnvMap;

// Runs program (looked up by execvp) with args (argument 0 included),
// writing input to its standard input and appending its standard output and
// error to output and errors, all three served together without blocking. A
// non-empty user whose uid is not 0 is switched to in the child; env entries
// are set in the child. Returns the exit status (0..255), or -1 when the child
// was killed by a signal or could not be waited for, or when the pipes could
// not be made (logged to the host log; nothing is run). Input the child does
// not read is dropped. Throws SystemError when select() or fork() fails; the
// child is then killed and reaped.
int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output,
                                std::string& errors, const std::string& program,
                                const ArgList& args, const std::string& user,
                                const EnvMap& env);
int forkExecvGetOutErrSuidEnv(std::string& output, std::string& errors,
                              const std::string& program, const ArgList& args,
                              const std::string& user, const EnvMap& env);
int forkExecvGetOutErrSuid(std::string& output, std::string& errors,
                           const std::string& program, const ArgList& args,
                           const std::string& user);
int forkExecvGetOutErr(std::string& output, std::string& errors,
                       const std::string& program, const ArgList& args);
int forkExecvGetOut(std::string& output, const std::string& program,
                    const ArgList& args);

// Forks; the child puts in, out and err on 0, 1 and 2, closes every other
// descriptor, switches user, sets env and execs. Returns the child's pid in
// the parent. Throws SystemError when fork() fails.
// The child never comes back into the caller's code: when a step fails
// (an unknown user included) or execvp returns, it writes the error to the
// host log and ends with _exit(127), as a shell does for a command it cannot
// run. Returning there would run the caller's code twice.
pid_t forkExecvPipes(int in, int out, int err, const std::string& program,
                     const ArgList& args, const std::string& user,
                     const EnvMap& env);

class CmdLine {
 public:
  virtual ~CmdLine() = default;
  // The printable command line.
  virtual std::string getString() const = 0;
};

// One local command: program, arguments, input; after a run, its output,
// errors and return code.
class ExecCmd : public CmdLine {
 public:
  // Tag of the failure that exec() throws; code "ExecCmd::ExFailed".
  static void Failed(bool) {}
  typedef Exc<&ExecCmd::Failed> ExFailed;

  // program is also appended as argument 0.
  explicit ExecCmd(const std::string& program);

  ExecCmd& operator<<(const std::string& argument);
  void setInput(const std::string& input) { input_ = input; }
  void setUser(const std::string& user) { user_ = user; }
  void setEnv(const std::string& name, const std::string& value);

  // Runs; a non-zero return code throws ExFailed (see reportError).
  virtual int exec();
  // Runs and returns the code; an exception escaping it ends the process.
  virtual int exec(std::nothrow_t) noexcept;
  // One run: stores and returns the return code. Throws SystemError.
  virtual int execCmdLine();

  // Throws ExFailed: "Execution of <command> failed with return code <n>.\n"
  // followed by the non-empty sections "Stdin is\n...", "Stdout is\n...",
  // "Stderr is\n...", each ending with a line break.
  [[noreturn]] void reportError() const;

  std::string getString() const override;
  const std::string& getOutput() const { return output_; }
  const std::string& getErrors() const { return errors_; }
  int getReturnCode() const { return returnCode_; }
  bool isExecuted() const { return executed_; }
  bool isFinished() const { return finished_; }
  int getErrno() const { return savedErrno_; }

 private:
  ArgList arguments_;
  std::string program_;
  std::string input_;
  std::string output_;
  std::string errors_;
  bool executed_ = false;
  bool finished_ = false;
  int savedErrno_ = 0;
  int returnCode_ = -1;
  std::string user_;
  EnvMap environment_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::ExecCmd::Failed, "ExecCmd::ExFailed",
                 "Execution of %1% failed with return code %2%.\n%3%%4%%5%");

#endif  // FERROW_COMMONS_EXEC_CMD_H_
