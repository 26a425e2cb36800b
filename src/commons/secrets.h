// The secrets of a run (the SSH and sudo passwords), which the debug log
// shows masked wherever a logged text would carry them.
#ifndef FERROW_COMMONS_SECRETS_H_
#define FERROW_COMMONS_SECRETS_H_

#include <cstddef>
#include <string>

namespace tovel {

// What a secret is shown as.
extern const char kMaskedSecret[];  // "********"

// Adds secret to the process-wide set; an empty one is ignored.
void registerSecret(const std::string& secret);

// Forgets every registered secret. For tests.
void clearSecrets();

// text with every occurrence of every registered secret replaced by
// kMaskedSecret (the longest secret first, so that one that contains
// another is masked whole).
std::string maskSecrets(const std::string& text);

// Masks a stream that is logged piece by piece, such as a command's
// standard input: a secret split between two pieces is masked too. Each
// push returns the masked text that is safe to log now, holding back a tail
// shorter than the longest secret that could still begin a secret; finish
// returns what is left.
class StreamMasker {
 public:
  std::string push(const char* data, std::size_t size);
  std::string finish();

 private:
  std::string pending_;
};

}  // namespace tovel

#endif  // FERROW_COMMONS_SECRETS_H_
