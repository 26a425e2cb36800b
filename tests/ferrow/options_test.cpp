// The command line and the password variables into a config record, the
// refusals in the order they are checked, the agent's dump arguments and
// input, the exit-code table and the list read from standard input.
#include "ferrow/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "errors/tags.h"
#include "ferrow/driver.h"
#include "ferrow/dump_options.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override { clearEnvironment(); }
  void TearDown() override { clearEnvironment(); }
  static void clearEnvironment() {
    unsetenv("DYR_PASSWORD");
    unsetenv("DYR_SUDO_PASSWORD");
  }

  // Parses a command line of blank-separated words after "ferrow"; words
  // such as "DYR_PASSWORD=p" set the environment first, as a shell would.
  // The scanner must answer `ok`, printing its diagnostic when it refuses.
  static config parse(const std::string& line, bool ok = true) {
    clearEnvironment();
    std::vector<std::string> words = {"ferrow"};
    std::istringstream in(line);
    for (std::string w; in >> w;) {
      size_t eq = w.find('=');
      if (w.compare(0, 4, "DYR_") != 0) {
        words.push_back(w);
      } else {
        setenv(w.substr(0, eq).c_str(), w.substr(eq + 1).c_str(), 1);
      }
    }
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    config cfg;
    ::testing::internal::CaptureStderr();
    resetEnvPasswordForTesting();
    EXPECT_EQ(ok,
              parse_options(static_cast<int>(words.size()), argv.data(), &cfg))
        << line;
    std::string diagnostic = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(ok, diagnostic.empty()) << line;
    return cfg;
  }

  // The refusal of verify_options for the line, "" when it accepts it.
  static std::string refusal(const std::string& line) {
    config cfg = parse(line);
    try {
      verify_options(&cfg);
    } catch (const Exc<&::OptParsingError>& e) {
      return e.what();
    }
    return "";
  }

  // The dump arguments joined by " ", "|", then the input.
  static std::string dump(const std::string& line) {
    config cfg = parse(line);
    std::vector<std::string> arguments;
    std::string text;
    buildDumpArguments(cfg, arguments, text);
    std::string joined;
    for (const std::string& a : arguments) joined += a + " ";
    return joined + "|" + text;
  }
};

TEST_F(OptionsTest, ScannerFindsTheActionOrRefuses) {
  // "-xh" leaves the scanner inside a cluster: the next call must start
  // afresh and not see its "h".
  for (const char* bad : {"--send-scout --bogus", "--host", "--dump",
                          "--send-scout=yes", "-xh --send-scout"}) {
    parse(bad, false);
  }
  const std::pair<const char*, int> cases[] = {
      {"--deploy-agent", kDeployAgent},
      {"--send-scout", kSendScout},
      {"--get-dumping-status", kGetDumpingStatus},
      {"--dump-selected", kDumpSelected},
      {"--dump-all", kDumpAll},
      {"--get-content", kGetContent},
      {"--remove-agent", kRemoveAgent},
      {"--remove-dumping-status", kRemoveDumpingStatus},
      {"--help", kHelp},
      {"--host h", kNoAction},
      {"--dump-all --dump-selected", kManyActions},
      {"--get-content --get-content", kManyActions},
      {"--send-scout -h", kHelp},  // help wins wherever it stands
      {"--help --send-scout", kHelp},
      {"--dump-all --dump-selected -h", kHelp},
  };
  for (const auto& c : cases) EXPECT_EQ(c.second, parse(c.first).action);
}

TEST_F(OptionsTest, ValuesAndSwitchesLandInTheirFieldsLaterOneWins) {
  config cfg = parse(
      "--ip=old --host h1 --login --dump-all --agent-dir=ad --agent-name an "
      "--dumps-dir=dd --resellers r1,r2 --clients=- --domains a,b "
      "--selected-objects-file=/sel --session-path /s --content-transport=rs "
      "--only-hosting --only-mail --no-content --no-compress --no-check-space "
      "--no-encryption --verbose --server --admin-info --no-license");
  EXPECT_EQ(kNoAction, cfg.action);  // "--dump-all" is the login
  EXPECT_EQ("h1|--dump-all|ad|an|dd|r1,r2|-|a,b|/sel|/s|rs",
            cfg.host + "|" + cfg.login + "|" + cfg.agentDir + "|" +
                cfg.agentName + "|" + cfg.dumpsDir + "|" + cfg.resellers + "|" +
                cfg.clients + "|" + cfg.domains + "|" +
                cfg.selectedObjectsFile + "|" + cfg.sessionPath + "|" +
                cfg.contentTransport);
  EXPECT_EQ(1121, cfg.only * 1000 + cfg.noContent * 100 + cfg.compression * 10 +
                      cfg.verbose);
  EXPECT_TRUE(cfg.noCheckSpace && cfg.noEncryption && cfg.server &&
              cfg.adminInfo && cfg.noLicense && !cfg.sudo);
  EXPECT_EQ(2, parse("--only-mail --only-hosting").only);
  EXPECT_EQ("new", parse("--host=old --ip=new").host);
  // Port: 0 when absent, -1 outside [1, 65535]; strtol reads the leading
  // number.
  const std::pair<const char*, int> ports[] = {{"", 0},
                                               {"--port=1", 1},
                                               {"--port 65535", 65535},
                                               {"--port=0", -1},
                                               {"--port=65536", -1},
                                               {"--port=abc", -1},
                                               {"--port=-22", -1},
                                               {"--port=2222x", 2222},
                                               {"--port=abc --port=22", 22}};
  for (const auto& p : ports) EXPECT_EQ(p.second, parse(p.first).port);
}

TEST_F(OptionsTest, PasswordsComeFromTheEnvironment) {
  EXPECT_FALSE(parse("DYR_SUDO_PASSWORD=x --send-scout").sudoPasswordProvided);
  config absent = parse("--sudo-password");
  EXPECT_TRUE(absent.sudo && !absent.sudoPasswordProvided);
  EXPECT_TRUE(parse("DYR_SUDO_PASSWORD= --sudo-password").sudoPasswordProvided);
  config given = parse("DYR_SUDO_PASSWORD=s3cr --sudo-password");
  EXPECT_EQ("s3cr", given.sudoPassword);
  EXPECT_NE(nullptr, std::getenv("DYR_SUDO_PASSWORD"));  // left for others

  // DYR_PASSWORD is read once, cut at 4096 characters and removed, so no
  // later child inherits it.
  std::string longer = std::string(4095, 'b') + "ZTAIL";
  EXPECT_EQ(longer.substr(0, 4096),
            parse("DYR_PASSWORD=" + longer + " --send-scout").password);
  EXPECT_EQ(nullptr, std::getenv("DYR_PASSWORD"));
  setenv("DYR_PASSWORD", "second", 1);
  EXPECT_EQ(longer.substr(0, 4096), get_env_noncrypted_password());
}

TEST_F(OptionsTest, RefusalsComeInTheirOrder) {
  const std::string no = "Unable to parse command line: ";
  auto notAllowed = [&](const std::string& what) {
    return no + what + " is not allowed with --help or -h\n";
  };
  auto required = [&](const std::string& what) {
    return no + what + " is required unless --help or -h requested\n";
  };
  auto onlyWith = [&](const std::string& option, const std::string& action) {
    return no + "'--" + option + "' only may be specified when '--" + action +
           "' is requested";
  };
  const std::string login = "DYR_PASSWORD=p --host=h --login=l ";
  const std::string agent = login + "--agent-dir=a --agent-name=n ";
  EXPECT_EQ(no + "No action given", refusal("--no-check-space"));
  EXPECT_EQ(no + "More than one action is given",
            refusal("--dump-all --get-content --no-check-space"));
  EXPECT_EQ(onlyWith("no-check-space", "get-content"),
            refusal(agent + "--deploy-agent --no-check-space --no-content"));
  EXPECT_EQ(onlyWith("no-encryption", "get-content"),
            refusal(agent + "--dump-all --no-encryption --no-content"));
  EXPECT_EQ(onlyWith("no-content", "dump-*"), refusal("--help --no-content"));
  EXPECT_EQ("", refusal(agent + "--get-content --no-check-space "
                                "--no-encryption"));
  EXPECT_EQ("", refusal(agent + "--dump-selected --no-content"));

  // The actions that never connect refuse every connection option.
  const std::pair<std::string, std::string> offline[] = {
      {"--host=h", "host"},
      {"--port=22", "port"},
      {"--login=l", "login"},
      {"DYR_PASSWORD=p", "password"},
      {"--agent-dir=a", "agent directory"},
      {"--agent-name=n", "agent name"},
      {"--sudo-password", "sudo parameters"}};
  for (const char* action : {"--remove-dumping-status ", "-h "}) {
    for (size_t first = 0; first <= 7; ++first) {
      std::string line = action;
      for (size_t i = first; i < 7; ++i) line += offline[i].first + " ";
      EXPECT_EQ(first < 7 ? notAllowed(offline[first].second) : "",
                refusal(line));
    }
  }
  // The others need each in turn; the scout refuses the agent's.
  for (int action = kSendScout; action <= kRemoveAgent; ++action) {
    const char* names[] = {
        "send-scout", "deploy-agent", "get-dumping-status", "dump-selected",
        "dump-all",   "get-content",  "remove-agent"};
    std::string a = std::string("--") + names[action] + " --sudo-password ";
    bool scout = action == kSendScout;
    EXPECT_EQ(required("host"), refusal(a + "--port=0"));
    EXPECT_EQ(no + "port should be a number in [1, 65535] range",
              refusal(a + "--host=h --port=0"));
    EXPECT_EQ(required("login"), refusal(a + "--host=h"));
    EXPECT_EQ(required("password"), refusal(a + "--host=h --login=l"));
    EXPECT_EQ(no + "DYR_SUDO_PASSWORD environment variable is not provided "
                   "with --sudo-password\n",
              refusal(a + login));
    a += "DYR_SUDO_PASSWORD= ";
    EXPECT_EQ(scout ? "" : required("agent directory"), refusal(a + login));
    EXPECT_EQ(scout ? notAllowed("agent directory") : required("agent name"),
              refusal(a + login + "--agent-dir=a"));
    EXPECT_EQ(scout ? notAllowed("agent name") : "",
              refusal(a + login + "--agent-name=n" +
                      (scout ? "" : " --agent-dir=a")));
  }
}

TEST_F(OptionsTest, DumpArgumentsAndInput) {
  const std::pair<const char*, const char*> cases[] = {
      {"--dump-selected", "--migration-mode --include-app-distrib |"},
      // Names go to the input only; a second "-" goes on as it is.
      {"--dump-selected --domains=a,b --clients=- --resellers=r1 --only-mail "
       "--no-compress --server --admin-info --no-license --no-content",
       "--migration-mode --dump-domains=- --dump-clients=- --dump-resellers=- "
       "--only-mail --no-compress --include-app-distrib --server --admin-info "
       "--no-license |a,b\n-\nr1\n"},
      {"--dump-selected --clients=c1,c2 --only-hosting",
       "--migration-mode --dump-clients=- --only-hosting --include-app-distrib "
       "|c1,c2\n"},
      // The rsync password goes to the input, never on a command line.
      {"DYR_PASSWORD=pw --dump-selected --content-transport=rsync --host=s "
       "--login=a --port=2222 --domains=d",
       "--content-transport=rsync --migration-mode --dump-domains=- "
       "--include-app-distrib |s\na\npw\n2222\nd\n"},
      {"--dump-selected --content-transport=rsync --port=x",
       "--content-transport=rsync --migration-mode --include-app-distrib "
       "|\n\n\n\n"},
      {"--dump-selected --content-transport=cat --domains=d",
       "--migration-mode --dump-domains=- --include-app-distrib |d\n"},
      // A full dump ignores every selection, and does not read the file.
      {"--dump-all --domains=x --clients=x --resellers=x --only-mail "
       "--no-compress --server --admin-info --no-license "
       "--selected-objects-file=/nonexistent --content-transport=rsync",
       "--content-transport=rsync --migration-mode --dump-all |\n\n\n0\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.second, dump(c.first));
}

TEST_F(OptionsTest, SelectedObjectsFile) {
  ferrow_test::TempDir dir;
  int files = 0;
  auto objects = [&](const std::string& body) {
    std::string name = dir.path() + "/" + std::to_string(++files) + ".xml";
    ferrow_test::writeFile(name,
                           "<?xml version=\"1.0\"?><any>" + body + "</any>");
    return " --selected-objects-file=" + name;
  };
  // The file's names come first; the command line alone decides server,
  // admin information and licence.
  const std::string all = objects(
      "<domain><name>a</name></domain><x><domain><name>b</name></domain></x>"
      "<client><name>c1</name></client><client><name>c2</name></client>"
      "<server><license/></server><admin-info/>");
  EXPECT_EQ(
      "--migration-mode --dump-domains=- --dump-clients=- "
      "--dump-resellers=- --include-app-distrib |a,b,c\nc1,c2\nr\n",
      dump("--dump-selected --domains=c --resellers=r" + all));
  DumpSelection flags, serverOnly;
  parseSelectedObjectsFile(all.substr(all.find('=') + 1), flags);
  EXPECT_TRUE(flags.server && flags.noLicense && flags.adminInfo);
  std::string server = objects("<server/>");
  parseSelectedObjectsFile(server.substr(server.find('=') + 1), serverOnly);
  EXPECT_TRUE(serverOnly.server && !serverOnly.noLicense &&
              !serverOnly.adminInfo);
  // The file spells hosting "only-phosting"; the command line wins.
  const std::pair<std::string, const char*> cases[] = {
      {"filter='only-mail'/>", "--only-mail "},
      {"filter='only-phosting'/>", "--only-hosting "},
      {"filter='only-hosting'/>", ""},
      {"filter='only-phosting'/> --only-mail", "--only-mail "},
      {"compression-level='do-not-compress'/>", "--no-compress "},
      {"compression-level='standard'/>", ""},
      {"compression-level='standard'/> --no-compress", "--no-compress "},
      {"compression-level='fast'/>", ""}};
  for (const auto& c : cases) {
    size_t end = c.first.find("/>") + 2;
    EXPECT_EQ(
        std::string("--migration-mode ") + c.second + "--include-app-distrib |",
        dump("--dump-selected" +
             objects("<parameters " + c.first.substr(0, end)) +
             c.first.substr(end)));
  }
  EXPECT_THROW(dump("--dump-selected --selected-objects-file=/nonexistent"),
               Exc<&tError_WrongInputFile>);
  EXPECT_THROW(dump("--dump-selected" + objects("<domain>")),
               Exc<&tError_ParseFile>);
}

template <ExcTag Tag>
int codeOf() {
  return exitCodeFor(Exc<Tag>("f", "./f.cpp", 1));
}

// A connection failure keeps its code when an action wrapped it.
template <ExcTag Tag>
int wrappedCodeOf() {
  return exitCodeFor(
      Exc<&CantRetrieveDump>(Exc<Tag>("f", "./f.cpp", 1), "g", "./g.cpp", 2));
}

TEST(ExitCodeTest, ConnectionFailuresHaveTheirOwnCodesEvenWhenWrapped) {
  EXPECT_EQ((std::vector<int>{11, 12, 13, 14, 15, 16, 17, 18, 2, 2, 17, 18, 2}),
            (std::vector<int>{
                codeOf<&ConnectionRefused>(), codeOf<&ConnectionTimedOut>(),
                codeOf<&NetworkUnreachable>(), codeOf<&HostUnreachable>(),
                codeOf<&ConnectionFault>(), codeOf<&HostNotFound>(),
                codeOf<&SshInvalidCredentials>(), codeOf<&SshConnectionFault>(),
                codeOf<&SshAuthorizationFailed>(), codeOf<&CantRetrieveDump>(),
                wrappedCodeOf<&SshInvalidCredentials>(),
                wrappedCodeOf<&SshConnectionFault>(),
                wrappedCodeOf<&NotEnoughSpace>()}));
}

TEST(DriverPartsTest, StandardInputListLogNameAndUnknownActions) {
  // One line goes to the first "-" list (resellers, clients, domains).
  const char* const cases[][4] = {{"", "-", "-", "|c1,c2|-|d1"},
                                  {"-", "", "-", "c1,c2||-|d1"},
                                  {"", "", "a,-", "||a,-|c1,c2"}};
  for (const auto& c : cases) {
    config cfg;
    cfg.resellers = c[0], cfg.clients = c[1], cfg.domains = c[2];
    std::istringstream in("c1,c2\nd1\n");
    readStandardInputList(cfg, in);
    std::string rest;
    std::getline(in, rest);
    EXPECT_EQ(c[3], cfg.resellers + "|" + cfg.clients + "|" + cfg.domains +
                        "|" + rest);
  }
  config cfg;
  cfg.action = kGetContent;
  EXPECT_EQ("transfer.result", getLogName(cfg));
  cfg.action = kRemoveAgent;
  EXPECT_EQ("", getLogName(cfg));
  for (int action : {kHelp, kNoAction}) {
    cfg.action = action;
    EXPECT_THROW(getActionByIdInternal(cfg), Exc<&UnknownAction>);
  }
}

}  // namespace
}  // namespace tovel
