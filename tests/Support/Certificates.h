#pragma once

#include "tests/Support/TempDir.h"

#include <string>

namespace verdo::test {

/// A certificate for 127.0.0.1 that is its own authority, and its key, as PEM files.
class Certificates {
 public:
  Certificates();
  /// What a client has to trust.
  std::string authority() const { return certificate(); }
  std::string certificate() const { return directory_ / "certificate.pem"; }
  std::string privateKey() const { return directory_ / "key.pem"; }

 private:
  TempDir directory_;
};

}  // namespace verdo::test
