// A TCP relay on 127.0.0.1 that holds every chunk it forwards for a fixed
// one-way delay, in both directions: the round trip between a client and
// the server behind the relay grows by twice that delay. This kernel has no
// netem, so latency for the transfer benchmark comes from here.
//
//   ferrow_delay_relay relay TARGET_PORT ONE_WAY_DELAY_US
//       listens on a free port of 127.0.0.1, prints it on one line, then
//       forwards every connection to 127.0.0.1:TARGET_PORT until killed.
//   ferrow_delay_relay ceiling MEGABYTES ONE_WAY_DELAY_US
//       measures the relay's own throughput: pushes MEGABYTES through a
//       relay (run in a child process) to a local sink and prints MB/s.
//
// The relay reads whatever arrives at once (up to a large bound per
// direction) and writes it out when its time has come, so it adds latency
// but no throughput limit of its own; the peers' own flow control (SSH
// channel windows) is what feels the delay.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

const size_t kReadSize = 256 * 1024;
// Bytes held per direction before the relay stops reading that side: far
// above any bandwidth-delay product measured here (1 GB/s x 10 ms = 10 MB).
const size_t kMaxHeld = 64 * 1024 * 1024;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

void setNonBlocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) fail("fcntl");
}

// Both legs of the relay send small packets (SSH control messages) at
// once, as a direct connection with the same options would.
void setNoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

int listenLocal(uint16_t port, uint16_t* bound) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("socket");
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    fail("bind");
  }
  if (listen(fd, 128) < 0) fail("listen");
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  *bound = ntohs(addr.sin_port);
  return fd;
}

int connectLocal(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("socket");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

struct Chunk {
  int64_t due;
  std::vector<char> data;
  size_t offset = 0;
};

// One direction of a relayed connection: bytes read from `from`, held,
// then written to `to`.
struct Direction {
  int from = -1;
  int to = -1;
  std::deque<Chunk> held;
  size_t heldBytes = 0;
  bool readEnded = false;  // `from` gave EOF
  bool writeShut = false;  // EOF passed on to `to`
};

struct Connection {
  Direction up;    // client -> server
  Direction down;  // server -> client
  bool dead = false;
};

class Relay {
 public:
  Relay(int listenFd, uint16_t target, int64_t delayNs)
      : listen_(listenFd), target_(target), delayNs_(delayNs) {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (epoll_ < 0 || timer_ < 0) fail("epoll/timerfd");
    watch(listen_, EPOLLIN);
    watch(timer_, EPOLLIN);
  }

  void run() {
    std::vector<epoll_event> events(64);
    for (;;) {
      int n = epoll_wait(epoll_, events.data(), events.size(), -1);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) fail("epoll_wait");
      for (int i = 0; i < n; ++i) handle(events[i].data.fd);
      flushDue();
      reap();
      armTimer();
    }
  }

 private:
  void watch(int fd, uint32_t events) {
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) < 0) fail("epoll_ctl");
  }

  void rewatch(int fd, uint32_t events) {
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev);
  }

  void handle(int fd) {
    if (fd == listen_) return accept();
    if (fd == timer_) {
      uint64_t expirations;
      while (read(timer_, &expirations, sizeof expirations) > 0) {
      }
      return;
    }
    auto it = byFd_.find(fd);
    if (it == byFd_.end()) return;
    Connection& c = *it->second;
    pump(c, c.up);
    pump(c, c.down);
  }

  void accept() {
    int client = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    int server = connectLocal(target_);
    if (server < 0) {
      close(client);
      return;
    }
    setNonBlocking(client);
    setNonBlocking(server);
    setNoDelay(client);
    setNoDelay(server);
    auto c = std::make_shared<Connection>();
    c->up.from = client;
    c->up.to = server;
    c->down.from = server;
    c->down.to = client;
    byFd_[client] = c;
    byFd_[server] = c;
    watch(client, EPOLLIN | EPOLLOUT | EPOLLET | EPOLLRDHUP);
    watch(server, EPOLLIN | EPOLLOUT | EPOLLET | EPOLLRDHUP);
  }

  // Reads everything available (edge-triggered) up to the bound.
  void pump(Connection& c, Direction& d) {
    while (!c.dead && !d.readEnded && d.heldBytes < kMaxHeld) {
      Chunk chunk;
      chunk.data.resize(kReadSize);
      ssize_t got = read(d.from, chunk.data.data(), chunk.data.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (got < 0) {
        c.dead = true;
        break;
      }
      if (got == 0) {
        d.readEnded = true;
        break;
      }
      chunk.data.resize(got);
      chunk.due = nowNs() + delayNs_;
      d.heldBytes += got;
      d.held.push_back(std::move(chunk));
    }
  }

  // Writes what is due; a full socket keeps the rest for its EPOLLOUT.
  void send(Connection& c, Direction& d, int64_t now) {
    while (!c.dead && !d.held.empty() && d.held.front().due <= now) {
      Chunk& chunk = d.held.front();
      ssize_t put = write(d.to, chunk.data.data() + chunk.offset,
                          chunk.data.size() - chunk.offset);
      if (put < 0 && errno == EINTR) continue;
      if (put < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (put < 0) {
        c.dead = true;
        return;
      }
      chunk.offset += put;
      if (chunk.offset < chunk.data.size()) continue;
      d.heldBytes -= chunk.data.size();
      d.held.pop_front();
    }
    if (d.readEnded && d.held.empty() && !d.writeShut) {
      shutdown(d.to, SHUT_WR);
      d.writeShut = true;
    }
  }

  void flushDue() {
    int64_t now = nowNs();
    for (auto& entry : byFd_) {
      Connection& c = *entry.second;
      bool wasFull = c.up.heldBytes >= kMaxHeld || c.down.heldBytes >= kMaxHeld;
      send(c, c.up, now);
      send(c, c.down, now);
      // Reading stopped at the bound gets no new edge: resume by hand.
      if (wasFull) {
        pump(c, c.up);
        pump(c, c.down);
      }
    }
  }

  void reap() {
    for (auto it = byFd_.begin(); it != byFd_.end();) {
      Connection& c = *it->second;
      bool finished = c.up.writeShut && c.down.writeShut;
      if (!c.dead && !finished) {
        ++it;
        continue;
      }
      int fd = it->first;
      epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
      close(fd);
      it = byFd_.erase(it);
    }
  }

  void armTimer() {
    int64_t next = INT64_MAX;
    for (auto& entry : byFd_) {
      for (Direction* d : {&entry.second->up, &entry.second->down}) {
        if (!d->held.empty() && d->held.front().due < next) {
          next = d->held.front().due;
        }
      }
    }
    itimerspec spec{};
    if (next != INT64_MAX) {
      // Absolute time; an instant already past still fires at once.
      if (next <= 0) next = 1;
      spec.it_value.tv_sec = next / 1000000000LL;
      spec.it_value.tv_nsec = next % 1000000000LL;
    }
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &spec, nullptr);
  }

  int listen_;
  uint16_t target_;
  int64_t delayNs_;
  int epoll_ = -1;
  int timer_ = -1;
  std::unordered_map<int, std::shared_ptr<Connection>> byFd_;
};

int runRelay(uint16_t target, int64_t delayUs) {
  uint16_t port = 0;
  int fd = listenLocal(0, &port);
  setNonBlocking(fd);
  printf("%u\n", port);
  fflush(stdout);
  Relay(fd, target, delayUs * 1000).run();
  return 0;
}

// The relay's ceiling: a writer pushes `megabytes` through a relay child
// to a sink that reads and drops them.
int runCeiling(long megabytes, int64_t delayUs) {
  uint16_t sinkPort = 0;
  int sink = listenLocal(0, &sinkPort);
  uint16_t relayPort = 0;
  int relayListen = listenLocal(0, &relayPort);
  setNonBlocking(relayListen);
  pid_t child = fork();
  if (child == 0) {
    close(sink);
    Relay(relayListen, sinkPort, delayUs * 1000).run();
    _exit(0);
  }
  close(relayListen);
  const size_t total = static_cast<size_t>(megabytes) * 1000000;
  std::thread reader([sink, total] {
    int fd = ::accept(sink, nullptr, nullptr);
    std::vector<char> buf(1 << 20);
    size_t got = 0;
    ssize_t n;
    while ((n = read(fd, buf.data(), buf.size())) > 0) got += n;
    close(fd);
    if (got != total)
      fprintf(stderr, "sink got %zu of %zu bytes\n", got, total);
  });
  int out = connectLocal(relayPort);
  if (out < 0) fail("connect");
  std::vector<char> block(1 << 20, 'x');
  auto start = std::chrono::steady_clock::now();
  size_t sent = 0;
  while (sent < total) {
    ssize_t n = write(out, block.data(), std::min(block.size(), total - sent));
    if (n < 0) fail("write");
    sent += n;
  }
  shutdown(out, SHUT_WR);
  reader.join();
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  close(out);
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  printf("%.1f\n", megabytes / seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc != 4) {
    fprintf(stderr,
            "usage: %s relay TARGET_PORT ONE_WAY_DELAY_US\n"
            "       %s ceiling MEGABYTES ONE_WAY_DELAY_US\n",
            argv[0], argv[0]);
    return 2;
  }
  try {
    std::string mode = argv[1];
    long value = strtol(argv[2], nullptr, 10);
    int64_t delayUs = strtoll(argv[3], nullptr, 10);
    if (mode == "relay") return runRelay(static_cast<uint16_t>(value), delayUs);
    if (mode == "ceiling") return runCeiling(value, delayUs);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
  fprintf(stderr, "%s: unknown mode %s\n", argv[0], argv[1]);
  return 2;
}
