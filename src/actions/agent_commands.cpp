#include "actions/agent_commands.h"

#include <algorithm>

#include "actions/archive_stream.h"
#include "agents/agent.h"
#include "commons/args_builder.h"
#include "commons/product_paths.h"
#include "commons/sh_quote.h"

namespace tovel {
namespace {

// The line of `sh -c SCRIPT`: SCRIPT is one word to the remote shell.
std::string shellLine(const std::string& script) {
  ArgsBuilder line;
  line << "sh"
       << "-c" << script;
  return line.str();
}

}  // namespace

std::string AgentCommands::path(const std::string& name) const {
  return dir_ + "/" + name;
}

std::string AgentCommands::entryPoint(const Agent& agent) const {
  return path(agent.getEntryPoint());
}

std::string AgentCommands::dumpFile() const { return path("dump.xml"); }

std::string AgentCommands::dumpingStatusFile() const {
  return path(files::getRemoteDumpingStatusFileName());
}

std::string AgentCommands::agentLine(
    const Agent& agent, const std::vector<std::string>& arguments) const {
  ArgsBuilder line;
  line << agent.getInterpreterOrDefault() << entryPoint(agent);
  for (const std::string& argument : arguments) line << argument;
  return line.str();
}

std::string AgentCommands::statusRequest(const Agent& agent) const {
  return shellLine("cd " + sh_quote(dir_) + " && " +
                   agentLine(agent, {"--get-status"}));
}

std::string AgentCommands::inAgentDir(const std::string& command) const {
  return shellLine("cd " + sh_quote(dir_) + "; " + command);
}

std::string AgentCommands::removeAgentDir() const {
  ArgsBuilder line;
  line << "rm"
       << "-rf" << dir_;
  return line.str();
}

std::string AgentCommands::asRoot(const std::string& command) {
  return "sudo -k; sudo -S -p ' ' " + command;
}

std::string AgentCommands::sudoVersion() { return "sudo -V"; }

std::string AgentCommands::removeFile(const std::string& path) {
  ArgsBuilder line;
  line << "rm" << path;
  return line.str();
}

std::string AgentCommands::makeDir(const std::string& path) {
  ArgsBuilder line;
  line << "mkdir"
       << "-p" << path;
  return line.str();
}

std::string AgentCommands::giveTo(const std::string& login,
                                  const std::string& path) {
  ArgsBuilder line;
  line << "chown" << login << path;
  return line.str();
}

std::string AgentCommands::streamArchives(
    const std::vector<std::string>& paths,
    const std::vector<uint64_t>& starts) {
  // Most batches start every archive at 0: one "0" says so.
  std::string list;
  if (std::any_of(starts.begin(), starts.end(),
                  [](uint64_t start) { return start != 0; })) {
    for (uint64_t start : starts) list += std::to_string(start) + ",";
    list.pop_back();
  }
  ArgsBuilder line;
  line << "perl"
       << "-e" << archiveStreamProgram() << "--" << (list.empty() ? "0" : list);
  for (const std::string& path : paths) line << path;
  return line.str();
}

std::string AgentCommands::removeFiles(const std::vector<std::string>& paths) {
  ArgsBuilder line;
  line << "rm"
       << "-f";
  for (const std::string& path : paths) line << path;
  return line.str();
}

}  // namespace tovel
