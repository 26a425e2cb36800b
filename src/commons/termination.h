// The process-wide termination flag that long transfers poll between
// chunks. Nothing in ferrow sets it from a signal handler.
#ifndef FERROW_COMMONS_TERMINATION_H_
#define FERROW_COMMONS_TERMINATION_H_

namespace tovel {

extern bool isProgramTerminated;

// Sets isProgramTerminated.
void terminateProgram();

// Throws MigrationTerminatedException when isProgramTerminated is set.
void checkProgramTerminated();

}  // namespace tovel

#endif  // FERROW_COMMONS_TERMINATION_H_
