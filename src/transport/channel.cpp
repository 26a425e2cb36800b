#include "transport/channel.h"

#include <log4cpp/Category.hh>

#include "transport/signal_guard.h"

namespace tovel {
namespace libssh2pp {

void ChannelFree::operator()(LIBSSH2_CHANNEL* channel) const {
  SignalGuard noSignals;
  libssh2_channel_set_blocking(channel, Channel::kBlocking);
  libssh2_channel_free(channel);
}

Channel::~Channel() {
  log4cpp::Category::getInstance("p.libssh2pp.Channel").debug("Closed");
}

}  // namespace libssh2pp
}  // namespace tovel
