#include "commons/product_paths.h"

#include "commons/dyr_conf.h"

namespace tovel {
namespace files {

std::string getProductDir() { return dyrConfGetDefaultByIndex(kProductRootD); }

std::string getQvtDir() { return getProductDir() + "/QVT"; }

std::string getQvtLogConfigFileName() {
  return getQvtDir() + "/log4cpp.properties";
}

std::string getKnownHostsFileName() { return getQvtDir() + "/known_hosts"; }

std::string getScoutFileName() { return getQvtDir() + "/scout.pl"; }

std::string getTmpDir() { return getQvtDir() + "/tmp"; }

std::string getPartialsDir() { return getQvtDir() + "/partial"; }

std::string getLibxmlProxyFileName() {
  return getProductDir() + "/admin/sbin/libxml-proxy";
}

std::string getRemoteDumpingStatusFileName() { return "dumping-status.xml"; }

std::string getVhostsDir() { return dyrConfGetDefaultByIndex(kHttpdVhostsD); }

std::string getMailDir() { return dyrConfGetDefaultByIndex(kMailnamesD); }

std::string getMysqlBinDir() { return dyrConfGetDefaultByIndex(kMysqlBinD); }

std::string getPgsqlBinDir() { return dyrConfGetDefaultByIndex(kPgsqlBinD); }

std::string getMailmanVarDir() {
  return dyrConfGetDefaultByIndex(kMailmanVarD);
}

namespace agents {

std::string getDir() { return getQvtDir() + "/agents"; }

}  // namespace agents
}  // namespace files
}  // namespace tovel
