#include "commons/secrets.h"

#include <algorithm>
#include <vector>

namespace tovel {

const char kMaskedSecret[] = "********";

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

using Span = std::pair<std::size_t, std::size_t>;  // [begin, end)

// Where text holds a secret, longest secrets first: a shorter secret inside
// a longer one is masked with it, never on its own.
std::vector<Span> secretSpans(const std::string& text) {
  std::vector<Span> spans;
  for (const std::string& secret : secrets()) {
    for (std::size_t at = text.find(secret); at != std::string::npos;
         at = text.find(secret, at + 1)) {
      Span span(at, at + secret.size());
      bool overlaps =
          std::any_of(spans.begin(), spans.end(), [&](const Span& s) {
            return s.first < span.second && span.first < s.second;
          });
      if (!overlaps) spans.push_back(span);
    }
  }
  std::sort(spans.begin(), spans.end());
  return spans;
}

// text[0, end) with the spans inside it masked.
std::string masked(const std::string& text, const std::vector<Span>& spans,
                   std::size_t end) {
  std::string out;
  std::size_t from = 0;
  for (const Span& span : spans) {
    if (span.second > end) break;
    out.append(text, from, span.first - from).append(kMaskedSecret);
    from = span.second;
  }
  return out.append(text, from, end - from);
}

}  // namespace

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
  return masked(text, secretSpans(text), text.size());
}

// The held-back tail is found in the raw text (masking first would hide a
// longer secret that is still arriving behind a shorter one inside it), and
// never starts inside a secret, so no secret is split between two pieces.
std::string StreamMasker::push(const char* data, std::size_t size) {
  pending_.append(data, size);
  if (secrets().empty()) return finish();
  std::vector<Span> spans = secretSpans(pending_);
  std::size_t keep = heldBackFrom(pending_);
  for (const Span& span : spans) {
    if (span.first < keep && keep < span.second) keep = span.first;
  }
  std::string out = masked(pending_, spans, keep);
  pending_.erase(0, keep);
  return out;
}

std::string StreamMasker::finish() {
  std::string rest = maskSecrets(pending_);
  pending_.clear();
  return rest;
}

}  // namespace tovel
