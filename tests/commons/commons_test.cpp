// The configuration reader, local commands, files and directories, quoting,
// secrets, bounded output, sums, sessions and accounts.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <sstream>

#include "commons/accounts.h"
#include "commons/args_builder.h"
#include "commons/capped_output.h"
#include "commons/checksum.h"
#include "commons/disk_space.h"
#include "commons/exec_cmd.h"
#include "commons/make_dir.h"
#include "commons/random_strings.h"
#include "commons/secrets.h"
#include "commons/session_files.h"
#include "commons/sh_quote.h"
#include "commons/socket.h"
#include "commons/temp_files.h"
#include "commons_test_util.h"
#include "errors/tags.h"
#include "support/test_bytes.h"

namespace tovel {
namespace {

using ferrow_test::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_util::describe;
using testing_util::HostLogCapture;
using testing_util::messageOf;
using testing_util::ScratchConf;

const char kEmptyMd5[] = "d41d8cd98f00b204e9800998ecf8427e";

// Trailing white space (the newline included) loses its last character only
// when the run is of odd length: files in use rely on it. Bad lines are
// logged and skipped; the record grows past its 20 slots and is searched
// sorted once read, linearly after a later set.
TEST(ConfReaderTest, ParsesTrimsLogsAndGrows) {
  const struct {
    const char *line, *name, *value;
  } cases[] = {
      {"# PRODUCT_ROOT_D /commented\n   # X y\n\n  \t \n", "PRODUCT_ROOT_D", ""},
      {"CLEAN /a b\n", "CLEAN", "/a b"},
      {"TWO_BLANKS /a b  \n", "TWO_BLANKS", "/a b  "},
      {"ONE_BLANK /a b \n", "ONE_BLANK", "/a b \n"},
      {"TAB x\t\n", "TAB", "x\t\n"},
      {"INNER   spaced \t value\n", "INNER", "spaced \t value"},
      {"COMMENTED val # note\n", "COMMENTED", "val"},
      {"DUMP_D /first\nDUMP_D /second\n", "DUMP_D", "/second"},
      {"  \tLAST value ", "LAST", "value"},  // no newline at the end
  };
  TempDir dir;
  conf_data conf;
  conf_init_r(&conf);
  HostLogCapture log;
  auto read = [&](const std::string& text) {
    ferrow_test::writeFile(dir.path() + "/c", text);
    return conf_read_file_r((dir.path() + "/c").c_str(), &conf);
  };
  auto get = [&](const std::string& name) {
    const char* value = conf_get_r(name, &conf);
    return std::string(value ? value : "");
  };
  std::string text;
  for (const auto& c : cases) text += c.line;
  ASSERT_EQ(0, read(text));
  for (const auto& c : cases) EXPECT_EQ(c.value, get(c.name)) << c.line;
  EXPECT_TRUE(log.lines_.empty());

  text = "PRODUCT_ROOT_D=/opt/x\nHASHED   #value\nEMPTY\nGOOD v#x\n";
  for (int i = 44; i >= 0; --i) text += "V" + std::to_string(i) + " x\n";
  ASSERT_EQ(0, read(text + "DANGLING"));
  EXPECT_EQ(8u + 1 + 45, conf.used);
  EXPECT_EQ("v", get("GOOD"));
  for (int i = 0; i < 45; ++i) EXPECT_EQ("x", get("V" + std::to_string(i)));
  EXPECT_EQ("", get("V45"));
  conf_set_r("A", "first", &conf);  // sorts before every other name
  EXPECT_EQ("first", get("A"));
  EXPECT_EQ("x", get("V0"));
  const std::string invalid = "Invalid variable definition ";
  EXPECT_EQ(-1, conf_read_file_r(dir.path().c_str(), &conf));
  EXPECT_EQ(-1, conf_read_file_r("/nonexistent/c", &conf));
  EXPECT_THAT(log.lines_,
              ElementsAre(invalid + "PRODUCT_ROOT_D=/opt/x\n\nExpected a "
                                    "space after variable name",
                          invalid + "HASHED\nExpected a value",
                          invalid + "EMPTY\nExpected a value",
                          invalid + "DANGLING\nExpected a space after "
                                    "variable name",
                          "Unable to read configuration file: Is a directory",
                          "unable to open configuration file /nonexistent/c: "
                          "No such file or directory"));
  conf_free_r(&conf);
}

// A missing file gives the defaults and is tried again; a file once read
// stays cached. Temporary names follow the directory, else DUMP_TMP_D, else
// the product's tmp.
TEST(DyrConfTest, DefaultsUntilTheFileIsReadThenCached) {
  ScratchConf conf;
  HostLogCapture log;
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kProductRootD));
  EXPECT_STREQ("/usr/local/dyr", dyrConfGetDefaultByIndex(kProductRootD));
  EXPECT_STREQ("/tmp", dyrConfGetDefault("DUMP_TMP_D"));
  EXPECT_EQ(3u, log.lines_.size());
  std::vector<char> name;
  initTempName(name, "", "d.");
  EXPECT_STREQ("/usr/local/dyr/QVT/tmp/d.XXXXXX", name.data());

  conf.write("HTTPD_VHOSTS_D /srv/sites\nCUSTOM_KEY custom\nDUMP_TMP_D /d/\n");
  EXPECT_STREQ("/srv/sites", dyrConfGetDefaultByIndex(kHttpdVhostsD));
  EXPECT_STREQ("/usr/bin", dyrConfGetDefault("MYSQL_BIN_D"));
  EXPECT_STREQ("custom", dyrConfGet("CUSTOM_KEY"));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kDyrConfSlots));
  EXPECT_EQ(nullptr, dyrConfGetDefaultByIndex(-1));
  conf.write("HTTPD_VHOSTS_D /elsewhere\nMYSQL_BIN_D /opt/mysql\n");
  EXPECT_STREQ("/srv/sites", dyrConfGetByIndex(kHttpdVhostsD));
  EXPECT_EQ(nullptr, dyrConfGetByIndex(kMysqlBinD));
  EXPECT_EQ(nullptr, dyrConfGetDefault("_MAX_POSSIBLE_DYR_CONF_VAR_NAME"));
  EXPECT_EQ(6u, log.lines_.size());
  EXPECT_EQ("variable '_MAX_POSSIBLE_DYR_CONF_VAR_NAME' isn't found neither "
            "in " + conf.path() + " nor in compile-time defaults",
            log.lines_.back());
  for (auto dir : {"", "/t", "/t/"}) {
    name.clear();
    initTempName(name, dir, "p");
    EXPECT_EQ(*dir ? "/t/pXXXXXX" : "/d/pXXXXXX", std::string(name.data()));
  }
}

// A child that came back into this process's code instead of exec'ing would
// carry on with the test: it ends here with a telltale status.
struct NoDuplicateProcess {
  pid_t parent = getpid();
  ~NoDuplicateProcess() {
    if (getpid() != parent) _exit(42);
  }
};

ExecCmd shell(const std::string& script, const std::string& input = "") {
  ExecCmd cmd("sh");
  cmd << "-c" << script;
  cmd.setInput(input);
  return cmd;
}

// The report holds the non-empty sections only; a death by signal is -1;
// a program or user that cannot be had ends the child with 127.
TEST(ExecCmdTest, ReturnCodesAndFailureReports) {
  NoDuplicateProcess guard;
  const struct {
    const char *script, *input, *message;
  } cases[] = {
      {"cat; echo E >&2; exit 3", "in",
       "Execution of sh -c cat\\;\\ echo\\ E\\ \\>\\&2\\;\\ exit\\ 3 failed "
       "with return code 3.\nStdin is\nin\nStdout is\nin\nStderr is\nE\n"},
      {"printf x >&2; exit 255", "",
       "Execution of sh -c printf\\ x\\ \\>\\&2\\;\\ exit\\ 255 failed with "
       "return code 255.\nStderr is\nx\n"},
  };
  for (const auto& c : cases) {
    ExecCmd cmd = shell(c.script, c.input);
    EXPECT_EQ(c.message, messageOf<&ExecCmd::Failed>([&] { cmd.exec(); }));
  }
  EXPECT_EQ(-1, shell("kill -9 $$").exec(std::nothrow));
  ExecCmd cat = shell("cat", "hello");
  EXPECT_EQ(0, cat.exec());
  EXPECT_EQ("hello", cat.getOutput());
  cat.setInput("");
  EXPECT_EQ(0, cat.exec());
  EXPECT_EQ("", cat.getOutput()) << "a run reports its own output only";
  EXPECT_EQ(127, ExecCmd("/nonexistent/program").exec(std::nothrow));
  ExecCmd unknown("id");
  unknown.setUser("ferrow-no-such-user");
  EXPECT_EQ(127, unknown.exec(std::nothrow));
  EXPECT_EQ("", unknown.getOutput());
}

// The child fills its error pipe before reading, then echoes its input: the
// parent must serve both outputs while its writes block. A child that stops
// reading early drops the rest, leaving SIGPIPE neither blocked nor pending.
// Only the three streams, the environment set and the user reach a child.
TEST(ExecCmdTest, StreamsEnvironmentAndUserOfTheChild) {
  NoDuplicateProcess guard;
  const std::string input = ferrow_test::archiveBytes(8 << 20, 7);
  ExecCmd cmd = shell("head -c 8388608 /dev/zero >&2; cat", input);
  ASSERT_EQ(0, cmd.exec());
  EXPECT_TRUE(cmd.getErrors() == std::string(8 << 20, '\0'));
  EXPECT_TRUE(cmd.getOutput() == input);
  ExecCmd head = shell("head -c 10", input);
  EXPECT_EQ(0, head.exec());
  EXPECT_EQ(input.substr(0, 10), head.getOutput());
  sigset_t mask, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE) || sigismember(&pending, SIGPIPE));

  int extra[2];
  ASSERT_EQ(0, pipe(extra));  // inheritable on purpose
  ArgList args;
  args << "sh" << "-c"
       << "echo out; echo err >&2; [ -e /proc/self/fd/" +
              std::to_string(extra[1]) + " ] || exit 4";
  std::string output = "kept:", errors;
  EXPECT_EQ(4, forkExecvGetOutErr(output, errors, "sh", args));
  EXPECT_EQ("kept:out\nerr\n", output + errors);
  close(extra[0]);
  close(extra[1]);
  ExecCmd env = shell("printf '%s|%s|' \"$V\" \"$HOME\"; id -u; id -G");
  env.setEnv("V", "a b $c");
  env.setEnv("HOME", "/elsewhere");
  env.setUser("nobody");
  ASSERT_EQ(0, env.exec());
  EXPECT_EQ("a b $c|/elsewhere|65534\n65534\n", env.getOutput());
  EXPECT_EQ(nullptr, getenv("V"));
}

// Exactly the shell's 19 metacharacters take a backslash and a line feed is
// quoted; every non-zero byte, alone, among letters and all together,
// comes back whole from both shells.
TEST(ShQuoteTest, EveryNonZeroByteRoundTripsThroughTheShells) {
  std::string backslashed;
  for (int byte = 0; byte < 256; ++byte) {
    if (shQuoteClass(byte) == ShQuoteClass::kBackslash) {
      backslashed += static_cast<char>(byte);
    }
  }
  EXPECT_EQ("\t \"#$&'()*;<>?[\\`|~", backslashed);
  EXPECT_EQ("it\\'s\\ \\$HOME'\n'{a}\xc3\xa9", sh_quote("it's $HOME\n{a}\xc3\xa9"));
  ArgList list;
  list << "/bin/echo" << "a b" << "" << "it's";
  ArgList copy(list);
  list = ArgList();
  EXPECT_EQ("/bin/echo a\\ b  it\\'s", copy.getStringRepresentation());
  EXPECT_EQ(nullptr, copy.argv()[4]);

  std::vector<std::string> words;
  std::string all, expected;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string b(1, static_cast<char>(byte));
    words.insert(words.end(), {b, "a" + b + "z"});
    all += b;
  }
  words.push_back(all);
  ArgsBuilder line("printf");
  line << "%s\\000";
  for (const std::string& word : words) {
    line << word;
    expected += word + '\0';
  }
  for (const char* shell : {"/bin/sh", "/bin/bash"}) {
    ArgList args;
    args << shell << "-c" << line.str();
    std::string output, errors;
    EXPECT_EQ(0, forkExecvGetInOutErrSuidEnv("", output, errors, shell, args,
                                             "", {{"LC_ALL", "C"}}));
    EXPECT_TRUE(expected == output) << shell << ": " << errors;
  }
}

// Sizes around the 4096-byte read chunk, as md5sum(1) gives them.
TEST(ChecksumTest, SizesAroundTheChunkMatchMd5sum) {
  const struct {
    size_t size;
    const char* digest;
  } cases[] = {
      {0, kEmptyMd5},
      {4095, "8d58823fc153040ed68c0665181c72c0"},
      {4096, "497d54cf8ef7e5bc4ce6094c16e758a2"},
      {4097, "90844a37160c073b1426c8fff343b6e7"},
  };
  for (const auto& c : cases) {
    std::istringstream in(ferrow_test::archiveBytes(c.size, 3));
    EXPECT_EQ(c.digest, countMd5Sum(in)) << c.size;
  }
  std::istringstream broken("data");
  broken.setstate(std::ios::badbit);
  EXPECT_EQ("Cannot read data from the stream",
            messageOf<&StreamRead>([&] { countMd5Sum(broken); }));
}

// Pieces of any size, empty ones included, give the sum of the whole; a
// finished digest starts a new sum.
TEST(ChecksumTest, DigestFedInPiecesMatchesTheWhole) {
  const std::string data = ferrow_test::archiveBytes(3 * 4096 + 5, 3);
  Md5Digest digest;
  size_t offset = 0;
  for (size_t piece : {0, 1, 4095, 0, 7000, 100000}) {
    size_t size = std::min(piece, data.size() - offset);
    digest.update(data.data() + offset, size);
    offset += size;
  }
  EXPECT_EQ("dbd252c3e8ac0516db2d26fd2d7e9d5a", digest.finish());
  EXPECT_EQ(kEmptyMd5, digest.finish());
}

// Text written in odd pieces and bytes, so that the ring wraps mid-piece,
// and megabytes in pieces larger than the tail.
TEST(CappedOutputTest, KeepsBothEndsAndCountsWhatItLeftOut) {
  CappedOutput whole(4, 4), out(3, 4), big(1024, 1024);
  whole << "abc" << 'd' << "efgh";
  EXPECT_EQ("abcdefgh", whole.str());
  const std::string text = "HEAD-middle-middle-TAIL";
  out.write(text.data(), 5);
  for (size_t i = 5; i < 9; ++i) out.put(text[i]);
  out.write(text.data() + 9, text.size() - 9);
  EXPECT_EQ("HEA\n[... 16 bytes left out ...]\nTAIL", out.str());
  EXPECT_EQ(text.size(), out.size());
  std::string chunk = "<" + std::string(65534, 'x') + ">";
  for (int i = 0; i < 64; ++i) big << chunk;
  EXPECT_EQ("<" + std::string(1023, 'x') + "\n[... 4192256 bytes left out ...]\n" +
                std::string(1023, 'x') + ">",
            big.str());
}

// What a masker logs of text cut at cut, pushed in two pieces.
std::string logged(const std::string& text, size_t cut) {
  StreamMasker masker;
  std::string out = masker.push(text.data(), cut);
  out += masker.push(text.data() + cut, text.size() - cut);
  return out + masker.finish();
}

// A secret split between pieces is masked at every cut; a prefix held back
// at the end is logged as it is; a secret inside a longer one goes with it.
TEST(SecretsTest, EverySecretIsMaskedWholeOrSplit) {
  EXPECT_EQ("pass", logged("pass", 2)) << "no secrets: unchanged";
  registerSecret("my pass#w'd");
  const std::string text = "sudo\nmy pass#w'd\nrest";
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    EXPECT_EQ("sudo\n********\nrest", logged(text, cut)) << cut;
  }
  StreamMasker masker;
  EXPECT_EQ("data ", masker.push("data my pa", 10));
  EXPECT_EQ("my pa", masker.finish());
  for (const char* secret : {"pass", "", "pass"}) registerSecret(secret);
  EXPECT_EQ("******** and ********word", maskSecrets("my pass#w'd and password"));
  clearSecrets();
}

// The session directory and its archives are made 0750 for root and the
// panel's group (the uid of its account, as installed panels expect),
// whatever the umask; existing ones are kept as they are. Only a created
// session is installed, for the controller's lifetime.
TEST(SessionFilesTest, DirectoriesForThePanelAndTheController) {
  ferrow_test::ensurePanelAccount();
  TempDir dir;
  const std::string kept = dir.path() + "/kept", run = dir.path() + "/run";
  ASSERT_EQ(0, mkdir(kept.c_str(), 0700));
  ASSERT_EQ(0, mkdir((kept + "/archives").c_str(), 0711));
  SessionFiles keptSession(kept);
  EXPECT_EQ("d 0:0 0700 d 0:0 0711",
            describe(kept) + " " + describe(kept + "/archives"));
  mode_t mask = umask(077);
  {
    SessionLifetimeController controller(run);
    EXPECT_EQ(run + "/migration.status", theSession->getStatusFileName());
  }
  umask(mask);
  EXPECT_EQ(nullptr, theSession);
  const std::string owned =
      "d 0:" + std::to_string(getpwnam(kPanelAccount)->pw_uid) + " 0750";
  EXPECT_EQ(owned + " " + owned, describe(run) + " " + describe(run + "/archives"));
  keptSession.remove();
  EXPECT_EQ("missing", describe(kept));

  HostLogCapture log;
  ferrow_test::writeFile(run + "/migration.status", "x");
  for (const std::string& path : {run + "/migration.status", dir.path() + "/no/run"}) {
    EXPECT_EQ("Unable to create session: Unable to create session directory",
              messageOf<&UnableToCreateSession>(
                  [&] { SessionLifetimeController controller(path); }));
    EXPECT_EQ(nullptr, theSession);
  }
  EXPECT_EQ("missing", describe(dir.path() + "/no"));
  EXPECT_THAT(log.lines_, testing::Contains(HasSubstr(dir.path() + "/no/run")));
}

// A run must not read the password database at every status save, yet an
// account that appears while it runs is still found.
TEST(AccountsTest, RemembersFoundAccountsButNotMissingOnes) {
  const std::string name = "ferrowcachetest";
  std::system(("userdel " + name + " 2>/dev/null").c_str());
  forgetAccountLookups();
  HostLogCapture log;
  EXPECT_EQ(0u, lookupAccount(name).uid);
  EXPECT_THAT(log.lines_, ElementsAre("Unable to find uid for user " + name +
                                      ": no such account"));
  ASSERT_EQ(0, std::system(("useradd -r -M " + name).c_str()));
  const uid_t uid = getpwnam(name.c_str())->pw_uid;
  const gid_t gid = getpwnam(name.c_str())->pw_gid;
  EXPECT_EQ(uid, lookupAccount(name).uid);
  EXPECT_EQ(gid, lookupAccount(name).gid);
  std::system(("userdel " + name).c_str());
  EXPECT_EQ(uid, lookupAccount(name).uid) << "remembered";
  EXPECT_EQ(0u, lookupAccount("root").uid);
  forgetAccountLookups();
  EXPECT_EQ(0u, lookupAccount(name).uid) << "read again";
}

// Only missing levels are made, owned as asked and with the umask applied.
TEST(FilesTest, DirectoriesTemporaryFilesAndFreeSpace) {
  TempDir dir;
  const std::string a = dir.path() + "/a";
  ASSERT_EQ(0, mkdir(a.c_str(), 0700));
  mode_t mask = umask(022);
  std::string path = a + "/b/c";
  make_dir(&path[0], 65534, 65533, 0777);
  make_dir(path, 0, 0, 0700);  // exists: unchanged
  make_dir(boost::filesystem::path(dir.path() + "/x/y/"), 0, 0, 0700);
  umask(mask);
  EXPECT_EQ(a + "/b/c", path.c_str());
  EXPECT_EQ("d 0:0 0700|d 65534:65533 0755|d 65534:65533 0755|d 0:0 0700",
            describe(a) + "|" + describe(a + "/b") + "|" + describe(path) +
                "|" + describe(dir.path() + "/x/y"));
  ferrow_test::writeFile(a + "/f", "x");
  EXPECT_TRUE(check_input_file((a + "/f").c_str(), false));
  for (const char* bad : {a.c_str(), "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(check_input_file(bad, false));
  }

  std::string file = QVT_getTempFileName(a, "st.");
  EXPECT_NE(file, QVT_getTempFileName(a + "/", "st."));
  EXPECT_EQ("f 0:0 0600 " + a + "/st.", describe(file) + " " + file.substr(0, a.size() + 4));
  EXPECT_EQ('d', describe(QVT_makeTempFileDirectory(a, "d"))[0]);
  EXPECT_EQ("Can not create temporary file with the template '/no/xXXXXXX': No "
            "such file or directory.",
            messageOf<&CantCreateTempFile>([] { QVT_getTempFileName("/no", "x"); }));
  EXPECT_EQ("Can not create temporary dir with the template '/no/yXXXXXX': No "
            "such file or directory.",
            messageOf<&CantCreateTempDir>([] { QVT_makeTempFileDirectory("/no", "y"); }));

  // /proc never has space to offer: its free count is a steady 0.
  ASSERT_EQ(0u, getFreeSpace("/proc"));
  DiskSpaceReserver::checkDiskSpace("/proc", 0);
  EXPECT_EQ("Selected filesystem at /proc has only 0 bytes free, but 1 bytes "
            "are needed for operation",
            messageOf<&DiskSpaceReserver::NotEnoughDiskSpace>(
                [] { DiskSpaceReserver::checkDiskSpace("/proc", 1); }));
  EXPECT_EQ("Cannot stat filesystem containing /no: No such file or directory",
            messageOf<&CantStatFS>([] { getFreeSpace("/no"); }));
  struct statfs before;
  ASSERT_EQ(0, statfs(a.c_str(), &before));
  EXPECT_NEAR(double(before.f_bavail) * before.f_bsize, getFreeSpace(a), 1e8);
  const std::string y = dir.path() + "/x/y";
  {
    DiskSpaceReserver reserver(y, 12345);
    EXPECT_EQ(std::string(12345, '\0'), ferrow_test::readFile(reserver.getFileName()));
  }
  EXPECT_THROW(DiskSpaceReserver(y, INT64_MAX), DiskSpaceReserver::ExNotEnoughDiskSpace);
  EXPECT_TRUE(boost::filesystem::is_empty(y)) << "the reserve is removed";
}

// Digits, upper and lower case letters take turns, whatever the shuffle.
TEST(RandomStringsTest, StrongPasswordMixesAllClasses) {
  EXPECT_EQ("", randomStrongPassword(0) + randomStrongPassword(-5));
  for (int n = 1; n <= 9; ++n) {
    std::string passwd = randomStrongPassword(n), classes;
    for (char c : passwd) classes += isdigit(c) ? '0' : isupper(c) ? 'A' : 'a';
    std::sort(classes.begin(), classes.end());
    EXPECT_EQ(std::string((n + 2) / 3, '0') + std::string((n + 1) / 3, 'A') +
                  std::string(n / 3, 'a'),
              classes) << passwd;
  }
  EXPECT_EQ(7u, randomPasswd().size());
}

// Small SSH messages must leave at once, not wait for the acknowledgement
// of the previous segment.
TEST(SocketTest, ConnectedSocketSendsSmallSegmentsAtOnce) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof addr;
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), size));
  ASSERT_EQ(0, listen(listener, 1) + getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &size));
  Socket socket("127.0.0.1", ntohs(addr.sin_port));
  int value = 0;
  size = sizeof value;
  EXPECT_EQ(0, getsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &value, &size));
  EXPECT_NE(0, value);
  close(listener);
}

}  // namespace
}  // namespace tovel
