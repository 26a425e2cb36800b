// Holds back the signals ferrow handles (SIGTERM and SIGINT of a
// cancelled run) for a scope. libssh2's blocking calls give up when a
// signal interrupts their wait and report a lost connection, so none may
// land inside one; a signal raised meanwhile is delivered when the scope
// ends, and the run then stops at its next check of the termination flag.
#ifndef FERROW_TRANSPORT_SIGNAL_GUARD_H_
#define FERROW_TRANSPORT_SIGNAL_GUARD_H_

#include <signal.h>

namespace tovel {

class SignalGuard {
 public:
  SignalGuard() {
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGINT);
    sigprocmask(SIG_BLOCK, &handled, &previous_);
  }
  ~SignalGuard() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  sigset_t previous_;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_SIGNAL_GUARD_H_
