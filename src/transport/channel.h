// libssh2pp::Channel: the owner of one SSH channel of a Session.
#ifndef FERROW_TRANSPORT_CHANNEL_H_
#define FERROW_TRANSPORT_CHANNEL_H_

#include <libssh2.h>

#include "commons/handle.h"

namespace tovel {
namespace libssh2pp {

// Frees a channel. libssh2's blocking flag belongs to the session and a
// non-blocking free may give up half-way, so the session is switched back
// to blocking mode first.
struct ChannelFree {
  void operator()(LIBSSH2_CHANNEL* channel) const;
};

class Channel : public Handle<LIBSSH2_CHANNEL*, ChannelFree> {
 public:
  // Values of libssh2_channel_set_blocking.
  enum Mode { kNonBlocking = 0, kBlocking = 1 };

  // Takes ownership; a null channel throws InvalidHandle.
  explicit Channel(LIBSSH2_CHANNEL* channel) : Handle(channel) {}
  // Logs "Closed", then frees the channel without closing it first.
  ~Channel() override;
};

}  // namespace libssh2pp
}  // namespace tovel

#endif  // FERROW_TRANSPORT_CHANNEL_H_
