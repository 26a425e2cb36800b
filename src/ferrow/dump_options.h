// What the agent is told to dump: the selection of "--dump-selected", merged
// from the selected-objects file and the command line, turned into the
// agent's arguments and the text fed to its standard input. Object names
// travel only in that text, never on the remote command line.
#ifndef FERROW_FERROW_DUMP_OPTIONS_H_
#define FERROW_FERROW_DUMP_OPTIONS_H_

#include <string>
#include <vector>

#include "ferrow/command_line.h"

namespace tovel {

// The merged selection. Lists are object names joined by ",".
struct DumpSelection {
  std::string domains;
  std::string clients;
  std::string resellers;
  ObjectFilter only = ObjectFilter::kAll;
  Compression compression = Compression::kUnset;
  bool server = false;
  bool adminInfo = false;
  bool noLicense = false;
};

// Adds what the selected-objects file names to selection: the texts of
// //domain/name, //client/name and //reseller/name to the lists; //server,
// //server/license (no licence) and //admin-info switch their flags on; the
// "filter" ("only-mail", "only-phosting") and "compression-level"
// ("do-not-compress", "standard") attributes of /*/parameters set only and
// compression, other values leaving them. Throws the XML layer's errors
// (tError_WrongInputFile, tError_ParseFile) for a file that cannot be read.
void parseSelectedObjectsFile(const std::string& file,
                              DumpSelection& selection);

// Merges cfg into selection: non-empty lists of cfg are appended; only and
// compression are replaced when cfg's are set; server, adminInfo and
// noLicense are always replaced, so the command line overrides the file.
void getSelectedObjectsFromConfig(const CommandLine& cfg,
                                  DumpSelection& selection);

// For "--dump-selected": reads cfg.selectedObjectsFile (when given), merges
// cfg and appends the agent's arguments to `arguments` and each non-empty
// list plus "\n" to `standardInputText`. Throws as
// parseSelectedObjectsFile.
void prepareDumpOptions(const CommandLine& cfg,
                        std::vector<std::string>& arguments,
                        std::string& standardInputText);

// The whole dump argument list and standard-input text for the actions
// "--dump-selected" and "--dump-all" (cfg.action), both appended to: the
// rsync connection lines and "--content-transport=rsync" when that
// transport was chosen, "--migration-mode", then "--dump-all" alone or the
// selection of prepareDumpOptions. Throws as prepareDumpOptions.
void buildDumpArguments(const CommandLine& cfg,
                        std::vector<std::string>& arguments,
                        std::string& standardInputText);

}  // namespace tovel

#endif  // FERROW_FERROW_DUMP_OPTIONS_H_
