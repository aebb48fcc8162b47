#pragma once

#include "LocalService/EventFd.h"
#include "LocalService/Tls.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <httplib.h>

namespace verdo::local {

/// One accepted connection, plain or TLS, as the byte stream from which cpp-httplib reads requests
/// and to which it writes replies. It keeps the head of a request as it came, sends a reply in one
/// piece, notices when its client goes away, and can end in ways that no HTTP library offers.
///
/// Owned and used by the one thread that serves the connection; only drop() may be called from
/// others.
class Connection final : public httplib::Stream {
 public:
  enum class Wake {
    timeout,    ///< the time has passed
    signalled,  ///< the descriptor given to wait() became readable
    hungUp,     ///< the client closed or reset its side
    stopping,   ///< the service stops
  };

  /// `tls` may be null; `stopEvent` becomes readable when the service stops. Both outlive this.
  Connection(UniqueFd socket, SSL_CTX* tls, const EventFd& stopEvent, std::uint64_t number,
             std::uint16_t peerPort);
  ~Connection() override;  ///< closes: orderly, or with a reset after abort()

  std::uint64_t number() const { return number_; }
  std::uint16_t peerPort() const { return peerPort_; }

  /// TLS handshake; true at once on a plain connection. False: no use going on.
  bool handshake();
  /// The first bytes of a request are there. False: idle for too long, closed, or stopping.
  bool waitForRequest(std::chrono::milliseconds idleTimeout);
  void beginRequest();  ///< forgets the previous request
  /// Request line and headers of the current request, byte for byte.
  const std::string& head() const { return head_; }

  /// The client has closed or reset its side. One that only shuts down its sending half counts as
  /// gone too: HTTP clients do not do that while they wait for a reply.
  bool hungUp() const;
  /// Waits until something happens; `fd` may be -1.
  Wake wait(std::chrono::milliseconds timeout, int fd = -1) const;

  /// Sends what was written so far. False: the client can no longer be reached.
  bool flush();
  /// What httplib writes for the current request is thrown away: the reply comes through send().
  void takeOver() { takenOver_ = true; }
  /// takeOver(), and the connection ends after the current request.
  void takeOverAndEnd() { takenOver_ = ending_ = true; }
  void endAfterReply() { ending_ = true; }  ///< which leaves as usual
  bool ending() const { return ending_; }
  /// Sends bytes at once, also after takeOver(). False as in flush().
  bool send(std::string_view bytes);
  void abort();  ///< takeOverAndEnd(), with a TCP RST
  void drop();   ///< from any thread: both directions end, blocked reads and writes return

  // httplib::Stream
  bool is_readable() const override;
  bool is_writable() const override { return !failed_; }
  ssize_t read(char* buffer, size_t size) override;
  ssize_t write(const char* bytes, size_t size) override;
  using httplib::Stream::write;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  /// httplib may be built to refuse descriptors that do not fit select(2), and uses this for
  /// nothing else; nothing here selects.
  socket_t socket() const override { return 0; }

 private:
  ssize_t receive(char* buffer, std::size_t size);

  UniqueFd socket_;
  SslPtr ssl_;
  const EventFd& stopEvent_;
  const std::uint64_t number_;
  const std::uint16_t peerPort_;
  std::vector<char> input_;
  std::size_t inputBegin_ = 0;
  std::size_t inputEnd_ = 0;
  std::string head_;
  bool headComplete_ = false;
  std::string output_;
  bool takenOver_ = false;
  bool ending_ = false;
  bool failed_ = false;
  bool aborted_ = false;
};

}  // namespace verdo::local
