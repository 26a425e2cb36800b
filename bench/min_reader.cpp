// The least a program on the same SSH library can do to fetch files: log
// in, then for each file one exec channel running "cat FILE", its output
// written to a local file, nothing else. Its time is the limit that the
// library itself sets for a transfer.
//
//   ferrow_min_reader [options] REMOTE_FILE...
//     --port=P          sshd on 127.0.0.1:P (required)
//     --user=NAME       login; the password comes from $BENCH_PASSWORD
//     --window=BYTES    channel window (default 65536)
//     --packet=BYTES    channel packet size (default 16384)
//     --nodelay         set TCP_NODELAY on the socket
//     --out-dir=DIR     local copies are DIR/<base name> (required)
//     --checked         also what ferrow must do with a fetched archive
//                       before the source copy may go: MD5 of every byte
//                       received (on the reading thread) and fdatasync
//
// Exit status 0 when every "cat" exited 0.
#include <arpa/inet.h>
#include <fcntl.h>
#include <libssh2.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Options {
  int port = 0;
  std::string user;
  unsigned window = 65536;
  unsigned packet = 16384;
  bool nodelay = false;
  bool checked = false;
  std::string outDir;
  std::vector<std::string> files;
};

bool takeValue(const char* arg, const char* name, std::string* value) {
  size_t n = strlen(name);
  if (strncmp(arg, name, n) != 0 || arg[n] != '=') return false;
  *value = arg + n + 1;
  return true;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string v;
    if (takeValue(argv[i], "--port", &v)) {
      o.port = atoi(v.c_str());
    } else if (takeValue(argv[i], "--user", &v)) {
      o.user = v;
    } else if (takeValue(argv[i], "--window", &v)) {
      o.window = static_cast<unsigned>(strtoul(v.c_str(), nullptr, 10));
    } else if (takeValue(argv[i], "--packet", &v)) {
      o.packet = static_cast<unsigned>(strtoul(v.c_str(), nullptr, 10));
    } else if (strcmp(argv[i], "--nodelay") == 0) {
      o.nodelay = true;
    } else if (strcmp(argv[i], "--checked") == 0) {
      o.checked = true;
    } else if (takeValue(argv[i], "--out-dir", &v)) {
      o.outDir = v;
    } else {
      o.files.push_back(argv[i]);
    }
  }
  if (o.port == 0 || o.user.empty() || o.outDir.empty()) {
    throw std::runtime_error("--port, --user and --out-dir are required");
  }
  return o;
}

int connectTo(int port, bool nodelay) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr)) {
    throw std::runtime_error(std::string("connect: ") + strerror(errno));
  }
  if (nodelay) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  return fd;
}

std::string lastError(LIBSSH2_SESSION* s) {
  char* msg = nullptr;
  libssh2_session_last_error(s, &msg, nullptr, 0);
  return msg ? msg : "";
}

void kbdCallback(const char*, int, const char*, int, int num_prompts,
                 const LIBSSH2_USERAUTH_KBDINT_PROMPT*,
                 LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract) {
  const std::string* password = static_cast<const std::string*>(*abstract);
  for (int i = 0; i < num_prompts; ++i) {
    responses[i].text = strdup(password->c_str());
    responses[i].length = static_cast<unsigned>(password->size());
  }
}

void login(LIBSSH2_SESSION* s, const std::string& user, std::string password) {
  if (libssh2_userauth_password_ex(s, user.data(), user.size(), password.data(),
                                   password.size(), nullptr) == 0) {
    return;
  }
  *libssh2_session_abstract(s) = &password;
  int rc = libssh2_userauth_keyboard_interactive_ex(s, user.data(), user.size(),
                                                    kbdCallback);
  *libssh2_session_abstract(s) = nullptr;
  if (rc != 0) throw std::runtime_error("login: " + lastError(s));
}

std::string baseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One channel, "cat FILE", 64 KiB reads into the local file.
int fetch(LIBSSH2_SESSION* s, const Options& o, const std::string& remote) {
  LIBSSH2_CHANNEL* ch =
      libssh2_channel_open_ex(s, "session", 7, o.window, o.packet, nullptr, 0);
  if (ch == nullptr) throw std::runtime_error("channel: " + lastError(s));
  std::string command = "cat '" + remote + "'";
  if (libssh2_channel_process_startup(ch, "exec", 4, command.data(),
                                      command.size()) != 0) {
    throw std::runtime_error("exec: " + lastError(s));
  }
  std::string local = o.outDir + "/" + baseName(remote);
  int fd = open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("open " + local);
  std::vector<char> buf(65536);
  EVP_MD_CTX* md5 = EVP_MD_CTX_new();
  EVP_DigestInit(md5, EVP_md5());
  for (;;) {
    ssize_t n = libssh2_channel_read_ex(ch, 0, buf.data(), buf.size());
    if (n == 0) break;
    if (n < 0) throw std::runtime_error("read: " + lastError(s));
    for (ssize_t off = 0; off < n;) {
      ssize_t put = write(fd, buf.data() + off, n - off);
      if (put < 0) throw std::runtime_error("write " + local);
      if (o.checked) EVP_DigestUpdate(md5, buf.data() + off, put);
      off += put;
    }
  }
  unsigned char sum[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_DigestFinal(md5, sum, &length);
  EVP_MD_CTX_free(md5);
  if (o.checked && fdatasync(fd) != 0) throw std::runtime_error("sync");
  close(fd);
  libssh2_channel_wait_closed(ch);
  int status = libssh2_channel_get_exit_status(ch);
  libssh2_channel_free(ch);
  return status;
}

int run(const Options& o) {
  const char* password = getenv("BENCH_PASSWORD");
  if (password == nullptr) throw std::runtime_error("BENCH_PASSWORD unset");
  libssh2_init(0);
  int fd = connectTo(o.port, o.nodelay);
  LIBSSH2_SESSION* s =
      libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr);
  if (libssh2_session_handshake(s, fd) != 0) {
    throw std::runtime_error("handshake: " + lastError(s));
  }
  login(s, o.user, password);
  int failures = 0;
  for (const std::string& file : o.files) {
    if (fetch(s, o, file) != 0) ++failures;
  }
  libssh2_session_disconnect(s, "done");
  libssh2_session_free(s);
  close(fd);
  libssh2_exit();
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parse(argc, argv));
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
}
