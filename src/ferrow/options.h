// The command line and the two password variables of the environment
// (DYR_PASSWORD, DYR_SUDO_PASSWORD) turned into a CommandLine, and the
// rules on which options may and must go with the chosen action. Parsing and
// checking are separate: the driver checks only once the session is set up.
#ifndef FERROW_FERROW_OPTIONS_H_
#define FERROW_FERROW_OPTIONS_H_

#include <string>

#include "errors/exc.h"
#include "ferrow/command_line.h"

namespace tovel {

// Scans argv with getopt_long and stores what it finds into *cfg; fields no
// option names keep their values. Returns false when the scanner meets an
// unknown or ambiguous option or a missing value (the scanner prints its own
// diagnostic to standard error), true otherwise. A second action option sets
// action to kManyActions. On success the password is taken from the
// environment (see get_env_noncrypted_password). May be called any number of
// times in a process: the scanner is reinitialised each time, and argv may
// be permuted by it. Throws nothing.
bool parse_options(int argc, char** argv, CommandLine* cfg);

// Throws Exc<&::OptParsingError> for the first rule *cfg breaks; returns
// normally when the options fit the chosen action.
void verify_options(CommandLine* cfg);

// Writes usageText() to standard output.
void usage();

// The usage text, line breaks included; a static string.
const char* usageText();

// True when DYR_SUDO_PASSWORD is in the environment, even with an empty value.
bool is_sudo_password_provided();

// The value of DYR_SUDO_PASSWORD, empty when absent. The variable is left in
// the environment.
std::string get_sudo_password();

// The value of DYR_PASSWORD, cut to its first 4096 characters. The first call
// copies it into a process-wide buffer and removes the variable from the
// environment so no process started later inherits it; later calls return
// that buffer unchanged (empty if the variable was absent at the first call).
// The pointer stays valid for the life of the process.
const char* get_env_noncrypted_password();

// Forgets what get_env_noncrypted_password read, so its next call reads the
// environment again. For tests only.
void resetEnvPasswordForTesting();

// The raisers of the checks: each throws Exc<&::OptParsingError> whose
// argument is the text formatted from its own pattern.
//   invalid_option:             "<what> is not allowed with --help or -h\n"
//   extra_option:               "'--<option>' only may be specified when
//                                '--<action>' is requested"
//   req_action_argument_missed: "<what> is required unless --help or -h
//                                requested\n"
//   no_action_option:           "'--<option>' is required when '--<action>'
//                                action is requested"
[[noreturn]] void invalid_option(const char* what);
[[noreturn]] void extra_option(const char* option, const char* action);
[[noreturn]] void req_action_argument_missed(const char* what);
[[noreturn]] void no_action_option(const char* option, const char* action);

}  // namespace tovel

// A command line that breaks a rule; at global scope, where its callers
// name it.
TOVEL_DECLARE_TAG(OptParsingError)

TOVEL_EXC_TRAITS(&::OptParsingError, "OptParsingError",
                 "Unable to parse command line: %1%");

#endif  // FERROW_FERROW_OPTIONS_H_
