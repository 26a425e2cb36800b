// Holds SIGALRM back for a scope. libssh2's blocking calls give up when a
// signal interrupts their wait, so the periodic status pull must not land
// inside one; a signal raised meanwhile is delivered when the scope ends.
#ifndef FERROW_TRANSPORT_ALARM_SIGNAL_GUARD_H_
#define FERROW_TRANSPORT_ALARM_SIGNAL_GUARD_H_

#include <signal.h>

namespace tovel {

class AlarmSignalGuard {
 public:
  AlarmSignalGuard() {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarmOnly, &previous_);
  }
  ~AlarmSignalGuard() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
  AlarmSignalGuard(const AlarmSignalGuard&) = delete;
  AlarmSignalGuard& operator=(const AlarmSignalGuard&) = delete;

 private:
  sigset_t previous_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_ALARM_SIGNAL_GUARD_H_
