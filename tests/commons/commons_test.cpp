// The configuration reader, local commands, files and directories, quoting,
// secrets, bounded output, sums, random strings and accounts.
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>

#include <boost/filesystem.hpp>
#include <sstream>

#include "commons/accounts.h"
#include "commons/args_builder.h"
#include "commons/capped_output.h"
#include "commons/checksum.h"
#include "commons/disk_space_reserver.h"
#include "commons/dyr_conf.h"
#include "commons/exec_cmd.h"
#include "commons/free_space.h"
#include "commons/make_dir.h"
#include "commons/random_strings.h"
#include "commons/secrets.h"
#include "commons/sh_quote.h"
#include "commons/stream_read_error.h"
#include "commons/temp_files.h"
#include "commons_test_util.h"
#include "support/ferrow_runner.h"

namespace tovel {
namespace {

using testing::HasSubstr;
using testing_util::describe;
using testing_util::HostLogCapture;
using testing_util::messageOf;

// An odd run of trailing white space loses one character (files in use rely
// on it); the record grows, is searched sorted, linearly after a later set.
TEST(ConfReaderTest, ParsesTrimsLogsAndGrows) {
  std::string text =
      "# ROOT_D /x\n  # Y z\n\n \t \nCLEAN /a b\nTWO /a b  \nONE /a b \n"
      "TAB x\t\nIN   spaced \t v # note\nD /first\nD /second\nR=/x\nH   #v\n";
  for (int i = 44; i >= 0; --i) text += "V" + std::to_string(i) + " x\n";
  ferrow_test::TempDir dir;
  const std::string file = dir.path() + "/c";
  ferrow_test::writeFile(file, text + "  \tLAST value ");  // no newline
  conf_data conf;
  conf_init_r(&conf);
  HostLogCapture log;
  auto get = [&](const std::string& name) {
    const char* value = conf_get_r(name, &conf);
    return std::string(value ? value : "-") + "|";
  };
  ASSERT_EQ(0, conf_read_file_r(file.c_str(), &conf));
  std::string values;
  for (auto name : {"ROOT_D", "CLEAN", "TWO", "ONE", "TAB", "IN", "D", "R", "H",
                    "V0", "V27", "V44", "LAST"})
    values += get(name);
  conf_set_r("A", "first", &conf);  // sorts before every other name
  EXPECT_EQ(
      "-|/a b|/a b  |/a b \n|x\t\n|spaced \t v|/second|-|-|x|x|x|value|"
      "first|x|53",
      values + get("A") + get("V0") + std::to_string(conf.used));
  EXPECT_EQ(-2, conf_read_file_r(dir.path().c_str(), &conf) +
                    conf_read_file_r("/no/c", &conf));
  EXPECT_EQ(4, std::count(log.text_.begin(), log.text_.end(), '|'));
  conf_free_r(&conf);
}

// Defaults until the file is read, then cached; bare temp names: DUMP_TMP_D.
TEST(DyrConfTest, DefaultsUntilTheFileIsReadThenCached) {
  ferrow_test::TempDir dir;
  const std::string path = dir.path() + "/dyr.conf";
  dyrConfResetForTesting(path.c_str());
  HostLogCapture log;
  EXPECT_EQ("-/tmp", (dyrConfGetByIndex(kProductRootD) ? "" : "-") +
                         std::string(dyrConfGetDefault("DUMP_TMP_D")));
  ferrow_test::writeFile(path, "HTTPD_VHOSTS_D /srv\nC c\nDUMP_TMP_D /d/\n");
  std::vector<char> temp;
  initTempName(temp, "", "p");
  EXPECT_EQ(std::string("/srv/usr/binc/d/pXXXXXX"),
            dyrConfGetDefaultByIndex(kHttpdVhostsD) +
                (dyrConfGetDefault("MYSQL_BIN_D") +
                 (dyrConfGet("C") + std::string(temp.data()))));
  ferrow_test::writeFile(path, "HTTPD_VHOSTS_D /else\nMYSQL_BIN_D /opt\n");
  EXPECT_STREQ("/srv", dyrConfGetByIndex(kHttpdVhostsD));
  EXPECT_TRUE(!dyrConfGetByIndex(kMysqlBinD) &&
              !dyrConfGetDefault("_MAX_POSSIBLE_DYR_CONF_VAR_NAME"));
  dyrConfResetForTesting(nullptr);
}

ExecCmd shell(const std::string& script, const std::string& input = "") {
  ExecCmd cmd("sh");
  cmd << "-c" << script;
  cmd.setInput(input);
  return cmd;
}

// A child back in this code after a failed exec would run the test on: it
// ends with 42. The child fills its error pipe before reading its input.
TEST(ExecCmdTest, StreamsCodesAndReports) {
  const pid_t parent = getpid();
  ExecCmd failing = shell("cat; printf E >&2; exit 3", "in"), unknown("id");
  EXPECT_EQ(
      "Execution of sh -c cat\\;\\ printf\\ E\\ \\>\\&2\\;\\ exit\\ 3 failed "
      "with return code 3.\nStdin is\nin\nStdout is\nin\nStderr is\nE\n",
      messageOf<&ExecCmd::Failed>([&] { failing.exec(); }));
  unknown.setUser("ferrow-no-such-user");
  EXPECT_EQ(std::vector<int>({-1, 127, 127}),
            std::vector<int>({shell("kill -9 $$").exec(std::nothrow),
                              ExecCmd("/no/program").exec(std::nothrow),
                              unknown.exec(std::nothrow)}));
  if (getpid() != parent) _exit(42);
  // Both streams and the input well past the pipe buffers.
  const std::string input = ferrow_test::archiveBytes(256 << 10, 7);
  ExecCmd cmd = shell("head -c 262144 /dev/zero >&2; cat", input),
          head = shell("head -c 10", input);
  ASSERT_EQ(0, cmd.exec() + head.exec());
  EXPECT_TRUE(cmd.getErrors() == std::string(256 << 10, '\0') &&
              cmd.getOutput() == input &&
              head.getOutput() == input.substr(0, 10));
  cmd.setInput("");  // a run reports its own output
  EXPECT_EQ("0|", std::to_string(cmd.exec()) + "|" + cmd.getOutput());
  sigset_t mask, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE) || sigismember(&pending, SIGPIPE));
  ExecCmd env = shell("printf '%s|' \"$V\"; id -u");
  env.setEnv("V", "a b $c");
  env.setUser("nobody");
  EXPECT_EQ("0|a b $c|65534\n",
            std::to_string(env.exec()) + "|" + env.getOutput());
}

// Every non-zero byte survives both shells, via a moved-into argument list.
TEST(ShQuoteTest, EveryNonZeroByteRoundTripsThroughTheShells) {
  std::string backslashed, all;
  for (int byte = 1; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    if (shQuoteClass(byte) == ShQuoteClass::kBackslash)
      backslashed += all.back();
  }
  EXPECT_EQ("\t \"#$&'()*;<>?[\\`|~", backslashed);
  EXPECT_EQ("it\\'s'\n'{a}\xc3\xa9", sh_quote("it's\n{a}\xc3\xa9"));
  ArgsBuilder line("printf");
  line << "%s\\000"
       << "" << all;
  for (const char* shell : {"/bin/sh", "/bin/bash"}) {
    ArgList args, built;
    args << "/no/program";
    built << shell << "-c" << line.str();
    args = std::move(built);
    std::string output, errors;
    EXPECT_EQ(0, forkExecvGetInOutErrSuidEnv("", output, errors, shell, args,
                                             "", {{"LC_ALL", "C"}}));
    EXPECT_TRUE(all + '\0' == output) << shell << ": " << errors;
  }
}

// Sums (as md5sum(1) gives them) around the 4096-byte read chunk and in pieces;
// a finished digest starts a new sum.
TEST(ChecksumTest, DigestFedInPiecesMatchesTheWhole) {
  const std::string data = ferrow_test::archiveBytes(4097, 3);
  std::istringstream in4096(data.substr(0, 4096)), in4097(data), broken("d");
  broken.setstate(std::ios::badbit);
  EXPECT_EQ(
      "497d54cf8ef7e5bc4ce6094c16e758a2 90844a37160c073b1426c8fff343b6e7"
      " Cannot read data from the stream",
      countMd5Sum(in4096) + " " + countMd5Sum(in4097) + " " +
          messageOf<&StreamRead>([&] { countMd5Sum(broken); }));
  Md5Digest digest;
  digest.update(data.data(), 1);
  digest.update(data.data() + 1, 4096);
  const std::string whole = digest.finish();
  EXPECT_EQ("90844a37160c073b1426c8fff343b6e7 d41d8cd98f00b204e9800998ecf8427e",
            whole + " " + digest.finish());
}

// The ring wraps mid-piece; pieces may be larger than the tail.
TEST(CappedOutputTest, KeepsBothEndsAndCountsWhatItLeftOut) {
  CappedOutput out(3, 4), big(2, 3);
  const std::string text = "HEAD-middle-middle-TAIL";
  out.write(text.data(), 5);
  for (size_t i = 5; i < 9; ++i) out.put(text[i]);
  out.write(text.data() + 9, text.size() - 9);
  EXPECT_EQ("HEA\n[... 16 bytes left out ...]\nTAIL|23",
            out.str() + "|" + std::to_string(out.size()));
  for (int i = 0; i < 2; ++i) big << "<" + std::string(8, 'x') + ">";
  EXPECT_EQ("<x\n[... 15 bytes left out ...]\nxx>", big.str());
}

// What a masker logs of text pushed in two pieces, each followed by "|".
std::string logged(const std::string& text, size_t cut) {
  StreamMasker masker;
  std::string out = masker.push(text.data(), cut) + "|";
  out += masker.push(text.data() + cut, text.size() - cut) + "|";
  return out + masker.finish() + "|";
}

// Masked at every cut, a shorter secret inside a longer one too; a prefix held
// back at the end is logged as it is.
TEST(SecretsTest, EverySecretIsMaskedWholeOrSplit) {
  EXPECT_EQ("pa|ss||", logged("pass", 2)) << "no secrets: unchanged";
  for (const char* secret : {"pass", "", "my pass#w'd", "pass"})
    registerSecret(secret);
  const std::string text = "sudo\nmy pass#w'd\nrest";
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    std::string pieces = logged(text, cut), whole;
    std::remove_copy(pieces.begin(), pieces.end(), std::back_inserter(whole),
                     '|');
    EXPECT_EQ("sudo\n********\nrest", whole) << cut;
    EXPECT_THAT(pieces, testing::Not(HasSubstr("pass"))) << cut;
  }
  StreamMasker masker;
  EXPECT_EQ("data ", masker.push("data my pa", 10));
  EXPECT_EQ("my pa", masker.finish());
  EXPECT_EQ("******** ********word", maskSecrets("my pass#w'd password"));
  clearSecrets();
}

// Only missing levels are made, owned as asked, with the umask applied; free
// space must cover the need, equality passing.
TEST(FilesTest, DirectoriesTemporaryFilesAndFreeSpace) {
  ferrow_test::TempDir dir;
  const std::string a = dir.path() + "/a", y = dir.path() + "/x/y";
  ASSERT_EQ(0, mkdir(a.c_str(), 0700));
  mode_t mask = umask(022);
  std::string path = a + "/b/c";
  make_dir(&path[0], 65534, 65533, 0777);
  make_dir(path, 0, 0, 0700);  // exists: unchanged
  make_dir(boost::filesystem::path(y + "/"), 0, 0, 0700);
  umask(mask);
  EXPECT_EQ(a + "/b/c|d 0:0 0700|d 65534:65533 0755|d 65534:65533 0755|d 0:0 "
                "0700",
            path.c_str() + ("|" + describe(a)) + "|" + describe(a + "/b") +
                "|" + describe(path) + "|" + describe(y));
  EXPECT_TRUE(check_input_file(QVT_getTempFileName(a, "t").c_str(), false));
  EXPECT_FALSE(check_input_file(QVT_makeTempFileDirectory(a, "d").c_str(), 0) ||
               check_input_file("", false) || check_input_file(nullptr, 0));
  ASSERT_EQ(0u, getFreeSpace("/proc"));  // /proc has a steady 0 free
  DiskSpaceReserver::checkDiskSpace("/proc", 0);
  messageOf<&CantCreateTempFile>([] { QVT_getTempFileName("/no", "x"); });
  messageOf<&CantCreateTempDir>([] { QVT_makeTempFileDirectory("/no", "x"); });
  messageOf<&CantStatFS>([] { getFreeSpace("/no"); });
  messageOf<&DiskSpaceReserver::NotEnoughDiskSpace>(
      [] { DiskSpaceReserver::checkDiskSpace("/proc", 1); });
  EXPECT_EQ(12345u, boost::filesystem::file_size(
                        DiskSpaceReserver(y, 12345).getFileName()));
  EXPECT_THROW(DiskSpaceReserver(y, INT64_MAX),
               DiskSpaceReserver::ExNotEnoughDiskSpace);
  EXPECT_TRUE(boost::filesystem::is_empty(y)) << "the reserve is removed";
}

// A strong password holds digits, capitals and small letters in turn.
TEST(RandomStringsTest, PasswordsDrawFromTheirAlphabets) {
  std::string passwords, classes;
  for (int i = 0; i < 50; ++i) passwords += randomPasswd();
  EXPECT_EQ(350, std::count_if(passwords.begin(), passwords.end(), isalnum));
  for (int n = -1; n <= 7; ++n) {
    std::string word = randomStrongPassword(n);
    std::sort(word.begin(), word.end());  // digits, capitals, small letters
    for (char c : word) classes += isdigit(c) ? '0' : isupper(c) ? 'A' : 'a';
    classes += '|';
  }
  EXPECT_EQ("||0|0A|0Aa|00Aa|00AAa|00AAaa|000AAaa|", classes);
}

// Found accounts are remembered (status saves look them up), missing ones
// not. The account is this test's own: other programs run at the same time.
TEST(AccountsTest, RemembersFoundAccountsButNotMissingOnes) {
  const std::string name = "ferrowcachetest", del = "userdel " + name;
  std::system((del + " 2>/dev/null").c_str());
  HostLogCapture log;
  std::string ids;
  auto lookup = [&] { ids += std::to_string(lookupAccount(name).uid) + " "; };
  lookup();
  ASSERT_EQ(0, std::system(("useradd -r -M " + name).c_str()));
  const std::string found = std::to_string(getpwnam(name.c_str())->pw_uid);
  lookup();
  std::system(del.c_str());
  lookup();  // remembered
  forgetAccountLookups();
  lookup();  // read again
  EXPECT_EQ("0 " + found + " " + found + " 0 ", ids);
  EXPECT_THAT(log.text_, testing::StartsWith("Unable to find uid for user " +
                                             name + ": no such account|"));
}

}  // namespace
}  // namespace tovel
