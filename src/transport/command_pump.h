// CommandPump: moves the three standard streams of one remote command
// between local streams and its exec channel, then collects its status.
#ifndef FERROW_TRANSPORT_COMMAND_PUMP_H_
#define FERROW_TRANSPORT_COMMAND_PUMP_H_

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <vector>

#include "commons/secrets.h"
#include "errors/exc.h"
#include "transport/channel.h"
#include "transport/input_feed.h"
#include "transport/periodic.h"
#include "transport/session.h"
#include "transport/ssh_transfer.h"

namespace tovel {

// The end of the remote command's input cannot be signalled.
TOVEL_DECLARE_TAG(UnableToSendEof)

struct CommandStreams {
  InputFeed& in;
  std::ostream& out;
  std::ostream& err;
  bool quietOutput;
  bool quietInput;
  Ssh::Counter& counter;
};

class CommandPump {
 public:
  // Largest chunk read from any stream at once.
  static constexpr std::size_t kChunkSize = 65536;
  // Longest single wait for the socket; the counter and a periodic tick
  // that falls due may ask for shorter ones.
  static constexpr int kWaitRoundMs = 5000;

  // None owned. `periodic`, when not null, ticks between rounds as it
  // says, never while a write is half sent.
  CommandPump(libssh2pp::Session& session, libssh2pp::Channel& channel,
              const CommandStreams& streams, const Periodic* periodic);

  // Feeds the input (then EOF) while draining both output streams, until
  // the remote side has sent EOF and everything it sent is delivered. The
  // session is non-blocking meanwhile. Throws as Ssh::exec documents.
  void run();

  // Waits for the channel to close; returns its exit status, or 128 + the
  // signal's number when the command was killed by a signal.
  int exitStatus();

 private:
  bool feedInput();
  long readInputChunk();
  bool sendEof();
  bool writeFailed(long rc);
  bool remoteClosed();
  bool inputDropped();
  bool drain(int stream);
  bool tickIfDue();
  int waitRoundMs();
  void deliver(int stream, std::size_t size);
  int signalStatus();
  void log(int stream, const char* data, std::size_t size);
  void flushLog();

  libssh2pp::Session& session_;
  LIBSSH2_CHANNEL* channel_;
  const CommandStreams& streams_;
  // Null once it asked to tick no more.
  const Periodic* periodic_;
  std::chrono::steady_clock::time_point nextTick_;
  std::vector<char> input_;
  std::size_t inputOffset_ = 0;
  std::size_t inputLength_ = 0;
  bool inputDone_ = false;
  // A write that the library could only partly send must be repeated
  // before anything else goes out on the session.
  bool writeBlocked_ = false;
  std::vector<char> output_;
  // Per stream (input, output, errors): what is logged has its secrets
  // masked, even one that arrives split between two chunks.
  StreamMasker maskers_[3];
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::UnableToSendEof, "UnableToSendEof",
                 "Unable to send EOF to SSH channel: %1%");

#endif  // FERROW_TRANSPORT_COMMAND_PUMP_H_
