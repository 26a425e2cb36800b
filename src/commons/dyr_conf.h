// The product's runtime configuration "/etc/dyr/dyr.conf": a reader of
// "NAME value" lines into a conf_data record, and the process-wide table of
// the variables the product knows, each with a compile-time default.
//
// Every message of the reader goes to hostLog at error level; none throws.
#ifndef FERROW_COMMONS_DYR_CONF_H_
#define FERROW_COMMONS_DYR_CONF_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tovel {

// Slots of the variable table. 0 and 31 are sentinels.
enum DyrConfIndex {
  kMinPossibleDyrConfVar = 0,
  kMailnamesD = 1,
  kCourierImapRootD = 2,
  kRblSmtpd = 3,
  kClientPhpBin = 4,
  kLibCryptoPath = 5,
  kLibSslPath = 6,
  kAwstatsDocD = 7,
  kAwstatsToolsD = 8,
  kAwstatsBinD = 9,
  kAwstatsEtcD = 10,
  kCatalinaHome = 11,
  kMailmanVarD = 12,
  kMailmanRootD = 13,
  kPgsqlDataD = 14,
  kPgsqlBinD = 15,
  kMysqlBinD = 16,
  kMysqlVarD = 17,
  kWebStat = 18,
  kDumpD = 19,
  kDumpTmpD = 20,
  kNamedRunRootD = 21,
  kFtpdConfInc = 22,
  kHttpdService = 23,
  kHttpdLogD = 24,
  kHttpdIncludeD = 25,
  kHttpdConfD = 26,
  kHttpdVhostsD = 27,
  kProductRootD = 28,
  kNamedOptionsConf = 29,
  kNamedZonesConf = 30,
  kMaxPossibleDyrConfVar = 31,
};
constexpr int kDyrConfSlots = 32;

// "/etc/dyr/dyr.conf".
extern const char kDyrConfFile[];

// Variable names, compile-time defaults and the cache of values found in
// the file (null until looked up and found), indexed by DyrConfIndex.
extern const char* const theDyrConfNames[kDyrConfSlots];
extern const char* const theDyrConfDefaults[kDyrConfSlots];
extern const char* theDyrConfArray[kDyrConfSlots];

struct conf_entry {
  std::string name;
  std::string value;
};

// The pairs read from a file. entries holds capacity slots of which the
// first used are filled; finalized means they are sorted by name.
struct conf_data {
  std::vector<conf_entry> entries;
  size_t used = 0;
  size_t capacity = 0;
  bool finalized = false;
};

// Empties conf and makes room for 20 entries. Returns 0, or -1 with errno
// ENOMEM.
int conf_init_r(conf_data* conf);

// Stores name = value; a name already present gets the new value. Doubles
// the capacity when full. Returns 0, or -1 with errno ENOMEM (logged as
// "Unable to form configuration: %s").
int conf_set_r(const std::string& name, const std::string& value,
               conf_data* conf);

// The value of name, or null. Binary search once finalized, linear before.
// The pointer lives until conf is changed or freed.
const char* conf_get_r(const std::string& name, const conf_data* conf);

// Sorts the entries by name and marks conf finalized.
void conf_finalize_r(conf_data* conf);

// Adds every definition of the file at path to an initialised conf, then
// finalizes it. Malformed lines are logged and skipped. Returns 0, or -1
// when the file cannot be opened or read (logged).
int conf_read_file_r(const char* path, conf_data* conf);

// Releases the entries; conf may be initialised again.
void conf_free_r(conf_data* conf);

// Loads the configuration file into the process-wide record unless it is
// already there. Every lookup below calls it first, so a file that was
// missing or unreadable is tried again on the next lookup. Returns 0 when
// the record is loaded, -1 otherwise.
int autoprepend();

// Value of slot i from the file, or null (also for i out of range).
const char* dyrConfGetByIndex(int i);
// Value of slot i from the file, else its compile-time default.
const char* dyrConfGetDefaultByIndex(int i);
// The same by name; a name not in the table is logged and gives null.
const char* dyrConfGetDefault(const char* name);
// Value of name from the file, or null.
const char* dyrConfGet(const char* name);

// For tests only: forgets the loaded record and the cached values, and makes
// the next lookup read path instead (null restores kDyrConfFile).
void dyrConfResetForTesting(const char* path);

}  // namespace tovel

#endif  // FERROW_COMMONS_DYR_CONF_H_
