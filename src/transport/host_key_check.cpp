#include "transport/host_key_check.h"

#include <openssl/evp.h>

#include <log4cpp/Category.hh>

#include "commons/handle.h"
#include "transport/known_hosts_file.h"

namespace tovel {
namespace {

log4cpp::Category& logger() { return log4cpp::Category::getInstance("p.Ssh"); }

struct OfferedKey {
  std::string blob;
  std::string typeName;
  int knownHostType = 0;  // LIBSSH2_KNOWNHOST_KEY_*
  std::string fingerprint;

  std::string describe() const { return typeName + " " + fingerprint; }
};

struct KeyType {
  int hostKeyType;
  const char* name;
  int knownHostType;
};

const KeyType kKeyTypes[] = {
    {LIBSSH2_HOSTKEY_TYPE_RSA, "ssh-rsa", LIBSSH2_KNOWNHOST_KEY_SSHRSA},
    {LIBSSH2_HOSTKEY_TYPE_DSS, "ssh-dss", LIBSSH2_KNOWNHOST_KEY_SSHDSS},
    {LIBSSH2_HOSTKEY_TYPE_ECDSA_256, "ecdsa-sha2-nistp256",
     LIBSSH2_KNOWNHOST_KEY_ECDSA_256},
    {LIBSSH2_HOSTKEY_TYPE_ECDSA_384, "ecdsa-sha2-nistp384",
     LIBSSH2_KNOWNHOST_KEY_ECDSA_384},
    {LIBSSH2_HOSTKEY_TYPE_ECDSA_521, "ecdsa-sha2-nistp521",
     LIBSSH2_KNOWNHOST_KEY_ECDSA_521},
    {LIBSSH2_HOSTKEY_TYPE_ED25519, "ssh-ed25519",
     LIBSSH2_KNOWNHOST_KEY_ED25519},
};

// OpenSSH's form: base64 without the "=" padding.
std::string sha256Fingerprint(LIBSSH2_SESSION* session) {
  const char* digest =
      libssh2_hostkey_hash(session, LIBSSH2_HOSTKEY_HASH_SHA256);
  if (digest == nullptr) TOVEL_THROW(InvalidHandle);
  unsigned char text[64];
  int length = EVP_EncodeBlock(
      text, reinterpret_cast<const unsigned char*>(digest), 32);
  std::string encoded(reinterpret_cast<char*>(text), length);
  return "SHA256:" + encoded.substr(0, encoded.find_last_not_of('=') + 1);
}

OfferedKey offeredKey(LIBSSH2_SESSION* session) {
  size_t length = 0;
  int type = LIBSSH2_HOSTKEY_TYPE_UNKNOWN;
  const char* blob = libssh2_session_hostkey(session, &length, &type);
  if (blob == nullptr) TOVEL_THROW(InvalidHandle);
  OfferedKey key{std::string(blob, length), "unknown key type",
                 LIBSSH2_KNOWNHOST_KEY_UNKNOWN, sha256Fingerprint(session)};
  for (const KeyType& known : kKeyTypes) {
    if (known.hostKeyType == type) {
      key.typeName = known.name;
      key.knownHostType = known.knownHostType;
    }
  }
  return key;
}

[[noreturn]] void refuse(const std::string& host, unsigned short port,
                         const std::string& reason) {
  logger().error("Host key verification failed: " + reason);
  TOVEL_THROW(SshHostKeyVerificationFailed) % host % port % reason;
}

}  // namespace

bool parseHostKeyChecking(const std::string& text, HostKeyChecking* checking) {
  if (text == "yes") {
    *checking = HostKeyChecking::kYes;
  } else if (text == "accept-new") {
    *checking = HostKeyChecking::kAcceptNew;
  } else if (text == "no") {
    *checking = HostKeyChecking::kNo;
  } else {
    return false;
  }
  return true;
}

bool isSha256Fingerprint(const std::string& text) {
  const std::string prefix = "SHA256:";
  if (text.size() != prefix.size() + 43 || text.compare(0, 7, prefix) != 0) {
    return false;
  }
  return text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/",
             prefix.size()) == std::string::npos;
}

std::string knownHostsName(const std::string& host, unsigned short port) {
  if (port == 22) return host;
  return "[" + host + "]:" + std::to_string(port);
}

void verifyHostKey(LIBSSH2_SESSION* session, const std::string& host,
                   unsigned short port, const HostKeyPolicy& policy) {
  OfferedKey key = offeredKey(session);
  const std::string name = knownHostsName(host, port);
  const bool pinned = !policy.fingerprint.empty();
  if (pinned && policy.fingerprint != key.fingerprint) {
    refuse(host, port,
           "the host offers the " + key.describe() + " key, not the key " +
               policy.fingerprint + " given with --host-key-fingerprint");
  }
  if (policy.checking == HostKeyChecking::kNo) {
    logger().info("Host key of " + name + ": " + key.describe() +
                  (pinned ? " (the pinned key; " : " (") +
                  "--strict-host-key-checking=no: not looked up)");
    return;
  }
  KnownHostsFile file(policy.knownHostsFile);
  KnownHostsFile::Lookup found = file.find(session, name, key.blob);
  const std::string where =
      file.path() + " line " + std::to_string(found.line);
  if (found.result == KnownHostsFile::Result::kMatch) {
    logger().info("Host key of " + name + ": " + key.describe() +
                  ", as recorded in " + where);
    return;
  }
  if (found.result == KnownHostsFile::Result::kMismatch) {
    if (pinned) {
      logger().warn("Host key of " + name + ": " + key.describe() +
                    ", the pinned key; it differs from the entry in " + where +
                    ", which is left as it is");
      return;
    }
    refuse(host, port,
           "the host offers the " + key.describe() +
               " key, which differs from the key recorded for " + name +
               " in " + where +
               ". If the host's key was changed legitimately, remove the old "
               "entry with: ssh-keygen -R '" + name + "' -f " + file.path());
  }
  if (policy.checking == HostKeyChecking::kYes && !pinned) {
    refuse(host, port,
           "no key is recorded for " + name + " in " + file.path() +
               " and --strict-host-key-checking=yes; the host offers the " +
               key.describe() + " key");
  }
  file.append(session, name, key.blob, key.knownHostType);
  logger().info("Host key of " + name + ": " + key.describe() +
                ", new: recorded in " + file.path());
}

}  // namespace tovel
