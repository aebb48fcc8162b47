#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace verdo {

/// How far a request came and what it met on its way, for who has to explain to a person why it
/// failed. A plain value, written on the session's thread before the request's completion is
/// called; of several requests with the same trace it tells of the last one.
struct HttpTrace {
  /// What the request was busy with when it ended.
  enum class Stage {
    preparing,       ///< it was refused before anything was sent
    resolving,       ///< looking up the server's name
    resolvingProxy,  ///< looking up the proxy's name
    connecting,      ///< to the server, or to the proxy if there is one
    tunnelling,      ///< asking the proxy to be let through to the server
    securing,        ///< the TLS handshake
    asking,          ///< the request may be sent; no reply was there yet
    answered,        ///< a reply came, at least its head
  };
  /// What is wrong with the server's certificate.
  enum class Certificate { accepted, untrusted, expired, notYetValid, otherName };

  Stage stage = Stage::preparing;
  std::string proxy;    ///< host and port of the proxy that it took, no password; empty: none
  int proxyStatus = 0;  ///< the proxy's reply to being asked for a tunnel; 0: none
  int systemError = 0;  ///< the errno of a connection that could not be made; 0: not known
  std::string address;  ///< numeric, of the other end of the connection; empty: there was none
  Certificate certificate = Certificate::accepted;

  // Of the reply.
  int status = 0;                                             ///< 0: there was none
  std::string contentType;                                    ///< as the server wrote it
  std::string redirect;                                       ///< where a redirect leads to
  std::optional<std::chrono::system_clock::time_point> date;  ///< the server's clock
};

}  // namespace verdo
