// Periodic: work that one long remote command lets run between two rounds
// of its pump, on the main thread (the dump's status pull).
#ifndef FERROW_TRANSPORT_PERIODIC_H_
#define FERROW_TRANSPORT_PERIODIC_H_

#include <chrono>
#include <functional>

namespace tovel {

struct Periodic {
  // The first tick comes `period` after the command starts, each later one
  // `period` after the previous one ended.
  std::chrono::milliseconds period;
  // May run commands of its own on the same connection. Returns whether it
  // wants to tick again during this command; what it throws ends the
  // command.
  std::function<bool()> tick;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_PERIODIC_H_
