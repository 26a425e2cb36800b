// The flow-control sizes of the channels a session opens, as the library
// reports them, against the real sshd of the test harness.
#include <gtest/gtest.h>
#include <libssh2.h>

#include <memory>

#include "commons/socket.h"
#include "support/sshd_server.h"
#include "transport/session.h"

namespace {

using ferrow_test::rootAccount;
using ferrow_test::SshdServer;
using tovel::libssh2pp::Channel;
using tovel::libssh2pp::Session;

unsigned long initialWindow(const Channel& channel) {
  unsigned long initial = 0;
  libssh2_channel_window_read_ex(channel.get(), nullptr, &initial);
  return initial;
}

// The archives travel on exec channels: their window must let a transfer
// over a long round trip run at the speed of the link, far beyond the
// 64 KiB of the reserve channel.
TEST(ExecChannelWindowTest, ExecChannelsOfferTheLargeWindow) {
  static_assert(Session::kExecChannelWindowSize >= 2 * 1024 * 1024,
                "at least the library's own default window");
  static_assert(Session::kExecChannelPacketSize == 32768,
                "the largest packet the library accepts");
  tovel::Socket socket("127.0.0.1", SshdServer::shared().port());
  Session session(socket.fd(), false, false);
  session.authorize(rootAccount().name, rootAccount().password);

  std::unique_ptr<Channel> first =
      session.openExecChannel("true", Channel::kBlocking);
  EXPECT_EQ(Session::kExecChannelWindowSize, initialWindow(*first));
  first.reset();
  std::unique_ptr<Channel> second =
      session.openExecChannel("cat /dev/null", Channel::kNonBlocking);
  EXPECT_EQ(Session::kExecChannelWindowSize, initialWindow(*second));
}

}  // namespace
