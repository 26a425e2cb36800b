// The process-wide termination flag that long transfers poll between
// chunks, and the signals that set it: the migration manager cancels a run
// with SIGTERM, a person at a terminal with SIGINT.
#ifndef FERROW_COMMONS_TERMINATION_H_
#define FERROW_COMMONS_TERMINATION_H_

#include <csignal>

namespace tovel {

// Set by terminateProgram(), possibly from a signal handler.
extern volatile std::sig_atomic_t isProgramTerminated;

// Sets isProgramTerminated. Async-signal-safe.
void terminateProgram();

// Throws MigrationTerminatedException when isProgramTerminated is set.
void checkProgramTerminated();

// Makes SIGTERM and SIGINT call terminateProgram() instead of ending the
// process, so that the run stops between two chunks and still writes its
// status, run record and exit code. Throws SystemError when sigaction
// fails.
void installTerminationHandlers();

}  // namespace tovel

#endif  // FERROW_COMMONS_TERMINATION_H_
