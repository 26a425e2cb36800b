// AgentCommands: the one place that spells the paths of the agent's
// directory on the source host and the shell command lines the actions run
// there.
//
// Paths are plain text: they go to Ssh::get/put, which quote them, or
// become words of a line built here. Lines are ready for the remote shell:
// every word goes through sh_quote (ArgsBuilder), and the agent directory
// is quoted wherever it stands, so a blank, a quote, "$(...)" or ";" in it
// stays part of the one path and runs nothing. sh_quote leaves letters,
// digits and "/._-" bare, so a plain directory is spelt as it is. No
// operation throws.
#ifndef FERROW_ACTIONS_AGENT_COMMANDS_H_
#define FERROW_ACTIONS_AGENT_COMMANDS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tovel {

class Agent;

class AgentCommands {
 public:
  // agentDir: the --agent-dir value, DIR below.
  explicit AgentCommands(const std::string& agentDir) : dir_(agentDir) {}

  // Paths: DIR itself, and DIR/name for a name relative to it.
  const std::string& dir() const { return dir_; }
  std::string path(const std::string& name) const;
  // DIR/ENTRY_POINT, as the agent's spec file names it.
  std::string entryPoint(const Agent& agent) const;
  // DIR/dump.xml, the dump file the agent writes.
  std::string dumpFile() const;
  // DIR/dumping-status.xml, the status the agent keeps while it dumps.
  std::string dumpingStatusFile() const;

  // "INTERPRETER DIR/ENTRY_POINT ARGUMENT...": the agent's interpreter
  // ("perl" when its spec file names none) running its entry point.
  std::string agentLine(const Agent& agent,
                        const std::vector<std::string>& arguments) const;
  // "sh -c 'cd DIR && AGENT_LINE --get-status'": the deployed agent asked
  // for its status; nothing runs when DIR cannot be entered.
  std::string statusRequest(const Agent& agent) const;
  // "sh -c 'cd DIR; COMMAND'": COMMAND run in DIR by the login's shell; a
  // failing cd does not stop it.
  std::string inAgentDir(const std::string& command) const;
  // "rm -rf DIR".
  std::string removeAgentDir() const;

  // "sudo -k; sudo -S -p ' ' COMMAND": COMMAND as root, sudo forgetting
  // earlier credentials and reading the password from the first line of
  // the standard input, with a blank for a prompt.
  static std::string asRoot(const std::string& command);
  // "sudo -V": whether the login's shell finds sudo (status 127 if not).
  static std::string sudoVersion();
  // "rm PATH", "mkdir -p PATH", "chown LOGIN PATH".
  static std::string removeFile(const std::string& path);
  static std::string makeDir(const std::string& path);
  static std::string giveTo(const std::string& login, const std::string& path);
  // "perl -e PROGRAM -- STARTS PATH...": the archives sent back to back,
  // each from its byte of `starts` (from 0 where it has none), each
  // removed once its index is confirmed on the input (archive_stream.h).
  static std::string streamArchives(const std::vector<std::string>& paths,
                                    const std::vector<uint64_t>& starts = {});
  // "rm -f PATH...".
  static std::string removeFiles(const std::vector<std::string>& paths);

 private:
  std::string dir_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_AGENT_COMMANDS_H_
