// The source host's key, checked against the product's known_hosts before
// any login: recorded at first contact, refused when it changed, and the
// file shared safely by runs in parallel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <thread>

#include "support/source_login.h"

namespace ferrow_test {
namespace {

using ::testing::HasSubstr;

std::string serverName() {
  return "[127.0.0.1]:" + std::to_string(SshdServer::shared().port());
}

// "TYPE BASE64" of a key line, the first two fields after skip ones.
std::string keyOf(const std::string& line, int skip) {
  std::istringstream in(line);
  std::string field, type, key;
  for (int i = 0; i < skip; ++i) in >> field;
  in >> type >> key;
  return type + " " + key;
}

// The server's own key, as ssh-keyscan sees it, and its fingerprint.
std::string serverKey() {
  const std::string port = std::to_string(SshdServer::shared().port());
  return keyOf(runCommand({"ssh-keyscan", "-p", port, "127.0.0.1"}).out, 1);
}
std::string fingerprintOf(const std::string& key) {
  return keyOf(runCommand({"ssh-keygen", "-lf", "-"}, key + "\n").out, 1)
      .substr(0, 50);
}

// An entry for the server holding a key that is not its own.
std::string foreignEntry(const std::string& type) {
  TempDir dir;
  runCommand(
      {"ssh-keygen", "-q", "-t", type, "-N", "", "-f", dir.path() + "/k"});
  return serverName() + " " + keyOf(readFile(dir.path() + "/k.pub"), 0) + "\n";
}

class HostKeyTest : public ::testing::Test {
 protected:
  std::string file() const {
    return install_.productRoot() + "/QVT/known_hosts";
  }
  // A run that connects and logs in as root, and removes nothing.
  RunResult run(std::vector<std::string> extra = {},
                const std::string& session = "session") const {
    SourceLogin login = sourceLogin(rootAccount(), false);
    extra.insert(
        extra.end(),
        {"--remove-agent", "--agent-name=x", "--agent-dir=/nonexistent-agent",
         "--session-path=" + install_.sessionPath(session)});
    return install_.run(withLogin(login, extra), login.env);
  }
  FerrowInstallation install_;
};

TEST_F(HostKeyTest, FirstContactRecordsTheServersKeyOnce) {
  ASSERT_EQ(0, run().exitCode);
  struct stat st = {};
  ASSERT_EQ(0, stat(file().c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0u, st.st_uid);
  const std::string recorded = readFile(file()), key = serverKey();
  EXPECT_EQ(serverName() + " " + key + "\n", recorded);
  ASSERT_EQ(0, run().exitCode);
  EXPECT_EQ(recorded, readFile(file()));
  EXPECT_THAT(
      readFile(install_.sessionPath() + "/migration.log"),
      HasSubstr("INFO p.Ssh: Host key of " + serverName() + ": " +
                key.substr(0, key.find(' ')) + " " + fingerprintOf(key)));
}

TEST_F(HostKeyTest, EachPolicyAgainstWhatTheFileHolds) {
  const std::string fingerprint = fingerprintOf(serverKey()),
                    foreign = foreignEntry("ed25519"),
                    entry = serverName() + " " + serverKey() + "\n";
  // A correct entry in hashed form among lines people write.
  TempDir scratch;
  writeFile(scratch.path() + "/h", entry);
  runCommand({"ssh-keygen", "-q", "-H", "-f", scratch.path() + "/h"});
  const std::string messy = "# kept\nnot a key line at all\n\n" +
                            readFile(scratch.path() + "/h") + "otherhost " +
                            keyOf(foreign, 1);
  const struct {
    std::string what, text;
    std::vector<std::string> args;
    int exitCode;
    const char* appended;  // nullptr: the file stays as it was
  } cases[] = {
      // clang-format off
      {"foreign ed25519", foreign, {}, 19, nullptr},
      {"foreign ecdsa", foreignEntry("ecdsa"), {}, 19, nullptr},
      {"foreign rsa", foreignEntry("rsa"), {}, 19, nullptr},
      {"unknown under yes", "", {"--strict-host-key-checking=yes"}, 19, nullptr},
      {"no", foreign, {"--strict-host-key-checking=no"}, 0, nullptr},
      {"right pin", foreign, {"--host-key-fingerprint=" + fingerprint}, 0, nullptr},
      {"right pin, new", "", {"--host-key-fingerprint=" + fingerprint}, 0, ""},
      {"wrong pin", "", {"--host-key-fingerprint=" + fingerprintOf(keyOf(foreign, 1))}, 19, nullptr},
      {"messy, hashed match", messy, {}, 0, nullptr},
      {"no final line end", "# no line end", {}, 0, "\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    writeFile(file(), c.text);
    const size_t logBefore = SshdServer::shared().logText().size();
    RunResult r = run(c.args);
    EXPECT_EQ(c.exitCode, r.exitCode) << r.err;
    EXPECT_EQ(c.appended ? c.text + c.appended + entry : c.text,
              readFile(file()));
    if (c.exitCode == 19) {
      EXPECT_THAT(r.err, HasSubstr("Host key verification failed for "
                                   "127.0.0.1 port " +
                                   serverName().substr(12) + ": "));
      EXPECT_THAT(r.err, HasSubstr(fingerprint));
      // Not even the login name reached the server.
      EXPECT_THAT(SshdServer::shared().logText().substr(logBefore),
                  ::testing::Not(HasSubstr(rootAccount().name)));
    }
  }
  writeFile(file(), foreign);
  EXPECT_THAT(run().err, HasSubstr(" in " + file() +
                                   " line 1. If the host's "
                                   "key was changed legitimately, remove the "
                                   "old entry with: ssh-keygen -R '" +
                                   serverName() + "' -f " + file()));
  EXPECT_THAT(SshdServer::shared().logText(),
              HasSubstr("Accepted password for " + rootAccount().name));
}

TEST_F(HostKeyTest, ParallelFirstContactsRecordOneWholeEntry) {
  const std::string unrelated = "otherhost " + serverKey() + "\n";
  writeFile(file(), unrelated);
  std::vector<int> codes(12, -1);
  std::vector<std::thread> runs;
  for (size_t i = 0; i < codes.size(); ++i)
    runs.emplace_back(
        [&, i] { codes[i] = run({}, "session" + std::to_string(i)).exitCode; });
  for (std::thread& t : runs) t.join();
  EXPECT_EQ(std::vector<int>(12, 0), codes);
  EXPECT_EQ(unrelated + serverName() + " " + serverKey() + "\n",
            readFile(file()));
}

}  // namespace
}  // namespace ferrow_test
