// The options and environment that log a ferrow run in to the test sshd.
#ifndef FERROW_TESTS_SUPPORT_SOURCE_LOGIN_H_
#define FERROW_TESTS_SUPPORT_SOURCE_LOGIN_H_

#include <map>
#include <string>
#include <vector>

#include "commons/config.h"
#include "support/sshd_server.h"

namespace ferrow_test {

struct SourceLogin {
  std::string name;  // for test messages
  std::vector<std::string> args;
  std::map<std::string, std::string> env;
};

// "--host=127.0.0.1 --port=P --login=L" with DYR_PASSWORD; with sudo also
// "--sudo-password" and DYR_SUDO_PASSWORD set to the account's password.
inline SourceLogin sourceLogin(const TestAccount& account, bool sudo,
                               const SshdServer& server = SshdServer::shared()) {
  SourceLogin login;
  login.name = account.name + (sudo ? " through sudo" : "");
  login.args = {"--host=127.0.0.1",
                "--port=" + std::to_string(server.port()),
                "--login=" + account.name};
  login.env["DYR_PASSWORD"] = account.password;
  if (sudo) {
    login.args.push_back("--sudo-password");
    login.env["DYR_SUDO_PASSWORD"] = account.password;
  }
  return login;
}

// The same for an action run in-process; with sudo, sudoPassword is the
// account's own unless given.
inline void loginAs(tovel::config* cfg, const TestAccount& account, bool sudo,
                    const std::string* sudoPassword = nullptr) {
  cfg->host = "127.0.0.1";
  cfg->port = SshdServer::shared().port();
  cfg->login = account.name;
  cfg->password = account.password;
  cfg->sudo = sudo;
  cfg->sudoPasswordProvided = sudo;
  cfg->sudoPassword =
      sudoPassword ? *sudoPassword : (sudo ? account.password : "");
  // No product installation to keep keys in; end-to-end tests check keys.
  cfg->strictHostKeyChecking = "no";
}

// login.args followed by `more`.
inline std::vector<std::string> withLogin(const SourceLogin& login,
                                          std::vector<std::string> more) {
  std::vector<std::string> all = login.args;
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

}  // namespace ferrow_test

#endif  // FERROW_TESTS_SUPPORT_SOURCE_LOGIN_H_
