// Options into a config record, refusals, dump arguments, exit codes.
#include "ferrow/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "actions/retrieval_errors.h"
#include "actions/retrieve_content_action.h"
#include "ferrow/driver.h"
#include "ferrow/dump_options.h"
#include "support/ferrow_runner.h"
#include "transport/host_key_check.h"
#include "transport/libssh2_errors.h"
#include "transport/session.h"
#include "transport/socket.h"
#include "transport/ssh_transfer.h"
#include "xml/xml_document.h"
#include "xml/xml_errors.h"

namespace tovel {
namespace {

class OptionsTest : public ::testing::Test {
 protected:
  void TearDown() override { clearEnvironment(); }
  static void clearEnvironment() {
    unsetenv("DYR_PASSWORD");
    unsetenv("DYR_SUDO_PASSWORD");
  }

  // Words "DYR_...=v" set the environment; the scanner must answer `ok`,
  // printing its diagnostic only when it refuses.
  static CommandLine parse(const std::string& line, bool ok = true) {
    clearEnvironment();
    std::vector<std::string> words = {"ferrow"};
    std::istringstream in(line);
    for (std::string w; in >> w;) {
      size_t eq = w.find('=');
      if (w.compare(0, 4, "DYR_") == 0)
        setenv(w.substr(0, eq).c_str(), w.substr(eq + 1).c_str(), 1);
      else
        words.push_back(w);
    }
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    CommandLine cfg;
    ::testing::internal::CaptureStderr();
    resetEnvPasswordForTesting();
    EXPECT_EQ(ok,
              parse_options(static_cast<int>(argv.size()), argv.data(), &cfg))
        << line;
    EXPECT_EQ(ok, ::testing::internal::GetCapturedStderr().empty()) << line;
    return cfg;
  }

  // The refusal of verify_options for the line, "" when it accepts it.
  static std::string refusal(const std::string& line) {
    CommandLine cfg = parse(line);
    try {
      verify_options(&cfg);
    } catch (const Exc<&::OptParsingError>& e) {
      return e.what();
    }
    return "";
  }

  // The dump arguments each followed by " ", then "|" and the input.
  static std::string dump(const std::string& line) {
    CommandLine cfg = parse(line);
    std::vector<std::string> arguments;
    std::string text;
    buildDumpArguments(cfg, arguments, text);
    std::string joined;
    for (const std::string& a : arguments) joined += a + " ";
    return joined + "|" + text;
  }
};

TEST_F(OptionsTest, ScannerFillsTheRecordAndReadsPasswords) {
  // "-xh" leaves the scanner inside a cluster: the next call starts afresh.
  parse("-xh --send-scout", false);
  // The action, then the port: 0 when absent, -1 outside [1, 65535].
  std::string scanned;
  // clang-format off
  for (const char* line : {"--send-scout --port=1", "--deploy-agent --port 65535", "--get-dumping-status --port=0",
                           "--dump-selected --port=65536", "--dump-all --port=abc", "--get-content --port=-22",
                           "--remove-agent --port=2222x", "--remove-dumping-status", "--port=abc --port=22",
                           "--send-scout -h", "--get-content --get-content"}) {
    // clang-format on
    CommandLine c = parse(line);
    scanned += std::to_string(c.action) + "/" + std::to_string(c.port) + " ";
  }
  EXPECT_EQ("0/1 1/65535 2/-1 3/-1 4/-1 5/-1 6/2222 7/0 -1/22 8/0 -2/0 ",
            scanned);
  CommandLine cfg = parse(
      "--ip=old --host h1 --login --dump-all --agent-dir=ad --agent-name an "
      "--dumps-dir=dd --session-path /s --only-hosting --only-mail --verbose");
  EXPECT_EQ(kNoAction, cfg.action);  // "--dump-all" is the login
  EXPECT_EQ("h1|--dump-all|ad|an|dd|/s|1|1",
            cfg.host + "|" + cfg.login + "|" + cfg.agentDir + "|" +
                cfg.agentName + "|" + cfg.dumpsDir + "|" + cfg.sessionPath +
                "|" + std::to_string(static_cast<int>(cfg.only)) + "|" +
                std::to_string(cfg.verbose));
  EXPECT_EQ(2, static_cast<int>(parse("--only-mail --only-hosting").only));
  // The sudo password stays set; an absent or empty one: see the refusals.
  EXPECT_EQ("s3cr",
            parse("DYR_SUDO_PASSWORD=s3cr --sudo-password").sudoPassword);
  EXPECT_NE(nullptr, std::getenv("DYR_SUDO_PASSWORD"));
  // DYR_PASSWORD is read once, cut at 4096 and removed: no child inherits it.
  std::string longer = std::string(4095, 'b') + "ZTAIL";
  EXPECT_EQ(longer.substr(0, 4096),
            parse("DYR_PASSWORD=" + longer + " --send-scout").password);
  EXPECT_EQ(nullptr, std::getenv("DYR_PASSWORD"));
  setenv("DYR_PASSWORD", "second", 1);
  EXPECT_EQ(longer.substr(0, 4096), get_env_noncrypted_password());
}

TEST_F(OptionsTest, RefusalsComeInTheirOrder) {
  // clang-format off
  const std::string no = "Unable to parse command line: ";
  auto notAllowed = [&](const std::string& what) { return no + what + " is not allowed with --help or -h\n"; };
  auto required = [&](const std::string& what) { return no + what + " is required unless --help or -h requested\n"; };
  auto onlyWith = [&](const std::string& option, const std::string& action) {
    return no + "'--" + option + "' only may be specified when '--" + action + "' is requested";
  };
  const std::string login = "DYR_PASSWORD=p --host=h --login=l ", agent = login + "--agent-dir=a --agent-name=n ";
  const std::string rm = agent + "--remove-agent --host-key-fingerprint=", pin = "SHA256:" + std::string(42, 'A') + "+";
  const std::string badPin = no + "host-key-fingerprint should be SHA256: followed by 43 base64 characters, as ssh-keygen -lf prints it";
  const std::pair<std::string, std::string> rows[] = {
      {"--no-check-space", no + "No action given"},
      {agent + "--deploy-agent --no-check-space --no-content", onlyWith("no-check-space", "get-content")},
      {agent + "--dump-all --no-encryption --no-content", onlyWith("no-encryption", "get-content")},
      {"--help --no-content", onlyWith("no-content", "dump-*")},
      {agent + "--get-content --no-check-space --no-encryption", ""},
      {agent + "--dump-selected --no-content", ""},
      {agent + "--remove-agent --strict-host-key-checking=ask", no + "strict-host-key-checking should be one of yes, accept-new, no"},
      {rm + pin + "=", badPin},
      {rm + "SHA256:" + std::string(43, '-'), badPin},
      {rm + "MD5:" + pin.substr(4), badPin},
      {rm + pin + " --strict-host-key-checking=no", ""},
  };
  // The actions that never connect refuse connection options in this order.
  const std::pair<std::string, std::string> options[] = {
      {"--host=h", "host"}, {"--port=22", "port"}, {"--login=l", "login"}, {"DYR_PASSWORD=p", "password"},
      {"--agent-dir=a", "agent directory"}, {"--agent-name=n", "agent name"}, {"--sudo-password", "sudo parameters"},
      {"--strict-host-key-checking=no", "host key checking"}};
  // clang-format on
  for (const auto& r : rows) EXPECT_EQ(r.second, refusal(r.first)) << r.first;
  for (const char* action : {"--remove-dumping-status ", "-h "}) {
    for (size_t first = 0; first <= 8; ++first) {
      std::string line = action;
      for (size_t i = first; i < 8; ++i) line += options[i].first + " ";
      EXPECT_EQ(first < 8 ? notAllowed(options[first].second) : "",
                refusal(line));
    }
  }
  // The others need each in turn; the scout refuses the agent's.
  for (const std::string action : {"--send-scout", "--deploy-agent"}) {
    std::string a = action + " --sudo-password ";
    bool scout = action == "--send-scout";
    EXPECT_EQ(required("host"), refusal(a + "--port=0"));
    EXPECT_EQ(no + "port should be a number in [1, 65535] range",
              refusal(a + "--host=h --port=0"));
    EXPECT_EQ(required("login"), refusal(a + "--host=h"));
    EXPECT_EQ(required("password"), refusal(a + "--host=h --login=l"));
    EXPECT_EQ(no + "DYR_SUDO_PASSWORD environment variable is not provided "
                   "with --sudo-password\n",
              refusal(a + login));
    a += "DYR_SUDO_PASSWORD= " + login;
    EXPECT_EQ(scout ? "" : required("agent directory"), refusal(a));
    EXPECT_EQ(scout ? notAllowed("agent directory") : required("agent name"),
              refusal(a + "--agent-dir=a"));
    EXPECT_EQ(scout ? notAllowed("agent name") : "",
              refusal(a + "--agent-name=n" + (scout ? "" : " --agent-dir=a")));
  }
}

TEST_F(OptionsTest, DumpArgumentsAndInput) {
  ferrow_test::TempDir dir;
  int files = 0;
  auto objects = [&](const std::string& body) {
    std::string name = dir.path() + "/" + std::to_string(++files) + ".xml";
    ferrow_test::writeFile(name,
                           "<?xml version=\"1.0\"?><any>" + body + "</any>");
    return name;
  };
  auto params = [&](const std::string& filter, const std::string& level) {
    return " --selected-objects-file=" +
           objects("<parameters filter='" + filter + "' compression-level='" +
                   level + "'/>");
  };
  // Names go to the input only, the file's first; the rsync password too. A
  // full dump ignores every selection. The file spells "only-phosting".
  // clang-format off
  const std::string all = objects("<domain><name>a</name></domain><x><domain><name>b</name></domain></x><client><name>c1</name>"
                                  "</client><client><name>c2</name></client><server><license/></server><admin-info/>"
                                  "<parameters filter='only-mail' compression-level='do-not-compress'/>");
  const std::string s = "--dump-selected ", m = "--migration-mode ", i = "--include-app-distrib ", r = "--content-transport=rsync ";
  const std::string lists = "--dump-domains=- --dump-clients=- --dump-resellers=- --only-mail --no-compress ";
  const std::pair<std::string, std::string> cases[] = {
      {s + "--domains=a,b --clients=- --resellers=r1 --only-mail --no-compress --server --admin-info --no-license --no-content",
       m + lists + i + "--server --admin-info --no-license |a,b\n-\nr1\n"},
      {s + "--content-transport=cat --clients=c1,c2 --only-hosting", m + "--dump-clients=- --only-hosting " + i + "|c1,c2\n"},
      {s + r + "DYR_PASSWORD=pw --host=s --login=a --port=2222 --domains=d", r + m + "--dump-domains=- " + i + "|s\na\npw\n2222\nd\n"},
      {"--dump-all --port=x --domains=x --clients=x --resellers=x --only-mail --no-compress --server --admin-info --no-license --selected-objects-file=/nonexistent " + r,
       r + m + "--dump-all |\n\n\n\n"},
      {s + "--domains=c --resellers=r --selected-objects-file=" + all, m + lists + i + "|a,b,c\nc1,c2\nr\n"},
      {s + params("only-phosting", "standard"), m + "--only-hosting " + i + "|"},
      {s + params("only-hosting", "fast"), m + i + "|"},
      {s + "--only-mail --no-compress" + params("only-phosting", "standard"), m + "--only-mail --no-compress " + i + "|"},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(c.second, dump(c.first)) << c.first;
  // The file's server, admin-info and licence are read, not used.
  DumpSelection flags, serverOnly;
  parseSelectedObjectsFile(all, flags);
  parseSelectedObjectsFile(objects("<server/>"), serverOnly);
  EXPECT_TRUE(flags.server && flags.noLicense && flags.adminInfo);
  EXPECT_TRUE(serverOnly.server && !serverOnly.noLicense &&
              !serverOnly.adminInfo);
  EXPECT_THROW(dump(s + "--selected-objects-file=/nonexistent"),
               Exc<&tError_WrongInputFile>);
  EXPECT_THROW(dump(s + "--selected-objects-file=" + objects("<domain>")),
               Exc<&tError_ParseFile>);
}

// The code of the tag alone, then wrapped by an action.
template <ExcTag Tag>
std::string codesOf() {
  Exc<Tag> e("f", "./f.cpp", 1);
  return std::to_string(exitCodeFor(e)) + "/" +
         std::to_string(exitCodeFor(Exc<&CantRetrieveDump>(e, "g", "g", 2))) +
         " ";
}

TEST(ExitCodeTest, ConnectionFailuresHaveTheirOwnCodesEvenWhenWrapped) {
  // clang-format off
  EXPECT_EQ("11/11 12/12 13/13 14/14 15/15 16/16 17/17 18/18 19/19 2/2 2/2 ",
            codesOf<&ConnectionRefused>() + codesOf<&ConnectionTimedOut>() + codesOf<&NetworkUnreachable>() +
                codesOf<&HostUnreachable>() + codesOf<&ConnectionFault>() + codesOf<&HostNotFound>() +
                codesOf<&SshInvalidCredentials>() + codesOf<&SshConnectionFault>() +
                codesOf<&SshHostKeyVerificationFailed>() + codesOf<&SshAuthorizationFailed>() + codesOf<&NotEnoughSpace>());
  // clang-format on
}

TEST(DriverPartsTest, StandardInputListAndUnknownActions) {
  // One line goes to the first "-" list (resellers, clients, domains).
  // clang-format off
  const char* const cases[][4] = {{"", "-", "-", "|c1,c2|-|d1"}, {"-", "", "-", "c1,c2||-|d1"}, {"", "", "a,-", "||a,-|c1,c2"}};
  // clang-format on
  for (const auto& c : cases) {
    CommandLine cfg;
    cfg.resellers = c[0], cfg.clients = c[1], cfg.domains = c[2];
    std::istringstream in("c1,c2\nd1\n");
    readStandardInputList(cfg, in);
    std::string rest;
    std::getline(in, rest);
    EXPECT_EQ(c[3], cfg.resellers + "|" + cfg.clients + "|" + cfg.domains +
                        "|" + rest);
  }
  CommandLine help;
  help.action = kHelp;
  ferrow_test::TempDir dir;
  const SessionFiles session(dir.path());
  Log4cppDebugLog debugLog(false, false);
  XmlLog record(session, "", debugLog);
  EXPECT_THROW(
      getActionByIdInternal(help, {help, session, record, debugLog, nullptr}),
      Exc<&UnknownAction>);
}

}  // namespace
}  // namespace tovel
