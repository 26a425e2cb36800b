#include "ferrow/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "errors/exc.h"
#include "errors/tags.h"

namespace tovel {
namespace {

const char kPrefix[] = "Unable to parse command line: ";

// An argv array with "ferrow" in front, owning its strings; getopt may
// permute the pointers but never writes into the strings.
class Argv {
 public:
  explicit Argv(const std::vector<const char*>& args) {
    strings_.emplace_back("ferrow");
    strings_.insert(strings_.end(), args.begin(), args.end());
    for (std::string& s : strings_) pointers_.push_back(&s[0]);
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(strings_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

// Every case starts with neither password variable set and with the
// DYR_PASSWORD buffer not yet read.
class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override { clearEnvironment(); }
  void TearDown() override { clearEnvironment(); }

  static void clearEnvironment() {
    unsetenv("DYR_PASSWORD");
    unsetenv("DYR_SUDO_PASSWORD");
    resetEnvPasswordForTesting();
  }

  // Parses into a fresh record; the parse must succeed.
  static config parse(const std::vector<const char*>& args) {
    Argv argv(args);
    config cfg;
    EXPECT_TRUE(parse_options(argv.argc(), argv.argv(), &cfg));
    return cfg;
  }

  // The message verify_options throws, or "" when it accepts the record.
  static std::string verifyMessage(config cfg) {
    try {
      verify_options(&cfg);
    } catch (const Exc<&::OptParsingError>& e) {
      return e.what();
    }
    return "";
  }

  static std::string notAllowed(const std::string& what) {
    return kPrefix + what + " is not allowed with --help or -h\n";
  }
  static std::string required(const std::string& what) {
    return kPrefix + what + " is required unless --help or -h requested\n";
  }

  // A record every connecting action other than the scout accepts.
  static config complete(int action) {
    config cfg;
    cfg.action = action;
    cfg.host = "src.example";
    cfg.login = "admin";
    cfg.password = "pw";
    cfg.agentDir = "agent";
    cfg.agentName = "Unix";
    return cfg;
  }
};

// --- parse_options ---------------------------------------------------------

TEST_F(OptionsTest, EachActionOptionStoresItsId) {
  const struct {
    const char* option;
    int id;
  } cases[] = {
      {"--send-scout", 0},
      {"--deploy-agent", 1},
      {"--get-dumping-status", 2},
      {"--dump-selected", 3},
      {"--dump-all", 4},
      {"--get-content", 5},
      {"--remove-agent", 6},
      {"--remove-dumping-status", 7},
      {"--help", 8},
      {"-h", 8},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.id, parse({c.option}).action) << c.option;
  }
  EXPECT_EQ(kNoAction, parse({"--host", "h"}).action);
}

TEST_F(OptionsTest, MoreThanOneActionIsMarked) {
  EXPECT_EQ(kManyActions, parse({"--dump-all", "--dump-selected"}).action);
  EXPECT_EQ(kHelp, parse({"--send-scout", "-h", "--help"}).action);
  EXPECT_EQ(kHelp, parse({"--help", "--send-scout"}).action);
  EXPECT_EQ(kHelp, parse({"--dump-all", "--dump-selected", "-h"}).action);
  EXPECT_EQ(kManyActions, parse({"--get-content", "--get-content"}).action);
}

TEST_F(OptionsTest, ValuesAfterEqualsSignOrInNextArgument) {
  config cfg =
      parse({"--host=h1", "--login", "root", "--agent-dir=ad", "--agent-name",
             "an", "--dumps-dir=dd", "--resellers", "r1,r2", "--clients=-",
             "--domains", "a.com,b.com", "--selected-objects-file=/tmp/sel",
             "--session-path", "/var/s", "--content-transport=rsync"});
  EXPECT_EQ("h1", cfg.host);
  EXPECT_EQ("root", cfg.login);
  EXPECT_EQ("ad", cfg.agentDir);
  EXPECT_EQ("an", cfg.agentName);
  EXPECT_EQ("dd", cfg.dumpsDir);
  EXPECT_EQ("r1,r2", cfg.resellers);
  EXPECT_EQ("-", cfg.clients);
  EXPECT_EQ("a.com,b.com", cfg.domains);
  EXPECT_EQ("/tmp/sel", cfg.selectedObjectsFile);
  EXPECT_EQ("/var/s", cfg.sessionPath);
  EXPECT_EQ("rsync", cfg.contentTransport);
  // A value may itself look like an option when it follows as an argument.
  EXPECT_EQ("--dump-all", parse({"--login", "--dump-all"}).login);
  EXPECT_EQ("", parse({"--login="}).login);
}

TEST_F(OptionsTest, SwitchesSetTheirFields) {
  config cfg = parse({"--no-content", "--no-compress", "--no-check-space",
                      "--no-encryption", "--verbose", "--server",
                      "--admin-info", "--no-license"});
  EXPECT_EQ(1, cfg.noContent);
  EXPECT_EQ(2, cfg.compression);
  EXPECT_TRUE(cfg.noCheckSpace);
  EXPECT_TRUE(cfg.noEncryption);
  EXPECT_EQ(1, cfg.verbose);
  EXPECT_TRUE(cfg.server);
  EXPECT_TRUE(cfg.adminInfo);
  EXPECT_TRUE(cfg.noLicense);
  EXPECT_FALSE(cfg.sudo);
  EXPECT_EQ(0, cfg.only);

  config untouched = parse({"--dump-all"});
  EXPECT_EQ(0, untouched.noContent);
  EXPECT_EQ(0, untouched.compression);
  EXPECT_EQ(0, untouched.verbose);
  EXPECT_FALSE(untouched.noLicense);
}

TEST_F(OptionsTest, LaterOptionWins) {
  EXPECT_EQ("new", parse({"--ip", "old", "--host", "new"}).host);
  EXPECT_EQ("new", parse({"--host=old", "--ip=new"}).host);
  EXPECT_EQ("b", parse({"--login=a", "--login=b"}).login);
  EXPECT_EQ(2, parse({"--only-mail", "--only-hosting"}).only);
  EXPECT_EQ(1, parse({"--only-hosting", "--only-mail"}).only);
  EXPECT_EQ(22, parse({"--port=abc", "--port=22"}).port);
}

TEST_F(OptionsTest, PortMustFitSixteenBitsAndNotBeZero) {
  EXPECT_EQ(0, parse({"--send-scout"}).port);
  EXPECT_EQ(1, parse({"--port=1"}).port);
  EXPECT_EQ(65535, parse({"--port", "65535"}).port);
  EXPECT_EQ(-1, parse({"--port=65536"}).port);
  EXPECT_EQ(-1, parse({"--port=0"}).port);
  EXPECT_EQ(-1, parse({"--port=abc"}).port);
  EXPECT_EQ(-1, parse({"--port="}).port);
  EXPECT_EQ(-1, parse({"--port=-22"}).port);
  EXPECT_EQ(-1, parse({"--port=99999999999999999999999"}).port);
  // strtol stops at the first non-digit; the leading number counts.
  EXPECT_EQ(2222, parse({"--port=2222x"}).port);
}

TEST_F(OptionsTest, SudoPasswordComesFromTheEnvironment) {
  config absent = parse({"--sudo-password"});
  EXPECT_TRUE(absent.sudo);
  EXPECT_FALSE(absent.sudoPasswordProvided);
  EXPECT_EQ("", absent.sudoPassword);

  setenv("DYR_SUDO_PASSWORD", "", 1);
  config empty = parse({"--sudo-password"});
  EXPECT_TRUE(empty.sudoPasswordProvided);
  EXPECT_EQ("", empty.sudoPassword);

  setenv("DYR_SUDO_PASSWORD", "s3cr et", 1);
  config given = parse({"--sudo-password"});
  EXPECT_TRUE(given.sudoPasswordProvided);
  EXPECT_EQ("s3cr et", given.sudoPassword);
  // Unlike DYR_PASSWORD, the variable stays for later readers.
  ASSERT_NE(nullptr, std::getenv("DYR_SUDO_PASSWORD"));

  // Without the option the variable is not looked at.
  config unasked = parse({"--send-scout"});
  EXPECT_FALSE(unasked.sudo);
  EXPECT_FALSE(unasked.sudoPasswordProvided);
  EXPECT_EQ("", unasked.sudoPassword);
}

TEST_F(OptionsTest, PasswordIsTakenAndRemovedFromTheEnvironment) {
  setenv("DYR_PASSWORD", "ssh-pw", 1);
  config cfg = parse({"--send-scout"});
  EXPECT_EQ("ssh-pw", cfg.password);
  EXPECT_EQ(nullptr, std::getenv("DYR_PASSWORD"));

  // A second parse in the same process still sees the password read first.
  EXPECT_EQ("ssh-pw", parse({"--send-scout"}).password);
}

TEST_F(OptionsTest, ScannerErrorsReturnFalse) {
  const std::vector<std::vector<const char*>> bad = {
      {"--send-scout", "--bogus"},
      {"--host"},            // value missing at the end
      {"--dump"},            // ambiguous prefix
      {"-x"},                // the only short option is -h
      {"--send-scout=yes"},  // no value allowed
  };
  for (const auto& args : bad) {
    Argv argv(args);
    config cfg;
    ::testing::internal::CaptureStderr();
    bool ok = parse_options(argv.argc(), argv.argv(), &cfg);
    std::string diagnostic = ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(ok) << args[0];
    EXPECT_NE(std::string::npos, diagnostic.find("ferrow")) << diagnostic;
  }
}

TEST_F(OptionsTest, ScannerStartsAfreshOnEveryCall) {
  // Leave the scanner in the middle of a cluster of short options.
  Argv first({"-xh", "--send-scout"});
  config ignored;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(parse_options(first.argc(), first.argv(), &ignored));
  ::testing::internal::GetCapturedStderr();

  config cfg = parse({"--deploy-agent", "--host", "h", "--login=l"});
  EXPECT_EQ(kDeployAgent, cfg.action);
  EXPECT_EQ("h", cfg.host);
  EXPECT_EQ("l", cfg.login);
}

// --- get_env_noncrypted_password and the sudo helpers ----------------------

TEST_F(OptionsTest, EnvPasswordIsReadOnlyOnce) {
  EXPECT_STREQ("", get_env_noncrypted_password());
  // The variable appearing later is not picked up: the buffer stays as read.
  setenv("DYR_PASSWORD", "late", 1);
  EXPECT_STREQ("", get_env_noncrypted_password());

  resetEnvPasswordForTesting();
  setenv("DYR_PASSWORD", "first", 1);
  EXPECT_STREQ("first", get_env_noncrypted_password());
  EXPECT_EQ(nullptr, std::getenv("DYR_PASSWORD"));
  setenv("DYR_PASSWORD", "second", 1);
  EXPECT_STREQ("first", get_env_noncrypted_password());
}

TEST_F(OptionsTest, EnvPasswordIsCutAt4096Characters) {
  std::string exact(4096, 'a');
  exact[0] = 'X';
  exact[4095] = 'Z';
  setenv("DYR_PASSWORD", exact.c_str(), 1);
  EXPECT_EQ(exact, get_env_noncrypted_password());

  resetEnvPasswordForTesting();
  std::string longer = std::string(4096, 'b') + "TAIL";
  setenv("DYR_PASSWORD", longer.c_str(), 1);
  EXPECT_EQ(std::string(4096, 'b'), get_env_noncrypted_password());
  EXPECT_EQ(nullptr, std::getenv("DYR_PASSWORD"));
}

// --- verify_options --------------------------------------------------------

TEST_F(OptionsTest, ActionMustBeGivenExactlyOnce) {
  config none;
  none.noCheckSpace = true;
  EXPECT_EQ(std::string(kPrefix) + "No action given", verifyMessage(none));

  // The action fault is reported before any other.
  config many = parse(
      {"--dump-all", "--dump-selected", "--no-check-space", "--no-content"});
  EXPECT_EQ(std::string(kPrefix) + "More than one action is given",
            verifyMessage(many));
}

TEST_F(OptionsTest, SwitchesOnlyForTheirActions) {
  config cfg = complete(kDeployAgent);
  cfg.noCheckSpace = true;
  cfg.noEncryption = true;
  cfg.noContent = 1;
  EXPECT_EQ(
      "Unable to parse command line: '--no-check-space' only may be "
      "specified when '--get-content' is requested",
      verifyMessage(cfg));
  cfg.noCheckSpace = false;
  EXPECT_EQ(std::string(kPrefix) +
                "'--no-encryption' only may be specified when "
                "'--get-content' is requested",
            verifyMessage(cfg));
  cfg.noEncryption = false;
  EXPECT_EQ(std::string(kPrefix) +
                "'--no-content' only may be specified when '--dump-*' is "
                "requested",
            verifyMessage(cfg));
  cfg.noContent = 0;
  EXPECT_EQ("", verifyMessage(cfg));

  config content = complete(kGetContent);
  content.noCheckSpace = true;
  content.noEncryption = true;
  EXPECT_EQ("", verifyMessage(content));
  for (int dump : {kDumpSelected, kDumpAll}) {
    config d = complete(dump);
    d.noContent = 1;
    EXPECT_EQ("", verifyMessage(d)) << dump;
  }
  // These switch checks come before the help action's own refusals.
  config help = complete(kHelp);
  help.noContent = 1;
  EXPECT_EQ(std::string(kPrefix) +
                "'--no-content' only may be specified when '--dump-*' is "
                "requested",
            verifyMessage(help));
}

TEST_F(OptionsTest, OfflineActionsRefuseConnectionOptionsInOrder) {
  for (int action : {kRemoveDumpingStatus, kHelp}) {
    config cfg;
    cfg.action = action;
    cfg.sessionPath = "/var/s";
    EXPECT_EQ("", verifyMessage(cfg)) << action;

    cfg.host = "h";
    cfg.port = -1;
    cfg.login = "l";
    cfg.password = "p";
    cfg.agentDir = "ad";
    cfg.agentName = "an";
    EXPECT_EQ(notAllowed("host"), verifyMessage(cfg));
    cfg.host.clear();
    EXPECT_EQ(notAllowed("port"), verifyMessage(cfg));
    cfg.port = 22;
    EXPECT_EQ(notAllowed("port"), verifyMessage(cfg));
    cfg.port = 0;
    EXPECT_EQ(notAllowed("login"), verifyMessage(cfg));
    cfg.login.clear();
    EXPECT_EQ(notAllowed("password"), verifyMessage(cfg));
    cfg.password.clear();
    EXPECT_EQ(notAllowed("agent directory"), verifyMessage(cfg));
    cfg.agentDir.clear();
    cfg.sudo = true;
    EXPECT_EQ(notAllowed("agent name"), verifyMessage(cfg));
    cfg.agentName.clear();
    EXPECT_EQ(notAllowed("sudo parameters"), verifyMessage(cfg));
    cfg.sudo = false;
    EXPECT_EQ("", verifyMessage(cfg));
  }
}

TEST_F(OptionsTest, PasswordInEnvironmentRefusesOfflineActions) {
  setenv("DYR_PASSWORD", "pw", 1);
  config cfg = parse({"--remove-dumping-status", "--session-path=/var/s"});
  EXPECT_EQ(notAllowed("password"), verifyMessage(cfg));
  EXPECT_EQ(
      "Unable to parse command line: password is not allowed with --help or "
      "-h\n",
      verifyMessage(cfg));
}

TEST_F(OptionsTest, ConnectingActionsNeedConnectionOptionsInOrder) {
  for (int action = kSendScout; action <= kRemoveAgent; ++action) {
    config cfg;
    cfg.action = action;
    cfg.port = -1;
    cfg.sudo = true;
    EXPECT_EQ(required("host"), verifyMessage(cfg)) << action;
    cfg.host = "h";
    EXPECT_EQ(
        std::string(kPrefix) + "port should be a number in [1, 65535] range",
        verifyMessage(cfg));
    cfg.port = 0;
    EXPECT_EQ(required("login"), verifyMessage(cfg));
    cfg.login = "l";
    EXPECT_EQ(required("password"), verifyMessage(cfg));
    cfg.password = "p";
    EXPECT_EQ(std::string(kPrefix) +
                  "DYR_SUDO_PASSWORD environment variable is not provided "
                  "with --sudo-password\n",
              verifyMessage(cfg));
    cfg.sudoPasswordProvided = true;
    if (action == kSendScout) {
      EXPECT_EQ("", verifyMessage(cfg));
      continue;
    }
    EXPECT_EQ(required("agent directory"), verifyMessage(cfg)) << action;
    cfg.agentDir = "ad";
    EXPECT_EQ(required("agent name"), verifyMessage(cfg));
    cfg.agentName = "an";
    EXPECT_EQ("", verifyMessage(cfg));
  }
}

TEST_F(OptionsTest, ScoutRefusesAgentOptions) {
  config cfg = complete(kSendScout);
  EXPECT_EQ(notAllowed("agent directory"), verifyMessage(cfg));
  cfg.agentDir.clear();
  EXPECT_EQ(notAllowed("agent name"), verifyMessage(cfg));
  cfg.agentName.clear();
  EXPECT_EQ("", verifyMessage(cfg));
}

TEST_F(OptionsTest, ParsedCommandLinesEndToEnd) {
  setenv("DYR_PASSWORD", "pw", 1);
  config good = parse({"--get-content", "--host=h", "--port=65535", "--login=l",
                       "--agent-dir=a", "--agent-name=Unix", "--no-check-space",
                       "--session-path", "/var/s"});
  EXPECT_EQ("", verifyMessage(good));

  for (const char* port : {"--port=0", "--port=65536", "--port=abc"}) {
    config bad = parse({"--send-scout", "--host=h", port, "--login=l"});
    EXPECT_EQ(
        std::string(kPrefix) + "port should be a number in [1, 65535] range",
        verifyMessage(bad))
        << port;
  }

  config scout =
      parse({"--send-scout", "--host=h", "--login=l", "--agent-name=Unix"});
  EXPECT_EQ(notAllowed("agent name"), verifyMessage(scout));

  config deploy =
      parse({"--deploy-agent", "--host=h", "--login=l", "--agent-dir=a",
             "--agent-name=Unix", "--no-check-space"});
  EXPECT_EQ(
      "Unable to parse command line: '--no-check-space' only may be "
      "specified when '--get-content' is requested",
      verifyMessage(deploy));

  config sudoMissing =
      parse({"--send-scout", "--host=h", "--login=l", "--sudo-password"});
  EXPECT_EQ(std::string(kPrefix) +
                "DYR_SUDO_PASSWORD environment variable is not provided "
                "with --sudo-password\n",
            verifyMessage(sudoMissing));
  setenv("DYR_SUDO_PASSWORD", "", 1);
  config sudoEmpty =
      parse({"--send-scout", "--host=h", "--login=l", "--sudo-password"});
  EXPECT_EQ("", verifyMessage(sudoEmpty));
}

TEST_F(OptionsTest, RaisersFormatTheirTexts) {
  try {
    no_action_option("session-path", "deploy-agent");
    FAIL() << "nothing thrown";
  } catch (const Exc<&::OptParsingError>& e) {
    EXPECT_STREQ(
        "Unable to parse command line: '--session-path' is required when "
        "'--deploy-agent' action is requested",
        e.what());
    EXPECT_EQ("OptParsingError", e.code());
  }
  try {
    req_action_argument_missed("100% sure");
    FAIL() << "nothing thrown";
  } catch (const Exc<&::OptParsingError>& e) {
    EXPECT_EQ(required("100% sure"), e.what());
  }
  try {
    extra_option("a", "b");
    FAIL() << "nothing thrown";
  } catch (const Exc<&::OptParsingError>& e) {
    EXPECT_STREQ(
        "Unable to parse command line: '--a' only may be specified when "
        "'--b' is requested",
        e.what());
  }
}

}  // namespace
}  // namespace tovel
