#include "commons/termination.h"

#include "errors/ex_traceable.h"

namespace tovel {

bool isProgramTerminated = false;

void terminateProgram() { isProgramTerminated = true; }

void checkProgramTerminated() {
  if (isProgramTerminated) throw MigrationTerminatedException();
}

}  // namespace tovel
