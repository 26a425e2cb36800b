// What the tests of ferrow's installed face share: running programs, and
// the option names that the binary and its source know.
#ifndef FERROW_TESTS_PACKAGE_PACKAGE_SUPPORT_H_
#define FERROW_TESTS_PACKAGE_PACKAGE_SUPPORT_H_

#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "commons/arg_list.h"
#include "commons/exec_cmd.h"
#include "support/ferrow_runner.h"

namespace ferrow_test {

// Runs argv[0] (looked up in PATH) with argv, in the test's environment plus
// env, with input on its standard input.
inline RunResult runProgram(const std::vector<std::string>& argv,
                            const std::map<std::string, std::string>& env = {},
                            const std::string& input = "") {
  tovel::ArgList args;
  for (const std::string& arg : argv) args << arg;
  RunResult result;
  result.exitCode = tovel::forkExecvGetInOutErrSuidEnv(
      input, result.out, result.err, argv.at(0), args, "",
      tovel::EnvMap(env.begin(), env.end()));
  return result;
}

// Runs a bash script with positional arguments $1, $2, ...
inline RunResult runBash(const std::string& script,
                         const std::vector<std::string>& args = {}) {
  std::vector<std::string> argv = {"bash", "-c", script, "bash"};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

// The options that "BINARY --help" shows: "--host", "--send-scout", ...
// and "-h".
inline std::set<std::string> helpOptions(const std::string& binary) {
  RunResult help = runProgram({binary, "--help"});
  if (help.exitCode != 0) throw std::runtime_error(binary + " --help failed");
  static const std::regex option("(^|[^-a-z])(--[a-z][-a-z]*|-h)\\b");
  std::set<std::string> found;
  for (std::sregex_iterator it(help.out.begin(), help.out.end(), option), end;
       it != end; ++it) {
    found.insert((*it)[2]);
  }
  return found;
}

// Every long option in the option scanner's table (without the dashes),
// and whether it takes a value.
inline std::map<std::string, bool> scannerOptions() {
  std::string source =
      readFile(std::string(FERROW_SOURCE_DIR) + "/src/ferrow/options.cpp");
  static const std::regex entry(
      "\\{\"([a-z][-a-z]*)\",\\s*(no_argument|required_argument)");
  std::map<std::string, bool> found;
  for (std::sregex_iterator it(source.begin(), source.end(), entry), end;
       it != end; ++it) {
    found[(*it)[1]] = (*it)[2] == "required_argument";
  }
  if (found.size() < 30) throw std::runtime_error("option table not found");
  return found;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_PACKAGE_PACKAGE_SUPPORT_H_
