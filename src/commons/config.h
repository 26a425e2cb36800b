// The parsed command line of one run. Filled by parse_options, checked by
// verify_options, then read by the action; the driver owns it.
#ifndef FERROW_COMMONS_CONFIG_H_
#define FERROW_COMMONS_CONFIG_H_

#include <string>

namespace tovel {

// Action identifiers: the value of config::action.
enum ActionId {
  kNoAction = -1,
  kManyActions = -2,
  kSendScout = 0,
  kDeployAgent = 1,
  kGetDumpingStatus = 2,
  kDumpSelected = 3,
  kDumpAll = 4,
  kGetContent = 5,
  kRemoveAgent = 6,
  kRemoveDumpingStatus = 7,
  kHelp = 8,
};

struct config {
  int action = kNoAction;
  std::string resellers;
  std::string clients;
  std::string domains;
  int noContent = 0;
  int compression = 0;
  std::string host;
  int port = 0;  // 0: the default port 22; -1: an invalid value was given
  std::string login;
  std::string password;
  std::string agentDir;
  std::string agentName;
  std::string dumpsDir;
  std::string sessionPath;
  std::string selectedObjectsFile;
  bool noCheckSpace = false;
  bool noEncryption = false;
  bool sudo = false;
  bool sudoPasswordProvided = false;
  std::string sudoPassword;
  int verbose = 0;
  int only = 0;  // 1 mail only, 2 hosting only
  std::string contentTransport;
  bool server = false;
  bool adminInfo = false;
  bool noLicense = false;
  // --strict-host-key-checking ("yes", "accept-new" or "no") and
  // --host-key-fingerprint ("SHA256:..."), as given; checked by
  // verify_options.
  std::string strictHostKeyChecking = "accept-new";
  std::string hostKeyFingerprint;
};

// True for the ids 0 to 8.
inline bool isAction(int id) { return id >= kSendScout && id <= kHelp; }

}  // namespace tovel

#endif  // FERROW_COMMONS_CONFIG_H_
