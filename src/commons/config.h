// The configuration of one run that the actions read: where to connect,
// how to log in, which agent, where the session and the dumps go. The
// driver fills it from the command line and owns it for the whole run.
#ifndef FERROW_COMMONS_CONFIG_H_
#define FERROW_COMMONS_CONFIG_H_

#include <string>

namespace tovel {

struct config {
  bool noContent = false;  // the dump leaves the content archives out
  std::string host;
  int port = 0;  // 0: the default port 22; -1: an invalid value was given
  std::string login;
  std::string password;
  std::string agentDir;
  std::string agentName;
  std::string dumpsDir;
  std::string sessionPath;
  bool noCheckSpace = false;
  bool noEncryption = false;
  bool sudo = false;
  bool sudoPasswordProvided = false;
  std::string sudoPassword;
  // "yes", "accept-new" or "no", and "SHA256:..." or empty, as given on the
  // command line and checked there.
  std::string strictHostKeyChecking = "accept-new";
  std::string hostKeyFingerprint;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_CONFIG_H_
