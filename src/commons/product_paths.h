// Where the installed product keeps its tools, the migration manager's
// files and the agent catalogue. Every path derives from "PRODUCT_ROOT_D"
// of the product configuration (its default when the file lacks it), or is
// a configuration value itself. Each call returns a new string; none
// throws.
#ifndef FERROW_COMMONS_PRODUCT_PATHS_H_
#define FERROW_COMMONS_PRODUCT_PATHS_H_

#include <string>

namespace tovel {
namespace files {

// The product root P.
std::string getProductDir();
// The migration manager's directory Q = P/QVT.
std::string getQvtDir();
// Q/log4cpp.properties: the logging set-up.
std::string getQvtLogConfigFileName();
// Q/known_hosts: the source hosts' keys accepted so far (OpenSSH's format).
std::string getKnownHostsFileName();
// Q/scout.pl: the script sent to probe a source host.
std::string getScoutFileName();
// Q/tmp: where temporary files go by default.
std::string getTmpDir();
// Q/partial: the copies of archives whose fetch stopped early, kept for
// the next fetch to resume.
std::string getPartialsDir();
// P/admin/sbin/libxml-proxy: the schema validation helper.
std::string getLibxmlProxyFileName();
// "dumping-status.xml", relative: the agent writes it in its own directory.
std::string getRemoteDumpingStatusFileName();

// Configuration values of other components of the product.
std::string getVhostsDir();      // HTTPD_VHOSTS_D
std::string getMailDir();        // TOVEL_MAILNAMES_D
std::string getMysqlBinDir();    // MYSQL_BIN_D
std::string getPgsqlBinDir();    // PGSQL_BIN_D
std::string getMailmanVarDir();  // MAILMAN_VAR_D

namespace agents {
// Q/agents: the agent catalogue.
std::string getDir();
}  // namespace agents

}  // namespace files
}  // namespace tovel

#endif  // FERROW_COMMONS_PRODUCT_PATHS_H_
