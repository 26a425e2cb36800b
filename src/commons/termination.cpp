#include "commons/termination.h"

#include <errno.h>
#include <signal.h>

#include "errors/ex_traceable.h"
#include "errors/system_error.h"

namespace tovel {
namespace {

void onTerminationSignal(int) { terminateProgram(); }

}  // namespace

volatile std::sig_atomic_t isProgramTerminated = 0;

void terminateProgram() { isProgramTerminated = 1; }

void checkProgramTerminated() {
  if (isProgramTerminated) throw MigrationTerminatedException();
}

void installTerminationHandlers() {
  struct sigaction action = {};
  action.sa_handler = onTerminationSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait for the remote side returns at once, and the
  // pump then finds the flag.
  for (int signal : {SIGTERM, SIGINT}) {
    if (sigaction(signal, &action, nullptr) != 0) {
      throwSystemError("sigaction() failed", errno);
    }
  }
}

}  // namespace tovel
