#pragma once

#include <string>

namespace verdo {

/// What the doctor tells a person to do where that depends on the front end: whoever works with
/// windows has no options of a command line. Each text is one or several whole sentences. Every
/// front end gives all of them. What a thorough examination finds is told for the command line,
/// which alone asks for one. A plain value.
struct Remedies {
  std::string connect;          ///< where there is no token, and none comes from an env file
  std::string renewToken;       ///< the service does not accept it
  std::string address;          ///< the server's address is of no use as it is written
  std::string plainHttp;        ///< the address is plain http to another computer
  std::string caFile;           ///< the CA file cannot be used
  std::string authority;        ///< the server's certificate is of an unknown authority
  std::string values;           ///< something makes a request impossible
  std::string proxy;            ///< it is not there, or none
  std::string proxyPassword;    ///< it wants one, or another one
  std::string proxyException;   ///< it does not let through to the server
  std::string missingProxy;     ///< a name is not resolved: perhaps a proxy alone can do that
  std::string executorCommand;  ///< its quotes do not match
  std::string executorProgram;  ///< a directory is named in place of the program
  std::string executor;         ///< none is found
  std::string executorAnswer;   ///< what is found is none
  std::string provider;         ///< the provider's address is of no use
  std::string providerAway;     ///< the provider cannot be asked
  std::string renewKey;         ///< the provider rejects it

  /// For verdo-driver: they name its options and variables.
  static Remedies ofCommandLine();
};

}  // namespace verdo
