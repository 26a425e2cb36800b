#include "ferrow/options.h"

#include <getopt.h>

#include <boost/format.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commons/secrets.h"
#include "errors/exc.h"
#include "transport/host_key_check.h"

namespace tovel {
namespace {

const char kPasswordVar[] = "DYR_PASSWORD";
const char kSudoPasswordVar[] = "DYR_SUDO_PASSWORD";

// Codes getopt_long returns for the long options. An action option returns
// kActionCode plus its action id.
enum OptionCode {
  kActionCode = 256,
  kNoContentCode = kActionCode + kHelp + 1,
  kNoCompressCode,
  kIpCode,
  kHostCode,
  kPortCode,
  kLoginCode,
  kAgentDirCode,
  kAgentNameCode,
  kDumpsDirCode,
  kNoCheckSpaceCode,
  kNoEncryptionCode,
  kSudoPasswordCode,
  kResellersCode,
  kClientsCode,
  kDomainsCode,
  kSelectedObjectsFileCode,
  kSessionPathCode,
  kVerboseCode,
  kOnlyMailCode,
  kOnlyHostingCode,
  kContentTransportCode,
  kServerCode,
  kAdminInfoCode,
  kNoLicenseCode,
  kStrictHostKeyCheckingCode,
  kHostKeyFingerprintCode,
};

const struct option kOptions[] = {
    {"send-scout", no_argument, nullptr, kActionCode + kSendScout},
    {"deploy-agent", no_argument, nullptr, kActionCode + kDeployAgent},
    {"get-dumping-status", no_argument, nullptr,
     kActionCode + kGetDumpingStatus},
    {"dump-selected", no_argument, nullptr, kActionCode + kDumpSelected},
    {"dump-all", no_argument, nullptr, kActionCode + kDumpAll},
    {"get-content", no_argument, nullptr, kActionCode + kGetContent},
    {"remove-agent", no_argument, nullptr, kActionCode + kRemoveAgent},
    {"remove-dumping-status", no_argument, nullptr,
     kActionCode + kRemoveDumpingStatus},
    {"help", no_argument, nullptr, kActionCode + kHelp},
    {"no-content", no_argument, nullptr, kNoContentCode},
    {"no-compress", no_argument, nullptr, kNoCompressCode},
    {"ip", required_argument, nullptr, kIpCode},
    {"host", required_argument, nullptr, kHostCode},
    {"port", required_argument, nullptr, kPortCode},
    {"login", required_argument, nullptr, kLoginCode},
    {"agent-dir", required_argument, nullptr, kAgentDirCode},
    {"agent-name", required_argument, nullptr, kAgentNameCode},
    {"dumps-dir", required_argument, nullptr, kDumpsDirCode},
    {"no-check-space", no_argument, nullptr, kNoCheckSpaceCode},
    {"no-encryption", no_argument, nullptr, kNoEncryptionCode},
    {"sudo-password", no_argument, nullptr, kSudoPasswordCode},
    {"resellers", required_argument, nullptr, kResellersCode},
    {"clients", required_argument, nullptr, kClientsCode},
    {"domains", required_argument, nullptr, kDomainsCode},
    {"selected-objects-file", required_argument, nullptr,
     kSelectedObjectsFileCode},
    {"session-path", required_argument, nullptr, kSessionPathCode},
    {"verbose", no_argument, nullptr, kVerboseCode},
    {"only-mail", no_argument, nullptr, kOnlyMailCode},
    {"only-hosting", no_argument, nullptr, kOnlyHostingCode},
    {"content-transport", required_argument, nullptr, kContentTransportCode},
    {"server", no_argument, nullptr, kServerCode},
    {"admin-info", no_argument, nullptr, kAdminInfoCode},
    {"no-license", no_argument, nullptr, kNoLicenseCode},
    {"strict-host-key-checking", required_argument, nullptr,
     kStrictHostKeyCheckingCode},
    {"host-key-fingerprint", required_argument, nullptr,
     kHostKeyFingerprintCode},
    {nullptr, 0, nullptr, 0},
};

// Trailing blanks on the first line and after "--dump-all )" are part of
// the text callers compare against.
const char kUsage[] =
    R"USAGE(Usage: [DYR_PASSWORD=<password> | DYR_SUDO_PASSWORD = <sudo_password>] ferrow 
          --host=<hostname or IP address> (obsolete alias is --ip)
          [--port=<port>] (defaults to 22)
          --login=<username>
          [--sudo-password]
          [--strict-host-key-checking=yes|accept-new|no] (defaults to accept-new)
          [--host-key-fingerprint=SHA256:<base64>]
          --agent-dir=<dir> (relative path on the remote side)
          ( --send-scout
          | --deploy-agent --session-path <dir> --agent-name <agent>
          | --get-dumping-status --session-path <dir>
          | ( --dump-selected [--selected-objects-file=<file-path>]
                [--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]] [--domains=-|<domain1>[,<domain2>...]]
             | --dump-all ) 
                [--server] [--admin-info] [--no-license]
                 --session-path <dir> --agent-name <agent>
                [--no-content] [--no-compress]
                [--only-mail]
                [--only-hosting]
          | --get-content --session-path <dir> --agent-name <agent>
                [--no-check-space] [--no-encryption (not implemented)] [--dumps-dir=<dir-on-destination-host>]
          | --remove-agent --session-path <dir> --agent-name <agent>
          | --remove-dumping-status --session-path <dir>
          | --help | -h)
)USAGE";

// DYR_PASSWORD as read by the first get_env_noncrypted_password call; one
// byte beyond the 4096 characters keeps the copy terminated.
constexpr size_t kPasswordChars = 4096;
struct EnvPassword {
  bool read = false;
  char text[kPasswordChars + 1] = {};
} theEnvPassword;

// A second action option does not replace the first: the run is refused.
// Help is the exception: asked for anywhere on the line, it wins, so that
// "--help" always answers with the usage text.
void setAction(ActionId id, CommandLine* cfg) {
  if (id == kHelp || cfg->action == kHelp) {
    cfg->action = kHelp;
  } else {
    cfg->action = cfg->action == kNoAction ? id : kManyActions;
  }
}

// 0 also stands for a value that is not a number at all.
int parsePort(const char* value) {
  long port = std::strtol(value, nullptr, 10);
  if (port <= 0 || port > 65535) return -1;
  return static_cast<int>(port);
}

void readSudoPassword(CommandLine* cfg) {
  cfg->sudo = true;
  if (is_sudo_password_provided()) {
    cfg->sudoPasswordProvided = true;
    cfg->sudoPassword = get_sudo_password();
  }
}

// The field a string option overwrites, or null for other options.
std::string* stringField(int code, CommandLine* cfg) {
  switch (code) {
    case kIpCode:
    case kHostCode:
      return &cfg->host;
    case kLoginCode:
      return &cfg->login;
    case kAgentDirCode:
      return &cfg->agentDir;
    case kAgentNameCode:
      return &cfg->agentName;
    case kDumpsDirCode:
      return &cfg->dumpsDir;
    case kResellersCode:
      return &cfg->resellers;
    case kClientsCode:
      return &cfg->clients;
    case kDomainsCode:
      return &cfg->domains;
    case kSelectedObjectsFileCode:
      return &cfg->selectedObjectsFile;
    case kSessionPathCode:
      return &cfg->sessionPath;
    case kContentTransportCode:
      return &cfg->contentTransport;
    case kStrictHostKeyCheckingCode:
      return &cfg->strictHostKeyChecking;
    case kHostKeyFingerprintCode:
      return &cfg->hostKeyFingerprint;
    default:
      return nullptr;
  }
}

// Sets the switch an option without value stands for; other codes the
// scanner may return are ignored.
void setFlag(int code, CommandLine* cfg) {
  switch (code) {
    case kNoContentCode:
      cfg->noContent = true;
      break;
    case kNoCompressCode:
      cfg->compression = Compression::kNoCompression;
      break;
    case kNoCheckSpaceCode:
      cfg->noCheckSpace = true;
      break;
    case kNoEncryptionCode:
      cfg->noEncryption = true;
      break;
    case kVerboseCode:
      cfg->verbose = true;
      break;
    case kOnlyMailCode:
      cfg->only = ObjectFilter::kMailOnly;
      break;
    case kOnlyHostingCode:
      cfg->only = ObjectFilter::kHostingOnly;
      break;
    case kServerCode:
      cfg->server = true;
      break;
    case kAdminInfoCode:
      cfg->adminInfo = true;
      break;
    case kNoLicenseCode:
      cfg->noLicense = true;
      break;
    default:
      break;
  }
}

void applyOption(int code, const char* value, CommandLine* cfg) {
  if (code == 'h') code = kActionCode + kHelp;
  if (code >= kActionCode && isAction(code - kActionCode)) {
    setAction(static_cast<ActionId>(code - kActionCode), cfg);
  } else if (std::string* field = stringField(code, cfg)) {
    *field = value;
  } else if (code == kPortCode) {
    cfg->port = parsePort(value);
  } else if (code == kSudoPasswordCode) {
    readSudoPassword(cfg);
  } else {
    setFlag(code, cfg);
  }
}

// Remote-host options make no sense for an action that never connects.
void verifyOfflineAction(const CommandLine& cfg) {
  if (!cfg.host.empty()) invalid_option("host");
  if (cfg.port != 0) invalid_option("port");
  if (!cfg.login.empty()) invalid_option("login");
  if (!cfg.password.empty()) invalid_option("password");
  if (!cfg.agentDir.empty()) invalid_option("agent directory");
  if (!cfg.agentName.empty()) invalid_option("agent name");
  if (cfg.sudo) invalid_option("sudo parameters");
  if (cfg.strictHostKeyChecking != "accept-new" ||
      !cfg.hostKeyFingerprint.empty()) {
    invalid_option("host key checking");
  }
}

void verifyConnection(const CommandLine& cfg) {
  if (cfg.host.empty()) req_action_argument_missed("host");
  if (cfg.port == -1) {
    TOVEL_THROW(::OptParsingError) %
        "port should be a number in [1, 65535] range";
  }
  if (cfg.login.empty()) req_action_argument_missed("login");
  if (cfg.password.empty()) req_action_argument_missed("password");
  HostKeyChecking checking;
  if (!parseHostKeyChecking(cfg.strictHostKeyChecking, &checking)) {
    TOVEL_THROW(::OptParsingError) %
        "strict-host-key-checking should be one of yes, accept-new, no";
  }
  if (!cfg.hostKeyFingerprint.empty() &&
      !isSha256Fingerprint(cfg.hostKeyFingerprint)) {
    TOVEL_THROW(::OptParsingError) %
        "host-key-fingerprint should be SHA256: followed by 43 base64 "
        "characters, as ssh-keygen -lf prints it";
  }
  if (cfg.sudo && !cfg.sudoPasswordProvided) {
    TOVEL_THROW(::OptParsingError) %
        "DYR_SUDO_PASSWORD environment variable is not provided with "
        "--sudo-password\n";
  }
}

// The scout goes before any agent is chosen; every later step works with one.
void verifyAgent(const CommandLine& cfg) {
  if (cfg.action == kSendScout) {
    if (!cfg.agentDir.empty()) invalid_option("agent directory");
    if (!cfg.agentName.empty()) invalid_option("agent name");
  } else {
    if (cfg.agentDir.empty()) req_action_argument_missed("agent directory");
    if (cfg.agentName.empty()) req_action_argument_missed("agent name");
  }
}

}  // namespace

bool parse_options(int argc, char** argv, CommandLine* cfg) {
  // With glibc, 0 (not 1) also resets the scanner's internal state, which a
  // previous call may have left in the middle of an argument.
  optind = 0;
  opterr = 1;
  int code;
  while ((code = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
    if (code == '?') return false;
    applyOption(code, optarg, cfg);
  }
  cfg->password = get_env_noncrypted_password();
  // Before anything is logged: the debug log shows them masked.
  registerSecret(cfg->password);
  registerSecret(cfg->sudoPassword);
  return true;
}

void verify_options(CommandLine* cfg) {
  if (cfg->action == kNoAction) {
    TOVEL_THROW(::OptParsingError) % "No action given";
  }
  if (cfg->action == kManyActions) {
    TOVEL_THROW(::OptParsingError) % "More than one action is given";
  }
  if (cfg->action != kGetContent) {
    if (cfg->noCheckSpace) extra_option("no-check-space", "get-content");
    if (cfg->noEncryption) extra_option("no-encryption", "get-content");
  }
  if (cfg->action != kDumpSelected && cfg->action != kDumpAll &&
      cfg->noContent) {
    extra_option("no-content", "dump-*");
  }
  if (cfg->action == kRemoveDumpingStatus || cfg->action == kHelp) {
    verifyOfflineAction(*cfg);
    return;
  }
  verifyConnection(*cfg);
  verifyAgent(*cfg);
}

void usage() { std::fputs(kUsage, stdout); }

const char* usageText() { return kUsage; }

bool is_sudo_password_provided() {
  return std::getenv(kSudoPasswordVar) != nullptr;
}

std::string get_sudo_password() {
  const char* value = std::getenv(kSudoPasswordVar);
  return value ? value : "";
}

const char* get_env_noncrypted_password() {
  if (!theEnvPassword.read) {
    theEnvPassword.read = true;
    if (const char* value = std::getenv(kPasswordVar)) {
      size_t length = strnlen(value, kPasswordChars);
      std::memcpy(theEnvPassword.text, value, length);
      theEnvPassword.text[length] = '\0';
    }
    unsetenv(kPasswordVar);
  }
  return theEnvPassword.text;
}

void resetEnvPasswordForTesting() { theEnvPassword = EnvPassword(); }

void invalid_option(const char* what) {
  boost::format text("%1% is not allowed with --help or -h\n");
  TOVEL_THROW(::OptParsingError) % str(text % what);
}

void extra_option(const char* option, const char* action) {
  boost::format text("'--%1%' only may be specified when '--%2%' is requested");
  TOVEL_THROW(::OptParsingError) % str(text % option % action);
}

void req_action_argument_missed(const char* what) {
  // printf-style on purpose; boost::format fills "%s" like "%1%".
  boost::format text("%s is required unless --help or -h requested\n");
  TOVEL_THROW(::OptParsingError) % str(text % what);
}

void no_action_option(const char* option, const char* action) {
  boost::format text("'--%1%' is required when '--%2%' action is requested");
  TOVEL_THROW(::OptParsingError) % str(text % option % action);
}

}  // namespace tovel
