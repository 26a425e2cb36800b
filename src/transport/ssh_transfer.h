// Ssh: the run's one authenticated connection to the source host. Runs one
// remote command at a time with its standard streams pumped, and moves
// files with the remote commands "cat FILE" and "cat > FILE".
#ifndef FERROW_TRANSPORT_SSH_TRANSFER_H_
#define FERROW_TRANSPORT_SSH_TRANSFER_H_

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "commons/stream_read_error.h"
#include "errors/exc.h"
#include "transport/host_key_check.h"
#include "transport/input_feed.h"
#include "transport/periodic.h"
#include "transport/session.h"
#include "transport/socket.h"

namespace tovel {

// The server refused the login and password; a local stream cannot
// take what the remote side sends.
TOVEL_DECLARE_TAG(SshInvalidCredentials)
TOVEL_DECLARE_TAG(StreamWrite)

class Ssh {
 public:
  // Told the size of every chunk of remote standard output received.
  class Counter {
   public:
    virtual ~Counter() = default;
    virtual void update(std::size_t bytes) = 0;
    // Asked before each wait for the remote side, that is while nothing
    // arrives; returns a positive number of milliseconds after which it
    // wants to be asked again, or any other number for no such limit.
    virtual int idle() { return -1; }
  };
  class NullCounter : public Counter {
   public:
    void update(std::size_t) override {}
  };
  static NullCounter null_counter;

  // Connects (Socket), starts SSH (retrying once in compatibility mode
  // when the start fails), verifies the host key as hostKeys says after
  // each start and before any authentication request, and logs in. Throws
  // what Socket, Session and verifyHostKey throw (a refused socket() as
  // UnableToStartSshSession "socket: <reason>"); a refused login throws
  // SshInvalidCredentials "Unable to connect to host <host>: you have
  // specified incorrect username or password". The password is not kept.
  Ssh(const std::string& host, const std::string& login,
      const std::string& password, bool noEncryption, unsigned short port,
      const HostKeyPolicy& hostKeys);
  ~Ssh();
  Ssh(const Ssh&) = delete;
  Ssh& operator=(const Ssh&) = delete;

  // Runs `command` (one remote shell line) and returns its exit status; a
  // command ended by a signal returns 128 + the signal's number. `in` is
  // sent as its standard input as it becomes ready (InputFeed), then EOF,
  // while its standard output goes to `out` (each chunk told to `counter`)
  // and its standard error to `err`; input and output flow at the same
  // time, so neither side can stall the other. Unless quietOutput/quietInput, the bytes are logged at
  // DEBUG, every registered secret masked. A wait for the remote side
  // lasts no longer than `counter` asks (Counter::idle). Between chunks,
  // and at least every 5 s while the command is silent, the termination
  // flag is polled (MigrationTerminatedException). With `periodic` (not
  // owned), its tick runs between two rounds, on this thread, as Periodic
  // says, and only during this command. Throws SshConnectionFault when the
  // connection is lost, StreamRead/StreamWrite when a local stream fails,
  // UnableToSendEof, InvalidHandle when no channel can be opened, and what
  // the tick throws.
  int exec(const std::string& command, InputFeed& in, std::ostream& out,
           std::ostream& err, bool quietOutput, bool quietInput,
           Counter& counter, const Periodic* periodic = nullptr);
  // The same with a stream's bytes as standard input.
  int exec(const std::string& command, std::istream& in, std::ostream& out,
           std::ostream& err, bool quietOutput, bool quietInput,
           Counter& counter, const Periodic* periodic = nullptr);
  // The same with empty standard input.
  int exec(const std::string& command, std::ostream& out, std::ostream& err,
           bool quietOutput, Counter& counter);

  // Reads a remote file with "cat" into a stream or a (truncated) local
  // file; returns cat's exit status, its error text going to `err` or
  // being discarded. Contents are never logged. A local file that cannot
  // be created or written throws StreamWrite.
  int get(std::ostream& out, std::ostream& err, const std::string& remotePath,
          Counter& counter);
  int get(std::ostream& out, const std::string& remotePath);
  int get(const std::string& remotePath, std::ostream& err,
          const std::string& localPath, Counter& counter);
  int get(const std::string& remotePath, const std::string& localPath);

  // What a fetch into a local file delivered.
  struct Receipt {
    // Exit status of "cat"; -1 when the fetch stopped at a local write
    // failure before the command ended.
    int status = -1;
    uint64_t bytes = 0;  // bytes written to the local file
    std::string md5sum;  // MD5 of those bytes, taken as they were written
    // Empty when the file was created, written, flushed to the disk and
    // closed without error; else what failed first.
    std::string writeError;
  };
  // Reads a remote file with "cat" into a new (truncated) local file,
  // counting and summing the bytes on the way; cat's error text goes to
  // `err`. A local write failure, or more data than maxBytes, stops the
  // fetch at once and is reported in the receipt, not thrown. Throws what
  // exec throws otherwise.
  Receipt receive(const std::string& remotePath, std::ostream& err,
                  const std::string& localPath, Counter& counter,
                  uint64_t maxBytes = UINT64_MAX);

  // Writes a stream or a local file to a remote path with "cat >". The
  // remote status is not checked; a local file that cannot be read throws
  // StreamRead.
  void put(std::istream& in, const std::string& remotePath);
  void put(const std::string& localPath, const std::string& remotePath);

 private:
  void connect(const std::string& host, unsigned short port, bool noEncryption,
               const HostKeyPolicy& hostKeys);

  std::unique_ptr<Socket> socket_;
  std::unique_ptr<libssh2pp::Session> session_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::SshInvalidCredentials, "SshInvalidCredentials",
                 "Unable to connect to host %1%: you have specified incorrect "
                 "username or password");
TOVEL_EXC_TRAITS(&tovel::StreamWrite, "StreamWrite",
                 "Cannot write data to the stream");

#endif  // FERROW_TRANSPORT_SSH_TRANSFER_H_
