#include "transport/ssh_transfer.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/sh_quote.h"
#include "errors/ex_traceable.h"
#include "transport/command_pump.h"
#include "transport/receiving_file.h"

namespace tovel {
namespace {

log4cpp::Category& logger() { return log4cpp::Category::getInstance("p.Ssh"); }

// "cat FILE" reads a remote file, "cat > FILE" writes one.
std::string catCommand(const std::string& redirect, const std::string& path) {
  return "cat" + redirect + " " + sh_quote(path);
}

// Output that nobody reads; writes to it always succeed.
class NullStream : public std::ostream {
 public:
  NullStream() : std::ostream(&buffer_) {}

 private:
  class Discard : public std::streambuf {
   protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override {
      return n;
    }
  };
  Discard buffer_;
};

// The connector reports a refused socket() as a plain runtime_error; the
// run tells it like any other failed start of the session.
std::unique_ptr<Socket> openSocket(const std::string& host,
                                   unsigned short port) {
  try {
    return std::make_unique<Socket>(host, port);
  } catch (const ExTraceable&) {
    throw;
  } catch (const std::runtime_error& e) {
    TOVEL_THROW(UnableToStartSshSession) % e.what();
  }
}

}  // namespace

Ssh::NullCounter Ssh::null_counter;

Ssh::Ssh(const std::string& host, const std::string& login,
         const std::string& password, bool noEncryption, unsigned short port,
         const HostKeyPolicy& hostKeys) {
  connect(host, port, noEncryption, hostKeys);
  try {
    session_->authorize(login, password);
  } catch (const Exc<&SshAuthorizationFailed>&) {
    TOVEL_THROW(SshInvalidCredentials) % host;
  }
}

Ssh::~Ssh() {
  session_.reset();
  socket_.reset();
}


void Ssh::connect(const std::string& host, unsigned short port,
                  bool noEncryption, const HostKeyPolicy& hostKeys) {
  socket_ = openSocket(host, port);
  try {
    session_ = std::make_unique<libssh2pp::Session>(socket_->fd(), noEncryption,
                                                    false);
  } catch (const Exc<&UnableToStartSshSession>&) {
    logger().debug("Attempt to start SSH session in a 'compatibility' mode");
    socket_ = openSocket(host, port);
    session_ =
        std::make_unique<libssh2pp::Session>(socket_->fd(), noEncryption, true);
  }
  verifyHostKey(session_->get(), host, port, hostKeys);
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out,
              std::ostream& err, bool quietOutput, bool quietInput,
              Counter& counter, const Periodic* periodic) {
  StreamFeed feed(in);
  return exec(command, feed, out, err, quietOutput, quietInput, counter,
              periodic);
}

int Ssh::exec(const std::string& command, InputFeed& in, std::ostream& out,
              std::ostream& err, bool quietOutput, bool quietInput,
              Counter& counter, const Periodic* periodic) {
  logger().debug("Executing " + command + " on the remote host");
  std::unique_ptr<libssh2pp::Channel> channel =
      session_->openExecChannel(command, libssh2pp::Channel::kBlocking);
  CommandStreams streams{in, out, err, quietOutput, quietInput, counter};
  CommandPump pump(*session_, *channel, streams, periodic);
  try {
    pump.run();
  } catch (const MigrationTerminatedException&) {
    // Closing the channel politely would wait until the remote command
    // ends by itself; a cancelled run drops the connection instead.
    shutdown(socket_->fd(), SHUT_RDWR);
    throw;
  }
  int status = pump.exitStatus();
  logger().debug("Execution finished with return code " +
                 std::to_string(status));
  return status;
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err,
              bool quietOutput, Counter& counter) {
  std::istringstream empty;
  return exec(command, empty, out, err, quietOutput, false, counter);
}

int Ssh::get(std::ostream& out, std::ostream& err,
             const std::string& remotePath, Counter& counter) {
  logger().debug("Reading data from the remote file " + remotePath);
  std::istringstream empty;
  return exec(catCommand("", remotePath), empty, out, err, true, true, counter);
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
  NullStream discarded;
  return get(out, discarded, remotePath, null_counter);
}

int Ssh::get(const std::string& remotePath, std::ostream& err,
             const std::string& localPath, Counter& counter) {
  Receipt receipt = receive(remotePath, err, localPath, counter);
  if (!receipt.writeError.empty()) {
    logger().error("Unable to receive " + remotePath + ": " +
                   receipt.writeError);
    TOVEL_THROW(StreamWrite);
  }
  return receipt.status;
}

Ssh::Receipt Ssh::receive(const std::string& remotePath, std::ostream& err,
                          const std::string& localPath, Counter& counter,
                          uint64_t maxBytes) {
  logger().debug("Reading data to the file " + localPath);
  Receipt receipt;
  ReceivingFile file(localPath, maxBytes);
  if (file.error().empty()) {
    std::istringstream empty;
    try {
      receipt.status = exec(catCommand("", remotePath), empty, file, err, true,
                            true, counter);
    } catch (const Exc<&StreamWrite>&) {
      // Another stream failed: not the receiving file's business.
      if (file.error().empty()) throw;
    }
  }
  file.close();
  receipt.bytes = file.bytes();
  receipt.md5sum = file.md5sum();
  receipt.writeError = file.error();
  return receipt;
}

int Ssh::get(const std::string& remotePath, const std::string& localPath) {
  NullStream discarded;
  return get(remotePath, discarded, localPath, null_counter);
}

void Ssh::put(std::istream& in, const std::string& remotePath) {
  logger().debug("Writing data to the remote file " + remotePath);
  NullStream discarded;
  exec(catCommand(" >", remotePath), in, discarded, discarded, true, true,
       null_counter);
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
  logger().debug("Writing file " + localPath + " to the remote host");
  std::ifstream file(localPath.c_str(), std::ios::binary);
  if (!file) {
    logger().error("Unable to read " + localPath + ": " + strerror(errno));
    TOVEL_THROW(StreamRead);
  }
  NullStream discarded;
  exec(catCommand(" >", remotePath), file, discarded, discarded, true, true,
       null_counter);
}

}  // namespace tovel
