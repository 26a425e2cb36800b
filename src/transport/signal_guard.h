// Holds back the signals ferrow handles (SIGALRM of the status pull,
// SIGTERM and SIGINT of a cancelled run) for a scope. libssh2's blocking
// calls give up when a signal interrupts their wait, so none may land
// inside one; a signal raised meanwhile is delivered when the scope ends.
#ifndef FERROW_TRANSPORT_SIGNAL_GUARD_H_
#define FERROW_TRANSPORT_SIGNAL_GUARD_H_

#include <signal.h>

namespace tovel {

class SignalGuard {
 public:
  SignalGuard() {
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGALRM);
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
