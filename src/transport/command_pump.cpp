#include "transport/command_pump.h"

#include <signal.h>
#include <string.h>

#include <algorithm>
#include <istream>
#include <log4cpp/Category.hh>
#include <ostream>
#include <string>

#include "commons/termination.h"
#include "transport/libssh2_errors.h"

namespace tovel {
namespace {

log4cpp::Category& logger() { return log4cpp::Category::getInstance("p.Ssh"); }

// Indexed like the maskers: input, output, errors.
const char* const kLogPrefixes[] = {"remote stdin <- ", "remote stdout -> ",
                                    "remote stderr -> "};
const int kInput = 0;
const int kOutput = 1;
const int kErrors = 2;

// The number of a signal named as in an SSH exit-signal message ("KILL").
int signalNumber(const std::string& name) {
  for (int number = 1; number < NSIG; ++number) {
    const char* abbrev = sigabbrev_np(number);
    if (abbrev != nullptr && name == abbrev) return number;
  }
  return 0;
}

}  // namespace

CommandPump::CommandPump(libssh2pp::Session& session,
                         libssh2pp::Channel& channel,
                         const CommandStreams& streams,
                         const Periodic* periodic)
    : session_(session),
      channel_(channel.get()),
      streams_(streams),
      periodic_(periodic && periodic->tick ? periodic : nullptr),
      nextTick_(std::chrono::steady_clock::now() +
                (periodic_ ? periodic_->period : std::chrono::milliseconds())),
      input_(kChunkSize),
      output_(kChunkSize) {}

void CommandPump::run() {
  for (;;) {
    // A cancelled run stops here too while the command is silent.
    checkProgramTerminated();
    // A tick may have run commands of its own, which leave the session
    // blocking.
    libssh2_session_set_blocking(session_.get(),
                                 libssh2pp::Channel::kNonBlocking);
    bool progressed = feedInput();
    progressed = drain(0) || progressed;
    progressed = drain(1) || progressed;
    if (inputDone_ && libssh2_channel_eof(channel_)) break;
    // The tick's commands read the socket too and may have taken this
    // command's data off it: look again before waiting.
    progressed = tickIfDue() || progressed;
    if (!progressed) session_.waitSocket(waitRoundMs());
  }
  flushLog();
  libssh2_session_set_blocking(session_.get(), libssh2pp::Channel::kBlocking);
}

bool CommandPump::feedInput() {
  if (inputDone_) return false;
  if (inputLength_ == 0) {
    long got = readInputChunk();
    // A feed waits for what the command sends back; after the command's
    // last output nothing more can come.
    if (got == InputFeed::kNothingYet && !libssh2_channel_eof(channel_)) {
      return false;
    }
    if (got <= 0) return sendEof();
  }
  checkProgramTerminated();
  const char* data = input_.data() + inputOffset_;
  long rc = libssh2_channel_write_ex(channel_, 0, data, inputLength_);
  writeBlocked_ = rc == LIBSSH2_ERROR_EAGAIN;
  if (writeBlocked_ || rc == 0) return remoteClosed() && inputDropped();
  if (rc < 0) return writeFailed(rc);
  if (!streams_.quietInput) log(kInput, data, rc);
  inputOffset_ += rc;
  inputLength_ -= rc;
  return rc > 0;
}

long CommandPump::readInputChunk() {
  long got = streams_.in.read(input_.data(), input_.size());
  inputOffset_ = 0;
  inputLength_ = got > 0 ? static_cast<std::size_t>(got) : 0;
  return got;
}

bool CommandPump::sendEof() {
  int rc = libssh2_channel_send_eof(channel_);
  writeBlocked_ = rc == LIBSSH2_ERROR_EAGAIN;
  if (writeBlocked_) return false;
  if (rc < 0 && libssh2pp::isConnectionLoss(rc)) {
    libssh2pp::throwConnectionLost(session_.get(), rc, "send EOF");
  }
  if (rc < 0 && rc != LIBSSH2_ERROR_CHANNEL_CLOSED) {
    TOVEL_THROW(UnableToSendEof) % libssh2pp::lastErrorText(session_.get());
  }
  inputDone_ = true;
  return true;
}

bool CommandPump::writeFailed(long rc) {
  if (libssh2pp::isConnectionLoss(rc)) {
    libssh2pp::throwConnectionLost(session_.get(), rc, "channel write");
  }
  if (rc != LIBSSH2_ERROR_CHANNEL_CLOSED &&
      rc != LIBSSH2_ERROR_CHANNEL_EOF_SENT) {
    TOVEL_THROW(StreamWrite);
  }
  return inputDropped();
}

// The library does not notice that a closed channel will never open its
// window again; a command that ended is closed once it has sent EOF.
bool CommandPump::remoteClosed() {
  return libssh2_channel_wait_closed(channel_) == 0;
}

// The command ended without reading all of its input, as "true" does: the
// rest is dropped, as a local pipe would drop it.
bool CommandPump::inputDropped() {
  logger().debug("The remote command closed its input; the rest is not sent");
  writeBlocked_ = false;
  inputDone_ = true;
  return true;
}

bool CommandPump::drain(int stream) {
  long rc =
      libssh2_channel_read_ex(channel_, stream, output_.data(), output_.size());
  if (rc == LIBSSH2_ERROR_EAGAIN || rc == 0) return false;
  if (rc < 0)
    libssh2pp::throwConnectionLost(session_.get(), rc, "channel read");
  deliver(stream, static_cast<std::size_t>(rc));
  return true;
}

// A write that the library could only partly send must be finished before
// another command uses the session.
bool CommandPump::tickIfDue() {
  if (periodic_ == nullptr || writeBlocked_) return false;
  if (std::chrono::steady_clock::now() < nextTick_) return false;
  if (!periodic_->tick()) {
    periodic_ = nullptr;
    return true;
  }
  nextTick_ = std::chrono::steady_clock::now() + periodic_->period;
  return true;
}

// The counter may hold figures back for a moment and must get them out
// even when the command falls silent, and a tick is due on time; a
// time-out, not a poll, so a stalled source costs no CPU.
int CommandPump::waitRoundMs() {
  int wait = kWaitRoundMs;
  int asked = streams_.counter.idle();
  if (asked > 0 && asked < wait) wait = asked;
  if (periodic_ != nullptr && !writeBlocked_) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(
        nextTick_ - std::chrono::steady_clock::now());
    wait = static_cast<int>(std::clamp<long long>(left.count(), 0, wait));
  }
  return wait;
}

void CommandPump::deliver(int stream, std::size_t size) {
  const char* data = output_.data();
  if (stream == 0) {
    if (!streams_.quietOutput) log(kOutput, data, size);
    streams_.counter.update(size);
    streams_.out.write(data, size);
    if (!streams_.out) TOVEL_THROW(StreamWrite);
    checkProgramTerminated();
    return;
  }
  if (!streams_.quietOutput) log(kErrors, data, size);
  streams_.err.write(data, size);
  if (!streams_.err) TOVEL_THROW(StreamWrite);
}

void CommandPump::log(int stream, const char* data, std::size_t size) {
  if (!logger().isDebugEnabled()) return;
  std::string text = maskers_[stream].push(data, size);
  if (!text.empty()) logger().debug(kLogPrefixes[stream] + text);
}

// What the maskers still hold could only have begun a secret.
void CommandPump::flushLog() {
  for (int stream : {kInput, kOutput, kErrors}) {
    std::string rest = maskers_[stream].finish();
    if (!rest.empty()) logger().debug(kLogPrefixes[stream] + rest);
  }
}

int CommandPump::exitStatus() {
  libssh2_session_set_blocking(session_.get(),
                               libssh2pp::Channel::kNonBlocking);
  int rc;
  while ((rc = libssh2_channel_wait_closed(channel_)) == LIBSSH2_ERROR_EAGAIN) {
    session_.waitSocket(kWaitRoundMs);
  }
  libssh2_session_set_blocking(session_.get(), libssh2pp::Channel::kBlocking);
  if (rc < 0 && libssh2pp::isConnectionLoss(rc)) {
    libssh2pp::throwConnectionLost(session_.get(), rc, "channel close");
  }
  int status = signalStatus();
  return status != 0 ? status : libssh2_channel_get_exit_status(channel_);
}

// The library reports status 0 for a killed command; a killed "cat" must
// never pass for a complete file.
int CommandPump::signalStatus() {
  char* name = nullptr;
  size_t length = 0;
  libssh2_channel_get_exit_signal(channel_, &name, &length, nullptr, nullptr,
                                  nullptr, nullptr);
  if (name == nullptr) return 0;
  std::string signal(name, length);
  libssh2_free(session_.get(), name);
  int number = signalNumber(signal);
  logger().debug("The remote command was killed by signal " + signal);
  return 128 + (number != 0 ? number : 127);
}

}  // namespace tovel
