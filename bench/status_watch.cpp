// Counts how often a file is replaced by a rename into its directory, as
// the atomic save of a status document does, without touching the writer.
//
//   ferrow_status_watch DIR NAME
//       prints "ready" once watching, then on SIGTERM or SIGINT the number
//       of renames onto DIR/NAME seen so far.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s DIR NAME\n", argv[0]);
    return 2;
  }
  struct sigaction sa {};
  sa.sa_handler = requestStop;  // no SA_RESTART: read() returns EINTR
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  int fd = inotify_init1(IN_CLOEXEC);
  if (fd < 0 || inotify_add_watch(fd, argv[1], IN_MOVED_TO) < 0) {
    perror("inotify");
    return 1;
  }
  printf("ready\n");
  fflush(stdout);
  long count = 0;
  std::vector<char> buf(1 << 16);
  bool draining = false;
  for (;;) {
    if (stopRequested && !draining) {
      // Events queued before the stop still count.
      fcntl(fd, F_SETFL, O_NONBLOCK);
      draining = true;
    }
    ssize_t n = read(fd, buf.data(), buf.size());
    if (n <= 0 && draining && errno != EINTR) break;
    if (n <= 0) continue;
    for (ssize_t off = 0; off < n;) {
      const inotify_event* e =
          reinterpret_cast<const inotify_event*>(buf.data() + off);
      if (e->len > 0 && strcmp(e->name, argv[2]) == 0) ++count;
      off += sizeof(inotify_event) + e->len;
    }
  }
  printf("%ld\n", count);
  return 0;
}
