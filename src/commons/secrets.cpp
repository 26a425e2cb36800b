#include "commons/secrets.h"

#include <algorithm>
#include <vector>

namespace tovel {
namespace {

// Longest first. Set while the options are read, before any logging.
std::vector<std::string>& secrets() {
  static std::vector<std::string> registered;
  return registered;
}

std::size_t longestSecret() {
  return secrets().empty() ? 0 : secrets().front().size();
}

// The start of the shortest tail of text that is a proper prefix of some
// secret: from there on, the next piece may complete it.
std::size_t heldBackFrom(const std::string& text) {
  std::size_t limit = std::min(text.size(), longestSecret() - 1);
  for (std::size_t start = text.size() - limit; start < text.size(); ++start) {
    for (const std::string& secret : secrets()) {
      std::size_t length = text.size() - start;
      if (length < secret.size() &&
          text.compare(start, length, secret, 0, length) == 0) {
        return start;
      }
    }
  }
  return text.size();
}

}  // namespace

const char kMaskedSecret[] = "********";

void registerSecret(const std::string& secret) {
  if (secret.empty()) return;
  std::vector<std::string>& all = secrets();
  if (std::find(all.begin(), all.end(), secret) != all.end()) return;
  all.push_back(secret);
  std::stable_sort(all.begin(), all.end(),
                   [](const std::string& a, const std::string& b) {
                     return a.size() > b.size();
                   });
}

void clearSecrets() { secrets().clear(); }

std::string maskSecrets(const std::string& text) {
  std::string masked = text;
  for (const std::string& secret : secrets()) {
    std::string::size_type at = 0;
    while ((at = masked.find(secret, at)) != std::string::npos) {
      masked.replace(at, secret.size(), kMaskedSecret);
      at += sizeof(kMaskedSecret) - 1;
    }
  }
  return masked;
}

std::string StreamMasker::push(const char* data, std::size_t size) {
  pending_.append(data, size);
  if (secrets().empty()) return finish();
  std::string masked = maskSecrets(pending_);
  std::size_t keep = heldBackFrom(masked);
  pending_ = masked.substr(keep);
  return masked.substr(0, keep);
}

std::string StreamMasker::finish() {
  std::string rest = maskSecrets(pending_);
  pending_.clear();
  return rest;
}

}  // namespace tovel
