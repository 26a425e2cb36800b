// The parsed command line: the run's configuration, which the action reads,
// and what only the front end uses: the action chosen, the dump selection
// and the console switches.
#ifndef FERROW_FERROW_COMMAND_LINE_H_
#define FERROW_FERROW_COMMAND_LINE_H_

#include <string>

#include "commons/config.h"

namespace tovel {

// Action identifiers, in the order of the option table.
enum ActionId {
  kNoAction = -1,
  kManyActions = -2,
  kSendScout = 0,
  kDeployAgent = 1,
  kGetDumpingStatus = 2,
  kDumpSelected = 3,
  kDumpAll = 4,
  kGetContent = 5,
  kRemoveAgent = 6,
  kRemoveDumpingStatus = 7,
  kHelp = 8,
};

// True for the ids 0 to 8.
inline bool isAction(int id) { return id >= kSendScout && id <= kHelp; }

// Which objects of the selection the dump holds.
enum class ObjectFilter { kAll = 0, kMailOnly = 1, kHostingOnly = 2 };

// Whether the agent compresses the dump; kUnset leaves it to the agent.
enum class Compression { kUnset = 0, kStandard = 1, kNoCompression = 2 };

struct CommandLine : config {
  ActionId action = kNoAction;
  // Object names joined by ",", or "-" for a line of standard input.
  std::string resellers;
  std::string clients;
  std::string domains;
  std::string selectedObjectsFile;
  Compression compression = Compression::kUnset;
  ObjectFilter only = ObjectFilter::kAll;  // the later option wins
  std::string contentTransport;
  bool server = false;
  bool adminInfo = false;
  bool noLicense = false;
  bool verbose = false;  // the debug log also goes to the console
};

}  // namespace tovel

#endif  // FERROW_FERROW_COMMAND_LINE_H_
