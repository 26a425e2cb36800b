#include "transport/session.h"

#include <poll.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <log4cpp/Category.hh>

#include "transport/libssh2_errors.h"
#include "transport/signal_guard.h"

namespace tovel {
namespace libssh2pp {
namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.libssh2pp.Session");
}

LIBSSH2_SESSION* newSession() {
  ensureLibraryInitialized();
  return libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr);
}

bool offers(const std::vector<std::string>& methods, const char* method) {
  return std::find(methods.begin(), methods.end(), method) != methods.end();
}

}  // namespace

Session::Session(int socket, bool noEncryption, bool compatibility)
    : Handle(newSession()), socket_(socket), compatibility_(compatibility) {
  logger().debug("Trying to start SSH session");
  if (noEncryption) {
    logger().debug("Disabling SSH encryption");
    preferMethod(LIBSSH2_METHOD_CRYPT_CS, "none");
    preferMethod(LIBSSH2_METHOD_CRYPT_SC, "none");
  }
  if (compatibility) {
    preferMethod(LIBSSH2_METHOD_KEX, "diffie-hellman-group1-sha1");
  }
  libssh2_session_set_timeout(get(), kBlockingCallTimeoutMs);
  handshake();
  const char* cipher = libssh2_session_methods(get(), LIBSSH2_METHOD_CRYPT_SC);
  logger().debug(std::string("Selected ") + (cipher ? cipher : "") +
                 " encryption method");
  logger().debug("SSH session started successfully");
}

Session::~Session() {
  reserveChannel_.reset();
  logger().debug("SSH session finished");
}

// A peer that accepts the connection but never completes the handshake (no
// SSH server behind the port, or one that trickles lines) must not hold the
// run: the whole handshake, not each wait in it, gets one deadline.
// Non-blocking, so no signal can break a wait inside the library here.
void Session::handshake() {
  libssh2_session_set_blocking(get(), 0);
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(kHandshakeTimeoutMs);
  int rc;
  while ((rc = libssh2_session_handshake(get(), socket_)) ==
         LIBSSH2_ERROR_EAGAIN) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    waitSocket(static_cast<int>(left.count()));
  }
  libssh2_session_set_blocking(get(), 1);
  if (rc == 0) return;
  std::string message =
      rc == LIBSSH2_ERROR_EAGAIN
          ? "no SSH handshake from the server within " +
                std::to_string(kHandshakeTimeoutMs / 1000) + " seconds"
          : lastErrorText(get());
  logger().error("SSH session was not started: " + message);
  TOVEL_THROW(UnableToStartSshSession) % message;
}

void Session::preferMethod(int method, const char* preference) {
  if (libssh2_session_method_pref(get(), method, preference) == 0) return;
  // A method this build of the library lacks: the session cannot start as
  // asked, so it is reported like a failed start.
  std::string message = lastErrorText(get());
  logger().error("SSH session was not started: " + message);
  TOVEL_THROW(UnableToStartSshSession) % message;
}

void Session::getAuthMethodsList(const std::string& user,
                                 std::vector<std::string>& methods) {
  logger().debug("Getting userauth methods for user '" + user + "'");
  // The buffer belongs to the session: copied, never freed here.
  const char* list = libssh2_userauth_list(get(), user.data(), user.size());
  if (list == nullptr) {
    int rc = libssh2_session_last_errno(get());
    if (isConnectionLoss(rc)) throwConnectionLost(get(), rc, "userauth list");
    TOVEL_THROW(InvalidHandle);
  }
  std::string text(list);
  logger().debug("Got the following allowed userauth methods: " + text);
  methods.clear();
  std::string::size_type start = 0;
  for (;;) {
    std::string::size_type comma = text.find(',', start);
    methods.push_back(text.substr(start, comma - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
}

void Session::authorize(const std::string& user, const std::string& password) {
  logger().debug("Requested authorization for user " + user);
  SignalGuard noSignals;
  std::vector<std::string> methods;
  getAuthMethodsList(user, methods);
  bool done = offers(methods, "password") && tryPassword(user, password);
  if (!done && offers(methods, "keyboard-interactive")) {
    done = tryKeyboardInteractive(user, password);
  }
  if (!done) {
    logger().error("Authentication failed");
    TOVEL_THROW(SshAuthorizationFailed);
  }
  if (compatibility_) create_reserve_channel();
}

bool Session::tryPassword(const std::string& user,
                          const std::string& password) {
  logger().debug("Trying 'password' authentication");
  int rc =
      libssh2_userauth_password_ex(get(), user.data(), user.size(),
                                   password.data(), password.size(), nullptr);
  if (rc != 0) return false;
  logger().debug("Authenticated succesfully");
  return true;
}

bool Session::tryKeyboardInteractive(const std::string& user,
                                     const std::string& password) {
  logger().debug("Trying 'keyboard-interactive' authentication");
  void** abstract = libssh2_session_abstract(get());
  *abstract = const_cast<std::string*>(&password);
  int rc = libssh2_userauth_keyboard_interactive_ex(
      get(), user.data(), user.size(), &Session::userauth_callback);
  *abstract = nullptr;
  if (rc != 0) return false;
  logger().debug("Authenticated successfully");
  return true;
}

void Session::userauth_callback(const char*, int, const char*, int,
                                int num_prompts,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT*,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses,
                                void** abstract) {
  logger().debug("'keyboard-interactive' callback requested. Filling " +
                 std::to_string(num_prompts) + " responses with the password");
  const std::string* password = static_cast<const std::string*>(*abstract);
  if (password == nullptr) return;
  for (int i = 0; i < num_prompts; ++i) {
    char* text = static_cast<char*>(malloc(password->size() + 1));
    if (text == nullptr) return;
    memcpy(text, password->data(), password->size());
    responses[i].text = text;
    responses[i].length = static_cast<unsigned>(password->size());
  }
}

std::unique_ptr<Channel> Session::openSessionChannel(unsigned windowSize,
                                                     unsigned packetSize) {
  LIBSSH2_CHANNEL* channel =
      libssh2_channel_open_ex(get(), "session", sizeof("session") - 1,
                              windowSize, packetSize, nullptr, 0);
  if (channel == nullptr) {
    int rc = libssh2_session_last_errno(get());
    if (isConnectionLoss(rc)) throwConnectionLost(get(), rc, "channel open");
  }
  return std::make_unique<Channel>(channel);
}

std::unique_ptr<Channel> Session::openExecChannel(const std::string& command,
                                                  Channel::Mode mode) {
  logger().debug("Opening SSH channel for command '" + command + "'");
  SignalGuard noSignals;
  libssh2_session_set_blocking(get(), Channel::kBlocking);
  std::unique_ptr<Channel> channel =
      openSessionChannel(kExecChannelWindowSize, kExecChannelPacketSize);
  int rc = libssh2_channel_process_startup(channel->get(), "exec", 4,
                                           command.data(), command.size());
  if (rc != 0) {
    if (isConnectionLoss(rc)) throwConnectionLost(get(), rc, "exec request");
    // Never let a command that did not run look like one that succeeded.
    logger().error("The remote host refused to run the command: " +
                   lastErrorText(get()));
    TOVEL_THROW(InvalidHandle);
  }
  libssh2_channel_set_blocking(channel->get(), mode);
  return channel;
}

void Session::create_reserve_channel() {
  logger().debug("Create a reserve channel");
  SignalGuard noSignals;
  libssh2_session_set_blocking(get(), Channel::kBlocking);
  reserveChannel_.reset();
  reserveChannel_ = openSessionChannel(kChannelWindowSize, kChannelPacketSize);
  libssh2_channel_process_startup(reserveChannel_->get(), "exec", 4, "cat", 3);
}

void Session::waitSocket(int timeoutMs) {
  int directions = libssh2_session_block_directions(get());
  pollfd entry = {socket_, 0, 0};
  if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND) entry.events |= POLLOUT;
  if (directions & LIBSSH2_SESSION_BLOCK_INBOUND || entry.events == 0) {
    entry.events |= POLLIN;
  }
  poll(&entry, 1, timeoutMs);
}

}  // namespace libssh2pp
}  // namespace tovel
