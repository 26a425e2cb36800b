// libssh2pp::Session: one SSH session on a connected socket, its
// password or keyboard-interactive login, and its exec channels.
#ifndef FERROW_TRANSPORT_SESSION_H_
#define FERROW_TRANSPORT_SESSION_H_

#include <libssh2.h>

#include <memory>
#include <string>
#include <vector>

#include "commons/handle.h"
#include "errors/exc.h"
#include "transport/channel.h"
#include "transport/signal_guard.h"

namespace tovel {

// The SSH handshake or the authentication failed.
TOVEL_DECLARE_TAG(UnableToStartSshSession)
TOVEL_DECLARE_TAG(SshAuthorizationFailed)

namespace libssh2pp {

struct SessionFree {
  void operator()(LIBSSH2_SESSION* session) const {
    SignalGuard noSignals;
    libssh2_session_free(session);
  }
};

class Session : public Handle<LIBSSH2_SESSION*, SessionFree> {
 public:
  // Window and packet size of the reserve channel, which never carries
  // data.
  static constexpr unsigned kChannelWindowSize = 65536;
  static constexpr unsigned kChannelPacketSize = 16384;
  // Window and packet size of the exec channels, which carry the archives.
  // A transfer moves at most one window per round trip: 64 KiB gave about
  // 52 MiB/s at a 1 ms round trip and 7 MiB/s at 10 ms. Measured with
  // scripts/bench at a 10 ms round trip (128 MiB, against OpenSSH's 1.06 s):
  // 2 MiB took 1.41 s, 4 MiB 1.17 s, 8 MiB 1.01 s. The library buffers up
  // to one window, and the peak resident memory of a run grew with it:
  // 13.0 MiB, 15.0 MiB and 19.0 MiB. 4 MiB is the largest that keeps a run
  // under 16 MiB. 32768 is the largest packet the library accepts.
  static constexpr unsigned kExecChannelWindowSize = 4 * 1024 * 1024;
  static constexpr unsigned kExecChannelPacketSize = 32768;
  // Bound on every blocking library call (handshake, login, channel open
  // and close): a peer that stops answering cannot hang the run.
  static constexpr long kBlockingCallTimeoutMs = 30000;
  // Bound on the whole handshake (greeting and key exchange) of one start.
  // A server answers within a second; with the compatibility retry a
  // silent peer costs at most twice this.
  static constexpr long kHandshakeTimeoutMs = 10000;

  // Starts SSH on the connected descriptor `socket` (not owned). With
  // noEncryption asks for cipher "none" both ways; with compatibility asks
  // for key exchange "diffie-hellman-group1-sha1". Throws
  // UnableToStartSshSession with the library's text when the handshake or
  // a method preference fails, or with "no SSH handshake from the server
  // within 10 seconds" when the handshake outlasts kHandshakeTimeoutMs;
  // InvalidHandle when no session can be made.
  Session(int socket, bool noEncryption, bool compatibility);
  // Drops the reserve channel, logs "SSH session finished", frees the
  // session (no disconnect message).
  ~Session() override;

  // Logs in with "password" when offered, then with "keyboard-interactive"
  // (every prompt answered with the password) when offered and still
  // needed; in compatibility mode then opens the reserve channel. Throws
  // SshAuthorizationFailed when neither works, SshConnectionFault when the
  // connection is lost meanwhile.
  void authorize(const std::string& user, const std::string& password);

  // The comma-separated method list the server offers `user`, split at
  // every comma (empty pieces kept). Throws InvalidHandle when the server
  // gives none, SshConnectionFault when the connection is lost.
  void getAuthMethodsList(const std::string& user,
                          std::vector<std::string>& methods);

  // Opens a "session" channel, starts `command` with "exec" and leaves the
  // session in `mode`. Throws InvalidHandle when the server refuses the
  // channel or the command, SshConnectionFault when the connection is lost.
  std::unique_ptr<Channel> openExecChannel(const std::string& command,
                                           Channel::Mode mode);

  // Opens the reserve channel of compatibility mode: "cat" that waits on
  // its input for the life of the session, so that the session always has
  // a channel open besides the command channels.
  void create_reserve_channel();

  // Waits until the socket is ready in the directions libssh2 last
  // blocked on (readable when none), at most timeoutMs. A signal ends the
  // wait early.
  void waitSocket(int timeoutMs);

  // Answers every prompt with the password that authorize() stores in the
  // session's abstract slot. Responses are malloc'd: libssh2 frees them.
  static void userauth_callback(const char* name, int name_len,
                                const char* instruction, int instruction_len,
                                int num_prompts,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses,
                                void** abstract);

 private:
  void handshake();
  void preferMethod(int method, const char* preference);
  bool tryPassword(const std::string& user, const std::string& password);
  bool tryKeyboardInteractive(const std::string& user,
                              const std::string& password);
  std::unique_ptr<Channel> openSessionChannel(unsigned windowSize,
                                              unsigned packetSize);

  int socket_;
  bool compatibility_;
  std::unique_ptr<Channel> reserveChannel_;
};

}  // namespace libssh2pp
}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::UnableToStartSshSession, "UnableToStartSshSession",
                 "Unable to start SSH session: %1%");
TOVEL_EXC_TRAITS(&tovel::SshAuthorizationFailed, "SshAuthorizationFailed",
                 "No suitable username/password found");

#endif  // FERROW_TRANSPORT_SESSION_H_
