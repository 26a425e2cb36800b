#include "commons/dyr_conf.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "commons/host_log.h"

namespace tovel {

const char kDyrConfFile[] = "/etc/dyr/dyr.conf";

const char* const theDyrConfNames[kDyrConfSlots] = {
    "_MIN_POSSIBLE_DYR_CONF_VAR_NAME",
    "TOVEL_MAILNAMES_D",
    "COURIER_IMAP_ROOT_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "FTPD_CONF_INC",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "PRODUCT_ROOT_D",
    "NAMED_OPTIONS_CONF",
    "NAMED_ZONES_CONF",
    "_MAX_POSSIBLE_DYR_CONF_VAR_NAME",
};

const char* const theDyrConfDefaults[kDyrConfSlots] = {
    "_MIN_POSSIBLE_DYR_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/",
    "/usr/sbin/rblsmtpd",
    "/usr/local/dyr/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/apache2/icons/awstats",
    "/usr/share/awstats",
    "/srv/www/cgi-bin/awstats",
    "/etc/awstats",
    "/usr/share/tomcat6",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/dyr/dumps",
    "/tmp",
    "/var/lib/named",
    "/etc/proftpd.include",
    "apache2",
    "/var/log/apache2",
    "/etc/apache2/conf.d",
    "/etc/apache2",
    "/srv/www/vhosts",
    "/usr/local/dyr",
    "/etc/named.conf.include.tovel-options",
    "/etc/named.conf.include.tovel-zones",
    "_MAX_POSSIBLE_DYR_CONF_VAR_VALUE",
};

const char* theDyrConfArray[kDyrConfSlots] = {};

namespace {

const size_t kInitialCapacity = 20;

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

// The record every lookup reads, loaded on first use, and where from.
struct ProcessConf {
  std::unique_ptr<conf_data> record;
  std::string path = kDyrConfFile;
};

ProcessConf& processConf() {
  static ProcessConf state;
  return state;
}

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)); }

bool isNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

bool byName(const conf_entry& a, const conf_entry& b) {
  return a.name < b.name;
}

// Index of name among the used entries, or conf->used.
size_t findIndex(const std::string& name, const conf_data* conf) {
  auto begin = conf->entries.begin();
  auto end = begin + conf->used;
  if (conf->finalized) {
    conf_entry key{name, std::string()};
    auto it = std::lower_bound(begin, end, key, byName);
    return it != end && it->name == name ? it - begin : conf->used;
  }
  auto it = std::find_if(begin, end,
                         [&](const conf_entry& e) { return e.name == name; });
  return it - begin;
}

// One line (with its newline, if any) into line; false at end of file or
// on a read error.
bool readLine(FILE* file, std::string& line) {
  line.clear();
  int c;
  while ((c = std::getc(file)) != EOF) {
    line.push_back(static_cast<char>(c));
    if (c == '\n') break;
  }
  return !line.empty();
}

// Trailing white space that forms a run of odd length loses its last
// character; an even run stays. Existing files depend on this.
std::string trimValue(const std::string& raw) {
  size_t run = 0;
  while (run < raw.size() && isSpace(raw[raw.size() - 1 - run])) ++run;
  return run % 2 == 1 ? raw.substr(0, raw.size() - 1) : raw;
}

// Stores the definition on line, if any. Returns -1 only when conf_set_r
// fails.
int parseLine(const std::string& line, conf_data* conf) {
  size_t p = 0;
  while (p < line.size() && isSpace(line[p])) ++p;
  if (p == line.size() || line[p] == '#') return 0;

  size_t nameStart = p;
  while (p < line.size() && isNameChar(line[p])) ++p;
  if (p == line.size() || !isSpace(line[p])) {
    hostLog(HostLogLevel::kError,
            "Invalid variable definition %s\nExpected a space after variable "
            "name\n",
            line.c_str() + nameStart);
    return 0;
  }
  std::string name = line.substr(nameStart, p - nameStart);

  while (p < line.size() && isSpace(line[p])) ++p;
  if (p == line.size() || line[p] == '#') {
    hostLog(HostLogLevel::kError,
            "Invalid variable definition %s\nExpected a value", name.c_str());
    return 0;
  }
  size_t comment = line.find('#', p);
  size_t length = comment == std::string::npos ? comment : comment - p;
  return conf_set_r(name, trimValue(line.substr(p, length)), conf);
}

}  // namespace

int conf_init_r(conf_data* conf) {
  try {
    conf->entries.clear();
    conf->entries.resize(kInitialCapacity);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  conf->used = 0;
  conf->capacity = kInitialCapacity;
  conf->finalized = false;
  return 0;
}

int conf_set_r(const std::string& name, const std::string& value,
               conf_data* conf) {
  try {
    size_t i = findIndex(name, conf);
    if (i < conf->used) {
      conf->entries[i].value = value;
      return 0;
    }
    if (conf->used == conf->capacity) {
      conf->capacity = std::max(kInitialCapacity, conf->capacity * 2);
      conf->entries.resize(conf->capacity);
    }
    conf->entries[conf->used] = conf_entry{name, value};
    ++conf->used;
    conf->finalized = false;
    return 0;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    hostLog(HostLogLevel::kError, "Unable to form configuration: %s",
            std::strerror(ENOMEM));
    return -1;
  }
}

const char* conf_get_r(const std::string& name, const conf_data* conf) {
  size_t i = findIndex(name, conf);
  return i < conf->used ? conf->entries[i].value.c_str() : nullptr;
}

void conf_finalize_r(conf_data* conf) {
  std::sort(conf->entries.begin(), conf->entries.begin() + conf->used, byName);
  conf->finalized = true;
}

int conf_read_file_r(const char* path, conf_data* conf) {
  std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "r"));
  if (!file) {
    hostLog(HostLogLevel::kError, "unable to open configuration file %s: %s\n",
            path, std::strerror(errno));
    return -1;
  }
  try {
    std::string line;
    while (readLine(file.get(), line)) {
      if (parseLine(line, conf) != 0) return -1;
    }
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    hostLog(HostLogLevel::kError, "Unable to read configuration: %s",
            std::strerror(ENOMEM));
    return -1;
  }
  if (std::ferror(file.get())) {
    hostLog(HostLogLevel::kError, "Unable to read configuration file: %s",
            std::strerror(errno));
    return -1;
  }
  conf_finalize_r(conf);
  return 0;
}

void conf_free_r(conf_data* conf) {
  std::vector<conf_entry>().swap(conf->entries);
  conf->used = 0;
  conf->capacity = 0;
  conf->finalized = false;
}

int autoprepend() {
  ProcessConf& state = processConf();
  if (state.record) return 0;
  std::unique_ptr<conf_data> record;
  try {
    record = std::make_unique<conf_data>();
  } catch (const std::bad_alloc&) {
  }
  if (!record || conf_init_r(record.get()) != 0) {
    hostLog(HostLogLevel::kError,
            "Not enough memory to allocate Tovel runtime configuration "
            "structure\n");
    return -1;
  }
  if (conf_read_file_r(state.path.c_str(), record.get()) != 0) return -1;
  state.record = std::move(record);
  return 0;
}

const char* dyrConfGetByIndex(int i) {
  if (i < 0 || i >= kDyrConfSlots) return nullptr;
  if (theDyrConfArray[i]) return theDyrConfArray[i];
  if (autoprepend() != 0) return nullptr;
  const char* value =
      conf_get_r(theDyrConfNames[i], processConf().record.get());
  if (value) theDyrConfArray[i] = value;
  return value;
}

const char* dyrConfGetDefaultByIndex(int i) {
  const char* value = dyrConfGetByIndex(i);
  if (value) return value;
  return i >= 0 && i < kDyrConfSlots ? theDyrConfDefaults[i] : nullptr;
}

const char* dyrConfGetDefault(const char* name) {
  if (!name) return nullptr;
  for (int i = 0; i < kMaxPossibleDyrConfVar; ++i) {
    if (std::strcmp(theDyrConfNames[i], name) == 0) {
      return dyrConfGetDefaultByIndex(i);
    }
  }
  hostLog(HostLogLevel::kError,
          "variable '%s' isn't found neither in %s nor in compile-time "
          "defaults\n",
          name, processConf().path.c_str());
  return nullptr;
}

const char* dyrConfGet(const char* name) {
  if (!name || autoprepend() != 0) return nullptr;
  return conf_get_r(name, processConf().record.get());
}

void dyrConfResetForTesting(const char* path) {
  std::fill(std::begin(theDyrConfArray), std::end(theDyrConfArray), nullptr);
  processConf().record.reset();
  processConf().path = path ? path : kDyrConfFile;
}

}  // namespace tovel
